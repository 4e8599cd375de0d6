#!/usr/bin/env bash
# Fails unless the Windows DLL's export table names exactly the seven entry
# points, unmangled. Reads the PE file with the mingw objdump, so it runs on the
# build machine without Wine.
set -euo pipefail
dll=$1
objdump=${ZR_OBJDUMP:-x86_64-w64-mingw32-objdump}
expected="CheckModuleParameters DeInitModule DoModule GetModuleSpecification GetProgress InitModule InteropCustomWork"
# The "[Ordinal/Name Pointer] Table" lists one "[ n] Name" line per export.
actual=$("$objdump" -p "$dll" |
    awk '/\[Ordinal\/Name Pointer\] Table/ {on = 1; next} on && /^\t\[/ {print $NF; next} on && NF == 0 {on = 0}' |
    sort | tr '\n' ' ' | sed 's/ $//')
if [ "$actual" != "$expected" ]; then
    echo "exported: $actual"
    echo "expected: $expected"
    exit 1
fi
echo "1 passed, 0 failed"
