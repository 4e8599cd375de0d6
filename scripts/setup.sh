#!/usr/bin/env bash
# Installs the Debian packages the project builds with, and the browser test's npm
# packages (tests/browser). Idempotent: apt-get and npm run only when something
# is missing.
set -euo pipefail

packages=(
    build-essential cmake ninja-build pkg-config
    libglm-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    nlohmann-json3-dev libcli11-dev libpng-dev
    libinsighttoolkit5-dev libassimp-dev libgdcm-dev zlib1g-dev libpugixml-dev
    python3-pytest python3-numpy python3-nibabel python3-pydicom python3-pil python3-vtk9
    python3-dev python3-venv pybind11-dev python3-pybind11 python3-distributed python3-matplotlib
    libcpp-httplib-dev chromium nodejs
)

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done

# npm comes with some builds of nodejs; Debian's is a package of its own.
if ! command -v npm >/dev/null 2>&1; then
    missing+=(npm)
fi

if [ ${#missing[@]} -gt 0 ]; then
    echo "setup: installing ${missing[*]}"
    sudo_cmd=()
    if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi
    export DEBIAN_FRONTEND=noninteractive
    "${sudo_cmd[@]}" apt-get update -qq
    "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# The browser test's driver (puppeteer-core, using the system's Chromium), as
# pinned by tests/browser/package-lock.json.
browser_tests="$(dirname "$0")/../tests/browser"
if [ ! -d "$browser_tests/node_modules/puppeteer-core" ]; then
    echo "setup: npm ci in tests/browser"
    (cd "$browser_tests" && npm ci --no-audit --no-fund --loglevel=error)
fi
