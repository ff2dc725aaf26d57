#!/usr/bin/env bash
# The opener end to end: an unprivileged user hands a descriptor to the services daemon through
# the set-user-ID opener. Builds into build-demo/ with every machine-wide path (/var/run, the
# application-support directory) under build-demo/root, so nothing outside it is touched except
# a temporary product bundle under /tmp.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$(pwd)

if [ "$(id -u)" -ne 0 ]; then
  echo "demo.sh must run as root: it installs the opener set-user-ID root into a private" >&2
  echo "bundle and then runs it as the unprivileged user 'nobody'. Try: sudo $0" >&2
  exit 1
fi
./scripts/deps.sh

say() { printf '\n\033[1m== %s\033[0m\n' "$*"; }
show() { printf '   $ %s\n' "$*"; }
indent() { sed 's/^/     /'; }

build="$top/build-demo"
root="$build/root"
support="$root/Library/Application Support/Tesmar/Larkview"
# Where the opener starts the daemon from: the application-support directory, "Services", and
# the location key serviceDaemonFile ("/Contents/Library/services/BRIX Services").
daemon="$support/Services/Contents/Library/services/BRIX Services"
log="$root/var/log/BRIX Services.log"

say "Building brix-opener, brix-services and brix-codesign (machine-wide paths under build-demo/root)"
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF \
  -DBRIX_BENCH=OFF "-DBRIX_ROOT_PREFIX=$root" >/dev/null
cmake --build "$build" --target brix-opener brix-services brix-codesign -j 2 | { grep -v "warning: Using" || true; } | tail -1 | indent
# The build generated a test signing authority and compiled its root into the opener.
pki="$build/codesign-pki"
codesign="$build/apps/codesign/brix-codesign"

daemon_pids() {
  local p
  for p in /proc/[0-9]*; do
    [ "$(readlink "$p/exe" 2>/dev/null)" = "$daemon" ] && echo "${p#/proc/}"
  done
  return 0
}

tmp=$(mktemp -d /tmp/brix-demo-XXXXXX)
shell_pid=""
cleanup() {
  [ -n "$shell_pid" ] && kill "$shell_pid" 2>/dev/null || true
  for pid in $(daemon_pids); do kill "$pid" 2>/dev/null || true; done
  rm -rf "$tmp" "$root"
}
trap cleanup EXIT
rm -rf "$root"
mkdir -p "$root/var/run" "$root/var/log" "$support"

say "Laying out the product bundle: the opener and the nine signed services files"
chmod 755 "$tmp"
bundle="$tmp/Larkview.app"
lib="$bundle/Contents/Library"
services="$lib/services"
opener="$services/Open BRIX Services"
install -d -m 755 "$services" "$lib/kexts/quillmod.kext/Contents/MacOS"
install -o root -g root -m 4755 "$build/apps/opener/brix-opener" "$opener"
install -o root -g root -m 755 "$build/apps/services/brix-services" "$services/BRIX Services"
for f in tesmar-id tesmar-usbgate productInfo services/services.sh \
         "services/Open Tesmar USB Gate Service" "services/Tesmar USB Gate Service" \
         services/usbGateService.sh; do
  printf '#!/bin/sh\n# %s\n' "$f" >"$lib/$f"
  chmod 755 "$lib/$f"
done
kext="$lib/kexts/quillmod.kext"
printf '<plist version="1.0"><dict><key>CFBundleIdentifier</key><string>com.tesmar.quillmod</string></dict></plist>\n' \
  >"$kext/Contents/Info.plist"
printf '#!/bin/sh\n' >"$kext/Contents/MacOS/quillmod"
chmod 755 "$kext/Contents/MacOS/quillmod"
sign() { "$codesign" sign --identifier "$1" --cert "$pki/leaf.pem" --key "$pki/leaf.key" "$2" 2>&1 | indent; }
sign tesmar-id "$lib/tesmar-id"
sign tesmar-usbgate "$lib/tesmar-usbgate"
sign productInfo "$lib/productInfo"
sign com.tesmar.quillmod "$kext"
sign "BRIX Services" "$services/BRIX Services"
sign services "$services/services.sh"
sign "Open Tesmar USB Gate Service" "$services/Open Tesmar USB Gate Service"
sign "Tesmar USB Gate Service" "$services/Tesmar USB Gate Service"
sign usbGateService "$services/usbGateService.sh"
echo "   The daemon's signature:"
"$codesign" display "$services/BRIX Services" | indent
echo "   The opener, set-user-ID root, four levels below the bundle root:"
ls -l "$opener" | indent
echo "   It installs a verified root-owned copy of the services files and starts the daemon from:"
echo "$daemon" | sed "s|$top/||" | indent
echo "   The opener is linked statically: no loader, no shared library, so no LD_* has any effect:"
(ldd "$opener" 2>&1 || true) | indent

work="$tmp/work"
install -d -o nobody -m 755 "$work"
out="$work/greetings.txt"
as_nobody() { setpriv --reuid=nobody --regid=nogroup --clear-groups "$@"; }

say "1. As nobody, hand descriptor 3 (a file opened for appending) to the daemon"
echo "   No daemon runs yet: the opener becomes the listener, starts it, and connects."
show "setpriv --reuid=nobody ... sh -c 'exec \"Open BRIX Services\" 3 3>>greetings.txt'"
set +e
as_nobody sh -c 'exec "$0" 3 3>>"$1"' "$opener" "$out" 2>&1 | indent
status=${PIPESTATUS[0]}
set -e
echo "   exit status: $status"
pids=$(daemon_pids)
echo "   The daemon runs as root, detached:"
ps -o pid,ppid,user,ruser,sid,args -p "$pids" | indent
echo "   What the daemon wrote into the descriptor it received:"
indent <"$out"

say "2. Again: this time the opener finds the running daemon"
set +e
as_nobody sh -c 'exec "$0" 3 3>>"$1"' "$opener" "$out" 2>&1 | indent
status=${PIPESTATUS[0]}
set -e
echo "   exit status: $status; daemons running: $(daemon_pids | wc -l) (PID $(daemon_pids))"
indent <"$out"

say "3. Shell mode: no argument; the opener hands over a pipe and stays alive"
setpriv --reuid=nobody --regid=nogroup --clear-groups "$opener" >"$work/shell.out" 2>&1 &
shell_pid=$!
for _ in $(seq 50); do grep -q "opener PID $shell_pid" "$log" 2>/dev/null && break; sleep 0.1; done
echo "   The opener (PID $shell_pid) is still running:"
ps -o pid,user,args -p "$shell_pid" | indent
echo "   The daemon's log says:"
grep "opener PID $shell_pid" "$log" | indent
echo "   Ending it: the daemon sees end of file on the pipe."
kill "$shell_pid"
wait "$shell_pid" 2>/dev/null || true
for _ in $(seq 50); do grep -q "Opener PID $shell_pid has gone" "$log" && break; sleep 0.1; done
grep "Opener PID $shell_pid" "$log" | indent
shell_pid=""

say "4. Stopping the daemon (SIGTERM)"
for pid in $(daemon_pids); do kill -TERM "$pid"; done
for _ in $(seq 50); do [ -z "$(daemon_pids)" ] && break; sleep 0.1; done
echo "   daemons running: $(daemon_pids | wc -l)"

say "5. A tampered daemon in the bundle is refused"
printf 'x' | dd of="$services/BRIX Services" bs=1 seek=4096 conv=notrunc status=none
"$codesign" verify --requirement 'identifier "BRIX Services" and anchor trusted' \
  "$services/BRIX Services" 2>&1 | indent || true
set +e
as_nobody sh -c '"$0" 3 3>>"$1"; s=$?; echo; exit $s' "$opener" "$out" 2>&1 | indent
status=${PIPESTATUS[0]}
set -e
echo "   exit status: $status; daemons running: $(daemon_pids | wc -l)"
echo "   processes running the bundle's daemon: $(for p in /proc/[0-9]*; do
  [ "$(readlink "$p/exe" 2>/dev/null)" = "$services/BRIX Services" ] && echo "$p"; done | wc -l)"

say "The daemon's log (build-demo/root/var/log/BRIX Services.log)"
indent <"$log"

say "Files the opener left under build-demo/root/var/run (mode 0600, owned by root)"
ls -l "$root/var/run" | tail -n +2 | indent
echo
echo "Done: the temporary bundle and build-demo/root are removed."
