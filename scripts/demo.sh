#!/usr/bin/env bash
# The main job of `make demo`: make a recording without a camera, look at it, play it back
# through the file object and export what it shows.
set -euo pipefail
build=${1:-build/default}
tool="$build/tools/evcam"
out=demo-out
rm -rf "$out"
mkdir -p "$out"

echo "== evcam $("$tool" --version | sed 's/^evcam //')"
echo
echo "== 1. Synthesise three seconds of a rotating disc"
"$tool" synth "$out/scene.dvs" --scene disc --seconds 3 --rate 2000000
echo
echo "== 2. What the recording holds"
"$tool" info "$out/scene.dvs"
echo
echo "== 3. Play it once, frames delivered by callback, exported as video"
"$tool" play "$out/scene.dvs" --callback --period 33 --out-type 8 --export "$out/video-" --save-mode 2
echo
echo "== 4. Play it once more in half-second frames, exported as images"
"$tool" play "$out/scene.dvs" --period 500 --out-type 8 --export "$out/frame_" --save-mode 1
echo
echo "== Output in $(cd "$out" && pwd):"
ls -l "$out"
