#!/usr/bin/env bash
# Builds the benchmarks (Release, in build/bench unless ZR_BENCH_BUILD says
# otherwise) and runs every fixed workload: W1-W6, M1 and the phases of M2,
# their scalar references and the whole requests, each at 1 and 2 threads, 7
# repetitions after a warm-up, medians only; then M2 as a whole process, zrslice
# against VTK's reader and cutter (bench/time_to_picture.py). Extra arguments go
# to the benchmark program, e.g.
#   bash scripts/bench.sh --benchmark_filter='W1_'
# and the whole-process M2 runs only when they leave M2 selected, the viewer's
# frame time (View_thin_512, View_maximum_512: zrslice view in headless
# Chromium) only when they leave View selected. The first run
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

# The viewer's frame time: from a wheel step in the page (headless Chromium)
# to the new 512 x 512 pixels on its canvas, a thin slice and a 20 mm maximum
# slab of V1 written as a NIfTI file (View_thin_512, View_maximum_512).
if [ $# -eq 0 ] || [[ "$*" == *View* ]]; then
    v1="$build/bench-data/v1_u16_512x512x400.raw"
    if [ ! -f "$v1" ]; then  # zrbench writes the V1 cache when a V1 workload first runs
        "$build/bin/zrbench" --benchmark_filter='^W1_OtfSlice/1/' --benchmark_min_time=0.01 >/dev/null
    fi
    /usr/bin/python3 bench/viewer_volume.py "$v1" "$build/bench-data/v1.nii"
    filter=""
    for a in "$@"; do [[ "$a" == --benchmark_filter=* ]] && filter="${a#--benchmark_filter=}"; done
    node tests/browser/viewer_test.mjs --bench --zrslice "$build/bin/zrslice" --source "$build/bench-data/v1.nii" \
        --size 512 --out "$build/viewer-bench" --filter "$filter"
fi
