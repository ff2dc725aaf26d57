/*
 * System strings (UTF-8 on the heap) and the encoding-name table.
 */
#ifndef TESMAR_UNICODE_H
#define TESMAR_UNICODE_H

#include "unicodeBase.h"
#include "unicodeOperations.h"
#include "unicodeTypes.h"

#endif
