#!/usr/bin/env bash
# check_install.sh BUILD_DIR CONSUMER_SOURCE SCRATCH
set -euo pipefail
build=$1 consumer=$2 scratch=$3
rm -rf "$scratch"
mkdir -p "$scratch"
prefix=$scratch/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null

# find_package(evcam) and the target evcam::evcam.
cmake -S "$consumer" -B "$scratch/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$scratch/cmake-build" >/dev/null
LD_LIBRARY_PATH="$prefix/lib" "$scratch/cmake-build/consumer" | tee "$scratch/cmake.out"
grep -q '^evcam ' "$scratch/cmake.out"

# pkg-config --cflags --libs evcam
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
# shellcheck disable=SC2046
c++ -std=c++17 -o "$scratch/pc-consumer" "$consumer/consumer.cpp" $(pkg-config --cflags --libs evcam)
LD_LIBRARY_PATH="$prefix/lib" "$scratch/pc-consumer" | tee "$scratch/pc.out"
grep -q '^evcam ' "$scratch/pc.out"

# The command-line tool sits beside the library.
"$prefix/bin/evcam" --version | grep -q '^evcam '

# Only the public interface is exported: no internal class shows up in the dynamic symbols.
lib=$(ls "$prefix"/lib/libevcam.so.*.*.* | head -n 1)
if nm -D --defined-only -C "$lib" | grep -E 'PacketBuffer|UIDataBuffer|DVSFile::|DVSDevice::'; then
    echo "internal symbols are exported" >&2
    exit 1
fi
echo "install check passed"
