#!/usr/bin/env bash
# packageTest.sh BUILD: builds the Debian packages with cpack and has lintian check them. Any
# lintian error fails; warnings are printed for the record.
set -euo pipefail
build=$1
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

(cd "$tmp" && cpack -G DEB --config "$build/CPackConfig.cmake" -B "$tmp/out") >"$tmp/cpack.log" 2>&1 \
  || { cat "$tmp/cpack.log"; fail "cpack"; }
shopt -s nullglob
debs=("$tmp"/out/*.deb)
[ ${#debs[@]} -eq 2 ] || { ls -l "$tmp/out"; fail "expected two packages"; }
for deb in "${debs[@]}"; do
  # Every file is root's; nothing is set-user-ID.
  ! dpkg-deb --contents "$deb" | awk '$2 != "root/root" || $1 ~ /s/' | grep . ||
    fail "$(basename "$deb"): files not owned by root or set-user-ID"
done

command -v lintian >/dev/null || fail "lintian is not installed (scripts/deps.sh installs it)"
# lintian refuses to run as root without --allow-root.
lintian --allow-root --fail-on none --tag-display-limit 0 "${debs[@]}" >"$tmp/lintian.log" 2>&1 ||
  fail "lintian could not run (status $?)"
cat "$tmp/lintian.log"
! grep -q '^E: ' "$tmp/lintian.log" || fail "lintian reports errors"
