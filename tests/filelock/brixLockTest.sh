#!/bin/sh
echo placeholder
