#!/usr/bin/env bash
# Runs every test: the suite, the suite again under AddressSanitizer and
# UndefinedBehaviorSanitizer (which also builds the fuzz targets), the thread suites under
# ThreadSanitizer, and a short run of every fuzz target on its checked-in corpus.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$(pwd)

./scripts/deps.sh

jobs=$(nproc)
werror=ON
fuzz_seconds=${FUZZ_SECONDS:-5}

step() { printf '\n==== %s\n' "$*"; }

step "build (gcc)"
cmake -S . -B build -G Ninja -DBRIX_WERROR=$werror >/dev/null
cmake --build build -j "$jobs"

step "tests (gcc)"
(cd build && ctest --output-on-failure -j "$jobs")

step "build (clang, AddressSanitizer + UndefinedBehaviorSanitizer, fuzz targets)"
CC=clang CXX=clang++ cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DBRIX_WERROR=$werror -DBRIX_SANITIZE=ON -DBRIX_FUZZ=ON >/dev/null
cmake --build build-asan -j "$jobs"

step "tests (AddressSanitizer + UndefinedBehaviorSanitizer)"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:strict_string_checks=1:allocator_may_return_null=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
(cd build-asan && ctest --output-on-failure -j "$jobs")

if (cd build && ctest -N -L threads | grep -q 'Total Tests: [1-9]'); then
  step "build (clang, ThreadSanitizer)"
  CC=clang CXX=clang++ cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug \
    -DBRIX_WERROR=$werror -DBRIX_TSAN=ON -DBRIX_BENCH=OFF >/dev/null
  cmake --build build-tsan -j "$jobs"
  step "thread tests (ThreadSanitizer)"
  export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
  (cd build-tsan && ctest --output-on-failure -j "$jobs" -L threads)
fi

step "fuzz targets (${fuzz_seconds}s each)"
shopt -s nullglob
for target in build-asan/fuzz/fuzz_*; do
  [ -x "$target" ] || continue
  name=$(basename "$target")
  corpus="$top/fuzz/corpus/${name#fuzz_}"
  scratch=$(mktemp -d)
  seeds=()
  [ -d "$corpus" ] && seeds=("$corpus")
  echo "-- $name"
  "$target" -max_total_time="$fuzz_seconds" -print_final_stats=0 "$scratch" "${seeds[@]}" \
    >"$scratch.log" 2>&1 || { cat "$scratch.log"; rm -rf "$scratch" "$scratch.log"; exit 1; }
  rm -rf "$scratch" "$scratch.log"
done

step "all tests passed"
