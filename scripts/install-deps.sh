#!/usr/bin/env bash
# Installs the Debian 12 packages that the build, the tests and the tools need.
# Idempotent: returns at once when everything is there. --fuzz adds clang for the fuzz targets.
set -euo pipefail

packages=(
    g++ make cmake pkg-config
    libgtest-dev libgmock-dev libbenchmark-dev
    libusb-1.0-0-dev
    umockdev libumockdev-dev libglib2.0-dev
    libopencv-core-dev libopencv-imgproc-dev libopencv-imgcodecs-dev libopencv-videoio-dev
    libcli11-dev
)
if [[ "${1:-}" == "--fuzz" ]]; then
    packages+=(clang libclang-rt-14-dev)
fi

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$p")
    fi
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "Installing: ${missing[*]}"
sudo=""
[[ $(id -u) -ne 0 ]] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
