#!/usr/bin/env bash
# Builds the benchmarks (Release, in build/bench unless ZR_BENCH_BUILD says
# otherwise) and runs every fixed workload: W1-W6, W10, W11, M1 and the phases of M2,
# their scalar references and the whole requests, each at 1 and 2 threads, 7
# repetitions after a warm-up, medians only; then M2 as a whole process, zrslice
# against VTK's reader and cutter (bench/time_to_picture.py). Extra arguments go
# to the benchmark program, e.g.
#   bash scripts/bench.sh --benchmark_filter='W1_'
# and the whole-process M2 runs only when they leave M2 selected. The first run
# generates the 200 MiB volume V1 and the mesh S2 files and caches them in the
# build tree. ZR_SIMD=baseline|avx2|avx512 limits the kernels' instruction set.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

build=${ZR_BENCH_BUILD:-build/bench}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DZR_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j2 --target zrbench zrslice

echo "load: $(cut -d' ' -f1-3 /proc/loadavg)"
"$build/bin/zrbench" --benchmark_repetitions=7 --benchmark_report_aggregates_only=true \
    --benchmark_min_warmup_time=0.2 --benchmark_min_time=0.3 "$@"

if [ $# -eq 0 ] || [[ "$*" == *M2* ]]; then
    /usr/bin/python3 bench/time_to_picture.py "$build/bin/zrslice" "$build/bench-data"
fi
