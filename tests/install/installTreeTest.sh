#!/usr/bin/env bash
# installTreeTest.sh BUILD CONSUMER HAVE_LOCK HAVE_CONFIG
# Installs BUILD into a temporary prefix, checks the layout, builds the C program in CONSUMER
# against it through pkg-config and through find_package(tesmar), runs both, and runs the
# installed tools. brix-lock and brix-config are checked when the build makes them.
set -euo pipefail
build=$1 consumer=$2 have_lock=$3 have_config=$4
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
p=$tmp/prefix
fail() { echo "FAIL: $*" >&2; exit 1; }
# quiet COMMAND...: runs it with its output shown only when it fails.
quiet() { "$@" >"$tmp/log" 2>&1 || { cat "$tmp/log"; fail "$*"; }; }

quiet cmake --install "$build" --prefix "$p"
# Layout: the archive, the C headers, no internal header, the package files, the manual pages,
# the programs (not set-user-ID).
for f in tesmar.pc tesmarConfig.cmake libtesmar.a 'str.3*'; do
  [ -n "$(find "$p" -name "$f")" ] || fail "$f not installed"
done
for h in log.h str.h dynbuf.h hashTable.h unicode.h file.h fileIO.h dictionary.h config.h msg.h \
         uuid.h userlock.h; do
  [ -f "$p/include/tesmar/$h" ] || fail "header $h not installed"
done
[ -z "$(find "$p/include" -name uniqueFd.h)" ] || fail "an internal header was installed"
for f in "$p"/libexec/tesmar/brix-{opener,services}; do
  [ -x "$f" ] && [ ! -u "$f" ] || fail "$f missing or set-user-ID"
done

# The same program, built twice from outside.
export PKG_CONFIG_PATH=$(dirname "$(find "$p" -name tesmar.pc -print -quit)")
cc -std=c11 -Wall -Wextra -Werror -o "$tmp/viaPkgConfig" "$consumer/consumer.c" \
  $(pkg-config --cflags --libs tesmar) || fail "build through pkg-config"
quiet cmake -S "$consumer" -B "$tmp/cmake" -DCMAKE_PREFIX_PATH="$p"
quiet cmake --build "$tmp/cmake"
for program in "$tmp/viaPkgConfig" "$tmp/cmake/consumer"; do
  [ "$("$program")" = "answer=42 utf8=5 uuid=47" ] || fail "$program"
done

# The installed tools.
if [ "$have_lock" = 1 ]; then
  "$p/bin/brix-lock" --no-wait "$tmp/shared" -- sh -c 'echo held >"$0"' "$tmp/ran" || fail brix-lock
  [ "$(cat "$tmp/ran")" = held ] || fail "brix-lock did not run the command"
fi
if [ "$have_config" = 1 ]; then
  "$p/bin/brix-config" set "$tmp/app.cfg" answer 42 || fail "brix-config set"
  [ "$("$p/bin/brix-config" get "$tmp/app.cfg" answer --type long)" = 42 ] || fail "brix-config get"
fi
echo ok
