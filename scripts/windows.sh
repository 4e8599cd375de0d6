#!/usr/bin/env bash
# Windows x64 build: cross-compiles the plug-in, the reference host and the test
# programs with mingw-w64 (preset "windows", build/windows), checks that the
# plug-in DLL exports exactly its seven entry points, and runs the unit and
# end-to-end tests under Wine. Installs the cross compiler and Wine when missing
# (they are not part of the default set-up). Prints one summary line at the end.
# Usage: bash scripts/windows.sh
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

# What the cross build needs beyond the default set-up; installed only when missing.
windows_packages=(g++-mingw-w64-x86-64-posix wine64 googletest)
missing=()
for p in "${windows_packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "windows: installing ${missing[*]}"
    sudo_cmd=()
    if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi
    export DEBIAN_FRONTEND=noninteractive
    "${sudo_cmd[@]}" apt-get update -qq
    "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

build=build/windows
start=$(date +%s)
cmake --preset windows >/dev/null
cmake --build --preset windows

# One Wine prefix for all test programs, created once before they run in
# parallel (cmake/wine-run.sh uses it too).
export WINEPREFIX="$PWD/$build/wine"
export WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree,mshtml="
if [ ! -f "$WINEPREFIX/system.reg" ]; then
    echo "windows: creating the Wine prefix $WINEPREFIX"
    /usr/lib/wine/wine64 wineboot --init >/dev/null 2>&1 || true
    /usr/lib/wine/wineserver -w || true
fi
# One server for the whole run: left to itself it exits a few seconds after its
# last program, and a program starting just then can fail to start. The first
# program run also finishes any prefix update before tests run side by side.
/usr/lib/wine/wineserver -p || echo "windows: could not start a persistent Wine server; going on"
trap '/usr/lib/wine/wineserver -k 2>/dev/null || true' EXIT
bash cmake/wine-run.sh "$build/bin/test_host.exe" --gtest_list_tests >/dev/null ||
    echo "windows: the warm-up start failed; the tests will say more"

status=0
ctest --preset windows 2>&1 | tee "$build/ctest.log" || status=$?
passed=$(sed -n 's/.* tests passed, \([0-9]*\) tests failed out of \([0-9]*\).*/\2 \1/p' "$build/ctest.log" | tail -1)
total=${passed% *}
failed=${passed#* }
elapsed=$(( $(date +%s) - start ))
if [ -z "$passed" ]; then
    echo "windows: the test run did not finish"
    exit 1
fi
echo "windows: built and tested in ${elapsed} s under $(/usr/lib/wine/wine64 --version 2>/dev/null || echo wine)"
echo "windows: $((total - failed)) passed, ${failed} failed"
exit "$status"
