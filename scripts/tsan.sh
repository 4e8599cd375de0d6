#!/usr/bin/env bash
# ThreadSanitizer run: builds the end-to-end, volume kernel, mesh and host
# test programs (the host's hierarchy build runs as OpenMP tasks) with clang,
# -fsanitize=thread and LLVM's OpenMP runtime (preset "tsan", build/tsan),
# whose Archer tool tells ThreadSanitizer about OpenMP's
# barriers and tasks, and runs them with the suppressions in cmake/tsan.supp
# (the mesh slicer's same-colour pixel writes, nothing else). Any other race
# report fails the run. Prints one summary line at the end.
# Usage: bash scripts/tsan.sh [extra GoogleTest arguments]
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

# clang and libomp (with Archer) are not part of the default set-up.
tsan_packages=(clang libomp-dev)
missing=()
for p in "${tsan_packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "tsan: installing ${missing[*]}"
    sudo_cmd=()
    if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi
    export DEBIAN_FRONTEND=noninteractive
    "${sudo_cmd[@]}" apt-get update -qq
    "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

cmake --preset tsan >/dev/null
cmake --build --preset tsan

archer=$(clang++ -print-file-name=libarcher.so)
if [ ! -f "$archer" ]; then
    archer=$(ls /usr/lib/llvm-*/lib/libarcher.so 2>/dev/null | sort -V | tail -1 || true)
fi
if [ -z "$archer" ] || [ ! -f "$archer" ]; then
    echo "tsan: libarcher.so not found (it comes with libomp-dev)"
    exit 1
fi
export OMP_TOOL_LIBRARIES=$archer
# More threads than cores: more interleavings for the race detector to see.
export OMP_NUM_THREADS=${OMP_NUM_THREADS:-4}
# ignore_noninstrumented_modules: libomp's own internals are not instrumented;
# Archer reports its synchronisation instead.
export TSAN_OPTIONS="suppressions=$PWD/cmake/tsan.supp ignore_noninstrumented_modules=1 exitcode=66 second_deadlock_stack=1 ${TSAN_OPTIONS:-}"

build=build/tsan
passed=0
failed=0
races=0
status=0
for program in test_end_to_end test_volume_kernels test_mesh test_host; do
    log="$build/$program.tsan.log"
    echo "tsan: running $program"
    rc=0
    "$build/bin/$program" --gtest_brief=1 "$@" >"$log" 2>&1 || rc=$?
    p=$(sed -n 's/^\[  PASSED  \] \([0-9]*\) test.*/\1/p' "$log" | tail -1)
    f=$(sed -n 's/^\[  FAILED  \] \([0-9]*\) test.*/\1/p' "$log" | tail -1)
    r=$(grep -c '^WARNING: ThreadSanitizer' "$log" || true)
    passed=$((passed + ${p:-0}))
    failed=$((failed + ${f:-0}))
    races=$((races + r))
    if [ "$rc" -ne 0 ] || [ "$r" -ne 0 ] || [ -z "$p" ]; then
        status=1
        echo "tsan: $program exited with $rc, $r race report(s); see $log"
        grep -A30 '^WARNING: ThreadSanitizer' "$log" | head -60 || true
    fi
done
echo "tsan: $races unsuppressed race report(s)"
echo "tsan: $passed passed, $failed failed"
exit "$status"
