#!/usr/bin/env bash
# installTreeTest.sh BUILD CONSUMER HAVE_LOCK HAVE_CONFIG
# Installs BUILD into a temporary prefix, checks the layout, builds the C program in CONSUMER
# against it through pkg-config and through find_package(tesmar), runs both, and runs the
# installed tools. brix-lock and brix-config are checked when the build makes them.
set -euo pipefail
build=$1 consumer=$2 have_lock=$3 have_config=$4

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix

fail() { echo "FAIL: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$prefix" >"$tmp/install.log" 2>&1 || { cat "$tmp/install.log"; fail "install"; }

# Layout: the archive, the C headers, no internal helper, the package files, the programs.
pc=$(find "$prefix" -name tesmar.pc -print -quit)
config=$(find "$prefix" -name tesmarConfig.cmake -print -quit)
[ -n "$pc" ] || fail "no tesmar.pc"
[ -n "$config" ] || fail "no tesmarConfig.cmake"
[ -n "$(find "$prefix" -name libtesmar.a)" ] || fail "no libtesmar.a"
for h in log.h str.h dynbuf.h hashTable.h unicode.h file.h fileIO.h dictionary.h config.h msg.h \
         uuid.h userlock.h; do
  [ -f "$prefix/include/tesmar/$h" ] || fail "header $h not installed"
done
[ -z "$(find "$prefix/include" -name uniqueFd.h)" ] || fail "an internal header was installed"
for p in brix-opener brix-services; do
  f=$prefix/libexec/tesmar/$p
  [ -x "$f" ] || fail "$p not installed under libexec/tesmar"
  [ ! -u "$f" ] || fail "$p installed set-user-ID"
done
[ -n "$(find "$prefix/share/man/man3" -name 'str.3*')" ] || fail "no section 3 pages"

# The same program, built twice from outside.
export PKG_CONFIG_PATH=$(dirname "$pc")
cc -std=c11 -Wall -Wextra -Werror -o "$tmp/viaPkgConfig" "$consumer/consumer.c" \
  $(pkg-config --cflags --libs tesmar) || fail "build through pkg-config"
cmake -S "$consumer" -B "$tmp/cmake" -DCMAKE_PREFIX_PATH="$prefix" >"$tmp/cmake.log" 2>&1 \
  || { cat "$tmp/cmake.log"; fail "find_package(tesmar)"; }
cmake --build "$tmp/cmake" >"$tmp/cmake.log" 2>&1 || { cat "$tmp/cmake.log"; fail "build through find_package"; }
expected="answer=42 utf8=5 uuid=47"
for program in "$tmp/viaPkgConfig" "$tmp/cmake/consumer"; do
  out=$("$program") || fail "$program exited $?"
  [ "$out" = "$expected" ] || fail "$program printed '$out'"
done
echo "ok: consumer built through pkg-config and find_package"

# The installed tools.
if [ "$have_lock" = 1 ]; then
  lock=$prefix/bin/brix-lock
  "$lock" --help | grep -q 'brix-lock' || fail "brix-lock --help"
  "$lock" --no-wait "$tmp/shared" -- sh -c 'echo held >"$0"' "$tmp/ran" || fail "brix-lock ran nothing"
  [ "$(cat "$tmp/ran")" = held ] || fail "brix-lock did not run the command"
  echo "ok: brix-lock"
else
  echo "skipped: brix-lock is not part of this build"
fi
if [ "$have_config" = 1 ]; then
  cfg=$prefix/bin/brix-config
  "$cfg" --help | grep -q 'brix-config' || fail "brix-config --help"
  "$cfg" set "$tmp/app.cfg" answer 42 || fail "brix-config set"
  [ "$("$cfg" get "$tmp/app.cfg" answer --type long)" = 42 ] || fail "brix-config get"
  echo "ok: brix-config"
else
  echo "skipped: brix-config is not part of this build"
fi
