#!/usr/bin/env bash
# Sets everything up, then bakes the bundled sample pair (examples/) into a
# Normal and an Opacity map, as float32 EXR and as 16-bit PNG.
set -euo pipefail

cd "$(dirname "$0")/.."
scripts/setup.sh normal

out="out/sample"
mkdir -p "$out"
./build/korvane --version
written=()
for format in exr png; do
  echo "== baking examples/sphere_high.obj onto examples/sphere_low.obj (.$format) =="
  ./build/korvane --low examples/sphere_low.obj --high examples/sphere_high.obj \
    --size 1024 --aa 2 --out-normal "$out/sphere_normal.$format" \
    --out-opacity "$out/sphere_opacity.$format"
  written+=("sphere_normal.$format" "sphere_opacity.$format")
done
ls -l "$out"
names=$(printf '%s, ' "${written[@]}")
echo "Wrote the Normal and Opacity maps of the sample pair (examples/sphere_high.obj baked onto" \
  "examples/sphere_low.obj, 1024 x 1024) to $out/: ${names%, }."
