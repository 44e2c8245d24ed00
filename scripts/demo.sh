#!/usr/bin/env bash
# The main job of `make demo`: make a recording without a camera, look at it, play it back
# through the file object and export what it shows; then list, stream and record cameras on a
# simulated USB bus and play the raw recording back.
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
echo "== 5. Cameras on a simulated USB bus (EVCAM_SIM)"
export EVCAM_SIM="fx20:bus=1,addr=4,scene=bar,rate=16000000;fx3:bus=2,addr=9,scene=disc,stereo=1,rate=8000000"
"$tool" devices
echo
echo "== 6. Stream the FX3 stereo camera for two seconds, 10 ms frames by polling"
"$tool" live --bias samples/stereo.bias --type fx3 --seconds 2 --period 10 --out-type 2
echo
echo "== 7. Record two seconds of raw data from the FX20 camera at 16 MB/s"
mkdir -p "$out/raw"
"$tool" record --bias samples/single.bias --type fx20 --ppx 64 --seconds 2 "$out/raw"
echo
echo "== 8. Play the raw recording back through the file object"
unset EVCAM_SIM
"$tool" play "$(ls "$out"/raw/*.dvs | head -1)" --period 10 --out-type 1
echo
echo "== Output in $(cd "$out" && pwd):"
ls -l "$out"
