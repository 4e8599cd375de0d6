#!/usr/bin/env bash
# Runs a cross-built Windows program under Wine (64-bit). The Wine prefix lives
# in the build tree beside the program's bin/ folder unless WINEPREFIX is set,
# so builds never share or touch a user's prefix. Wine's own diagnostics are
# silenced; the program's output and exit code pass through unchanged.
#
# Wine now and then fails to start a program at all (a start racing the
# server's set-up or shut-down): it exits non-zero before the program has
# printed a byte. Such a start is retried, twice at most, and said on stderr;
# a program that ran and failed is never retried.
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
out=$(mktemp)
err=$(mktemp)
trap 'rm -f "$out" "$err"' EXIT
for attempt in 1 2 3; do
    # Wine starts programs relative to its own drive mapping; an absolute Unix
    # path is reachable through drive Z:, which Wine maps to / by default.
    status=0
    "$wine" "$program" "$@" >"$out" 2>"$err" || status=$?
    if [ "$status" -eq 0 ] || [ -s "$out" ] || [ "$attempt" -eq 3 ]; then break; fi
    echo "wine-run: wine exited with $status before $(basename "$program") printed anything" \
         "(stderr: $(head -c 300 "$err" | tr '\n' ' ')); starting it again" >&2
    sleep 1
done
cat "$out"
cat "$err" >&2
exit "$status"
