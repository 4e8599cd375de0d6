#!/usr/bin/env bash
# Runs a cross-built Windows program under Wine (64-bit). The Wine prefix lives
# in the build tree beside the program's bin/ folder unless WINEPREFIX is set,
# so builds never share or touch a user's prefix. Wine's own diagnostics are
# silenced; the program's output and exit code pass through unchanged.
set -euo pipefail
program=$1
shift
bin_dir=$(cd "$(dirname "$program")" && pwd)
export WINEPREFIX=${WINEPREFIX:-$(dirname "$bin_dir")/wine}
export WINEDEBUG=${WINEDEBUG:--all}
# No Mono or Gecko installers: console programs need neither.
export WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml=}
wine=${ZR_WINE:-}
if [ -z "$wine" ]; then
    for candidate in /usr/lib/wine/wine64 "$(command -v wine64 || true)" "$(command -v wine || true)"; do
        if [ -n "$candidate" ] && [ -x "$candidate" ]; then wine=$candidate; break; fi
    done
fi
if [ -z "$wine" ]; then
    echo "wine-run: no wine64 found (install wine64, or set ZR_WINE)" >&2
    exit 127
fi
mkdir -p "$WINEPREFIX"
# Wine starts programs relative to its own drive mapping; an absolute Unix path
# is reachable through drive Z:, which Wine maps to / by default.
exec "$wine" "$program" "$@"
