#!/usr/bin/env bash
# Installs every Debian package korvane needs, then configures and builds.
# Safe to run again: installed packages are skipped and the build is
# incremental. Usage: scripts/setup.sh [normal|asan|fuzz] (default: normal)
# "fuzz" adds clang with its libFuzzer runtime and builds the fuzz targets
# in build-fuzz/; the other flavours do not install them.
set -euo pipefail

cd "$(dirname "$0")/.."
flavour="${1:-normal}"

packages=(
  build-essential cmake ninja-build git pkg-config clang-format
  libembree-dev libtbb-dev nlohmann-json3-dev liblodepng-dev libtinygltf-dev
  libassimp-dev zlib1g-dev libopenexr-dev libtinyobjloader-dev libgtest-dev libgmock-dev
  blender python3-numpy
)
# Only the fuzz build needs clang and libFuzzer; llvm brings llvm-profdata and
# llvm-cov for the coverage of a corpus.
if [[ "$flavour" == fuzz ]]; then
  packages+=(clang libclang-rt-14-dev llvm)
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if ((${#missing[@]} > 0)); then
  echo "korvane setup: installing ${missing[*]}"
  if [[ $(id -u) -eq 0 ]]; then
    sudo_cmd=()
  else
    sudo_cmd=(sudo)
  fi
  "${sudo_cmd[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq
  "${sudo_cmd[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
    "${missing[@]}"
fi

jobs="${KV_JOBS:-2}"
case "$flavour" in
  normal)
    cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
    cmake --build build -j "$jobs"
    ;;
  asan)
    cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Release -DKV_SANITIZE=ON >/dev/null
    cmake --build build-asan -j "$jobs"
    ;;
  fuzz)
    CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=Release \
      -DKV_FUZZ=ON >/dev/null
    cmake --build build-fuzz -j "$jobs" --target fuzz_all
    ;;
  *)
    echo "usage: scripts/setup.sh [normal|asan|fuzz]" >&2
    exit 2
    ;;
esac
