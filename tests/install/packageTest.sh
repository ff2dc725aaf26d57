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
  echo "-- $(basename "$deb")"
  dpkg-deb --field "$deb" Package Version Architecture Depends
  # Every file is root's; nothing is set-user-ID.
  if dpkg-deb --contents "$deb" | awk '$2 != "root/root" || $1 ~ /s/' | grep .; then
    fail "$(basename "$deb"): files not owned by root or set-user-ID"
  fi
done

if ! command -v lintian >/dev/null; then
  fail "lintian is not installed (scripts/deps.sh installs it)"
fi
# lintian refuses to run as root without this.
rc=0
lintian --allow-root --fail-on none --tag-display-limit 0 "${debs[@]}" >"$tmp/lintian.log" 2>&1 || rc=$?
cat "$tmp/lintian.log"
[ $rc -eq 0 ] || fail "lintian could not run (status $rc)"
if grep -q '^E: ' "$tmp/lintian.log"; then
  fail "lintian reports errors"
fi
echo "ok: packages built; lintian reports no errors"
