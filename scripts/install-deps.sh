#!/usr/bin/env bash
# Installs the Debian packages the project builds and tests with, when missing.
# Idempotent: a machine that has everything runs no apt-get at all.
set -euo pipefail

packages=(
    cmake ninja-build g++ binutils
    libgtest-dev libgmock-dev libbenchmark-dev
    nlohmann-json3-dev libcli11-dev
    libopenimageio-dev liblcms2-dev libtbb-dev pkgconf
    clang libclang-rt-14-dev
    libembree-dev libtinyobjloader-dev
    pybind11-dev python3-dev python3-numpy python3-pytest
)

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "install-deps: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || { echo "install-deps: need root or sudo for: ${missing[*]}" >&2; exit 1; }
    SUDO="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
