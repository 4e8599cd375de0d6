#!/usr/bin/env bash
# Installs the Debian packages the project builds with. Idempotent: apt-get runs
# only when a package is missing.
set -euo pipefail

packages=(
    build-essential cmake ninja-build pkg-config
    libglm-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    nlohmann-json3-dev libcli11-dev libpng-dev
    libinsighttoolkit5-dev libassimp-dev libgdcm-dev zlib1g-dev libpugixml-dev
    python3-pytest python3-numpy python3-nibabel python3-pydicom python3-pil python3-vtk9
    python3-dev python3-venv pybind11-dev python3-pybind11 python3-distributed python3-matplotlib
)

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done

if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi

echo "setup: installing ${missing[*]}"
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
