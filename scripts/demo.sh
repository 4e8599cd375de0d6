#!/usr/bin/env bash
# Installs what is missing, builds the project and runs the command-line host.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release
out=${1:-out/demo}
mkdir -p "$out"
./build/release/bin/zrslice
