#!/usr/bin/env bash
# Installs what is missing, builds the project and renders the demo gallery:
# one picture per capability of the plug-in, each with the request file that
# made it, and contact-sheet.png showing them all. Usage: bash scripts/demo.sh [DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release
out=${1:-out/demo}
./build/release/bin/zrslice demo -o "$out"
echo "Demo pictures: $out/ (contact sheet: $out/contact-sheet.png, list: $out/index.md)"
echo "Replay or edit one: ./build/release/bin/zrslice render $out/01-axial.json -o out/axial.png"
echo "Explore in the browser: ./build/release/bin/zrslice view phantom    (then open the address it prints)"
echo "  your own scan: ./build/release/bin/zrslice view ct.nii.gz [--labels seg.nii.gz] [--mesh skull.stl ...]"
