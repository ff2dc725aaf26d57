#!/usr/bin/env bash
# Builds the benchmarks (release) and runs each several times; prints medians.
# Usage: scripts/bench.sh [filter-regex]
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/deps.sh
cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF >/dev/null
cmake --build build-bench -j "$(nproc)"
filter=${1:-.}
for b in build-bench/bench/bench_*; do
  [ -x "$b" ] || continue
  echo "== $(basename "$b")"
  "$b" --benchmark_filter="$filter" --benchmark_repetitions=5 \
    --benchmark_report_aggregates_only=true --benchmark_display_aggregates_only=true 2>&1 |
    grep -E '_median|^Benchmark|^-' || true
done
