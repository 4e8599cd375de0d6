#!/usr/bin/env bash
# Installs what is missing, builds the release preset and runs the whole test
# suite, then builds the asan preset and runs the suite again under the address
# and undefined-behaviour sanitizers, then cross-builds for Windows x64 and runs
# the unit and end-to-end tests under Wine (scripts/windows.sh).
# ZR_SANITIZE=0 skips the sanitized run, ZR_WINDOWS=0 the Windows one.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

run_preset() {
    local preset=$1
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset"
    ctest --preset "$preset"
}

run_preset release
if [ "${ZR_SANITIZE:-1}" = "1" ]; then
    run_preset asan
fi
if [ "${ZR_WINDOWS:-1}" = "1" ]; then
    bash scripts/windows.sh
fi
