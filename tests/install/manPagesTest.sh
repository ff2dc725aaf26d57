#!/usr/bin/env bash
# manPagesTest.sh MANDIR: every manual page renders without a single groff or man warning.
set -euo pipefail
status=0
pages=("$1"/man[1-9]/*.[1-9])
[ -e "${pages[0]}" ] || { echo "FAIL: no manual pages under $1" >&2; exit 1; }
for page in "${pages[@]}"; do
  macros=-man
  grep -q '^\.Dd' "$page" && macros=-mdoc
  warnings=$(LC_ALL=C.UTF-8 groff -ww "$macros" -z -Tutf8 "$page" 2>&1 || true)
  if command -v man >/dev/null; then
    warnings+=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -E UTF-8 -l -Tutf8 -Z "$page" 2>&1 >/dev/null || true)
  fi
  if [ -n "$warnings" ]; then
    echo "FAIL: $page" >&2
    echo "$warnings" >&2
    status=1
  fi
done
[ $status -eq 0 ] && echo "ok: ${#pages[@]} pages"
exit $status
