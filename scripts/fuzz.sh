#!/usr/bin/env bash
# Builds one fuzz target (clang, libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer) in build-fuzz/ and runs it for a while.
# Usage: scripts/fuzz.sh <target> [seconds]      (default 300 seconds)
#        scripts/fuzz.sh coverage <target>       (lines of src/ the kept inputs reach)
#        scripts/fuzz.sh list
# Targets: obj kvm gltf glb fbx read_mesh png exr bake_options kvt request.
# The run starts from the committed seeds (fuzz/corpus/<target>/) and the
# regression inputs, keeps what it learns in build-fuzz/corpus/<target>/ and
# writes failing inputs to build-fuzz/findings/<target>/. It stops at the
# first finding unless KV_FUZZ_KEEP_GOING=1 (then it forks a child per run
# and records every crash, leak, timeout and out-of-memory it meets).
# Extra arguments for libFuzzer go in KV_FUZZ_ARGS.
# KV_FUZZ_LEAKS=1 turns leak detection on for fbx too (see below).
set -euo pipefail

cd "$(dirname "$0")/.."
targets=(obj kvm gltf glb fbx read_mesh png exr bake_options kvt request)
target="${1:-}"
seconds="${2:-300}"
coverage=0

if [[ "$target" == list ]]; then
  printf '%s\n' "${targets[@]}"
  exit 0
fi
if [[ "$target" == coverage ]]; then
  coverage=1
  target="${2:-}"
fi
if [[ ! " ${targets[*]} " == *" $target "* ]]; then
  echo "usage: scripts/fuzz.sh <target> [seconds]; targets: ${targets[*]}" >&2
  exit 2
fi

# Installs clang and libFuzzer when missing and builds the targets in
# build-fuzz/ (incremental: quick when nothing changed).
scripts/setup.sh fuzz

corpus="build-fuzz/corpus/$target"
findings="build-fuzz/findings/$target"
mkdir -p "$corpus" "$findings"
seeds=("fuzz/corpus/$target")
[[ -d "fuzz/regressions/$target" ]] && seeds+=("fuzz/regressions/$target")

if ((coverage)); then
  # Source-based coverage: the same targets built again with clang's
  # profiling in build-fuzz-cov/, every kept input run once, then the lines
  # of each source file of ours (named from src/) that the inputs reached.
  if [[ ! -f build-fuzz-cov/CMakeCache.txt ]]; then
    CC=clang CXX=clang++ cmake -S . -B build-fuzz-cov -G Ninja -DCMAKE_BUILD_TYPE=Release \
      -DKV_FUZZ=ON "-DCMAKE_CXX_FLAGS=-fprofile-instr-generate -fcoverage-mapping" \
      -DCMAKE_EXE_LINKER_FLAGS=-fprofile-instr-generate >/dev/null
  fi
  cmake --build build-fuzz-cov -j "${KV_JOBS:-2}" --target "fuzz_$target"
  profile="build-fuzz-cov/$target"
  ASAN_OPTIONS="detect_leaks=0:allocator_may_return_null=1" LLVM_PROFILE_FILE="$profile.profraw" \
    "build-fuzz-cov/fuzz/fuzz_$target" -runs=0 "$corpus" "${seeds[@]}" >"$profile.log" 2>&1
  llvm-profdata merge -o "$profile.profdata" "$profile.profraw"
  llvm-cov report "build-fuzz-cov/fuzz/fuzz_$target" -instr-profile="$profile.profdata" \
    -ignore-filename-regex='^/usr/|/fuzz/[a-z_]+[.](cpp|h)$' |
    awk 'NR == 1 { print } NR > 2 && $1 ~ /\// && $10 != "0.00%" { print }'
  exit 0
fi

# The limits every input must stay under: 2 GB, 20 seconds, 1 MB.
args=(-rss_limit_mb=2048 -malloc_limit_mb=2048 -timeout=20 -max_len=1048576
      -max_total_time="$seconds" -print_final_stats=1 -artifact_prefix="$findings/")
[[ -f "fuzz/dict/$target.dict" ]] && args+=(-dict="fuzz/dict/$target.dict")
# Assimp leaks its parse tree on every file it refuses (fuzz/README.md): for
# FBX, leaks are looked for only with KV_FUZZ_LEAKS=1, or they hide the rest.
if [[ "$target" == fbx && "${KV_FUZZ_LEAKS:-0}" != 1 ]]; then
  args+=(-detect_leaks=0)  # and the sanitizer's own check at exit, below
fi
if [[ "${KV_FUZZ_KEEP_GOING:-0}" == 1 ]]; then
  args+=(-fork=1 -ignore_crashes=1 -ignore_ooms=1 -ignore_timeouts=1)
fi

leaks=1
if [[ "$target" == fbx && "${KV_FUZZ_LEAKS:-0}" != 1 ]]; then
  leaks=0
fi
export ASAN_OPTIONS="detect_leaks=$leaks:abort_on_error=1:allocator_may_return_null=1${ASAN_OPTIONS:+:$ASAN_OPTIONS}"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
# shellcheck disable=SC2086
exec "build-fuzz/fuzz/fuzz_$target" "${args[@]}" ${KV_FUZZ_ARGS:-} "$corpus" "${seeds[@]}"
