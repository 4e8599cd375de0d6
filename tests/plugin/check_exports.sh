#!/usr/bin/env bash
# Fails unless the plug-in's dynamic symbol table defines exactly the seven
# entry points, unmangled.
set -euo pipefail
lib=$1
expected="CheckModuleParameters DeInitModule DoModule GetModuleSpecification GetProgress InitModule InteropCustomWork"
actual=$(nm -D --defined-only "$lib" | awk '$2 ~ /^[TWDBRV]$/ {print $3}' | sed 's/@.*//' | sort | tr '\n' ' ' | sed 's/ $//')
if [ "$actual" != "$expected" ]; then
    echo "exported: $actual"
    echo "expected: $expected"
    exit 1
fi
echo "1 passed, 0 failed"
