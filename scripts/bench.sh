#!/usr/bin/env bash
# Builds the benchmarks (Release, in build/bench unless ZR_BENCH_BUILD says
# otherwise) and runs every fixed workload: W1-W6 and M1, their scalar
# references and the whole requests, each at 1 and 2 threads, 7 repetitions after
# a warm-up, medians only. Extra arguments go to the benchmark program, e.g.
#   bash scripts/bench.sh --benchmark_filter='W1_'
# The first run generates the 200 MiB volume V1 and caches it in the build tree.
# ZR_SIMD=baseline|avx2|avx512 limits the kernels' instruction set.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

build=${ZR_BENCH_BUILD:-build/bench}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DZR_BUILD_TESTS=OFF -DZR_BUILD_TOOLS=OFF >/dev/null
cmake --build "$build" -j2 --target zrbench

echo "load: $(cut -d' ' -f1-3 /proc/loadavg)"
exec "$build/bin/zrbench" --benchmark_repetitions=7 --benchmark_report_aggregates_only=true \
    --benchmark_min_warmup_time=0.2 --benchmark_min_time=0.3 "$@"
