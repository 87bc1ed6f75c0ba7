#!/usr/bin/env bash
# Builds the benchmarks in Release and prints each one's medians, for the
# table in bench/README.md. Run it on a quiet machine: the figures are wall
# and CPU time.
#   BENCH_REPS (default 5) repetitions per benchmark; extra arguments go to
#   every benchmark (for example --benchmark_filter=BtBegin). The proxy's
#   end-to-end figure follows, one 10-second run per repetition; its memory
#   figure takes minutes and is a command of its own (bench/README.md).
set -euo pipefail
cd "$(dirname "$0")/.."
reps=${BENCH_REPS:-5}
cmake -S . -B build/bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DZX_BUILD_TESTS=OFF >/dev/null
cmake --build build/bench -j "$(nproc)" >/dev/null
for bench in build/bench/bench/*_bench; do
  # One digest set per process: its resident-memory figure must not see
  # another run's pages.
  [ "$(basename "$bench")" = tdigest_rss_bench ] && continue
  echo "== $(basename "$bench")"
  "$bench" --benchmark_repetitions="$reps" --benchmark_report_aggregates_only=true "$@" 2>/dev/null |
    grep '_median'
done
echo "== proxy_driver throughput (4 processes, 1.2 M method events/s offered, 10 s)"
for _ in $(seq "$reps"); do
  build/bench/bench/proxy_driver throughput 4 10 1200000 | grep -E '^end to end|^nothing lost|LOSS' ||
    echo "proxy_driver: frames lost or the run failed"
done
