#!/usr/bin/env bash
# Fuzzing: builds the libFuzzer programs with clang and the address and
# undefined-behaviour sanitizers (preset "fuzz", build/fuzz) and runs each for a
# fixed time: the request-file reader of the command-line host on JSON text, and
# DoModule over a small fixed scene with parameters decoded from the input
# (wrong types included). Seeds: the checked-in request files, the hand-written
# ones in fuzz/seeds/, and DoModule inputs made from the request files. A crash
# leaves its input in build/fuzz/findings/<target>/; copy it to
# tests/data/fuzz-regressions/<target>/ with the fix, where the ordinary test
# suite replays it. Prints executions per target and one summary line.
# Usage: bash scripts/fuzz.sh [SECONDS_PER_TARGET]   (default 60)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
bash scripts/setup.sh

# clang and libomp are not part of the default set-up.
fuzz_packages=(clang libomp-dev)
missing=()
for p in "${fuzz_packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "fuzz: installing ${missing[*]}"
    sudo_cmd=()
    if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi
    export DEBIAN_FRONTEND=noninteractive
    "${sudo_cmd[@]}" apt-get update -qq
    "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz

build=$PWD/build/fuzz
corpus=$build/corpus
findings=$build/findings
mkdir -p "$corpus/request_file" "$corpus/do_module" "$findings/request_file" "$findings/do_module"
cp tests/data/requests/*.json fuzz/seeds/request_file/*.json "$corpus/request_file/"
"$build/bin/make_do_module_seeds" "$corpus/do_module" tests/data/requests/*.json

# The module prints its warnings on standard output: closed to keep the fuzzer
# fast (-close_fd_mask=1). Two OpenMP threads, as on the CI machine.
export OMP_NUM_THREADS=${OMP_NUM_THREADS:-2}
export ASAN_OPTIONS="detect_leaks=1:allocator_may_return_null=1:${ASAN_OPTIONS:-}"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:${UBSAN_OPTIONS:-}"

status=0
clean=0
crashed=0
for target in request_file do_module; do
    log=$build/fuzz_$target.log
    rc=0
    "$build/bin/fuzz_$target" "$corpus/$target" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=4096 \
        -max_len=8192 -close_fd_mask=1 -print_final_stats=1 -artifact_prefix="$findings/$target/" \
        >"$log" 2>&1 || rc=$?
    runs=$(sed -n 's/^stat::number_of_executed_units: *\([0-9]*\).*/\1/p' "$log" | tail -1)
    cov=$(grep -o 'cov: [0-9]*' "$log" | tail -1 | sed 's/cov: //')
    if [ "$rc" -eq 0 ]; then
        clean=$((clean + 1))
        echo "fuzz: $target: ${runs:-?} executions in ${seconds} s, coverage ${cov:-?}, no finding"
    else
        crashed=$((crashed + 1))
        status=1
        echo "fuzz: $target: finding after ${runs:-?} executions (exit $rc); input in $findings/$target/, log $log"
        grep -E 'ERROR|SUMMARY|runtime error|#[0-9]+ 0x' "$log" | head -25 || true
    fi
done
echo "fuzz: $clean passed, $crashed failed"
exit "$status"
