#!/usr/bin/env bash
# Builds the benchmarks (Release, in build/bench unless ZR_BENCH_BUILD says
# otherwise) and runs every fixed workload: W1-W6, W10-W12, M1 and the phases of M2,
# their scalar references and the whole requests, each at 1 and 2 threads, 7
# repetitions after a warm-up, medians only; then the whole processes
# (bench/time_to_picture.py): L1 and L1z, a NIfTI file of V1 drawn by zrslice
# against `gzip -dc`, and M2, zrslice against VTK's reader and cutter. Extra
# arguments go to the benchmark program, e.g.
#   bash scripts/bench.sh --benchmark_filter='W1_'
# and a whole-process workload runs only when they leave its name (L1, M2)
# selected, the viewer's frame time (View_thin_512, View_maximum_512: zrslice
# view in headless Chromium) only when they leave View selected. The first run
# generates the 200 MiB volume V1, its NIfTI files and the mesh S2 files and
# caches them in the build tree. ZR_SIMD=baseline|avx2|avx512 limits the
# kernels' instruction set.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

build=${ZR_BENCH_BUILD:-build/bench}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DZR_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j2 --target zrbench zrslice

if [ $# -eq 0 ] || [[ "$*" == *L1* ]] || [[ "$*" == *View* ]]; then
    /usr/bin/python3 bench/volume_v1_nifti.py "$build/bench-data" >/dev/null
fi

echo "load: $(cut -d' ' -f1-3 /proc/loadavg)"
"$build/bin/zrbench" --benchmark_repetitions=7 --benchmark_report_aggregates_only=true \
    --benchmark_min_warmup_time=0.2 --benchmark_min_time=0.3 "$@"

whole=()
for workload in L1 M2; do
    if [ $# -eq 0 ] || [[ "$*" == *$workload* ]]; then whole+=("$workload"); fi
done
if [ ${#whole[@]} -gt 0 ]; then
    /usr/bin/python3 bench/time_to_picture.py "$build/bin/zrslice" "$build/bench-data" 7 "${whole[@]}"
fi

# The viewer's frame time: from a wheel step in the page (headless Chromium)
# to the new 512 x 512 pixels on its canvas, a thin slice and a 20 mm maximum
# slab of V1 as the NIfTI file of L1 (View_thin_512, View_maximum_512).
if [ $# -eq 0 ] || [[ "$*" == *View* ]]; then
    filter=""
    for a in "$@"; do [[ "$a" == --benchmark_filter=* ]] && filter="${a#--benchmark_filter=}"; done
    node tests/browser/viewer_test.mjs --bench --zrslice "$build/bin/zrslice" --source "$build/bench-data/v1_i16.nii" \
        --size 512 --out "$build/viewer-bench" --filter "$filter"
fi
