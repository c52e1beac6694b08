#!/usr/bin/env bash
# Sets everything up, then runs the whole test suite twice: in the normal
# build and in the AddressSanitizer + UndefinedBehaviorSanitizer build.
set -euo pipefail

cd "$(dirname "$0")/.."
jobs="${KV_JOBS:-2}"

scripts/setup.sh normal
scripts/setup.sh asan

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"

echo "== sanitizer build (AddressSanitizer, UndefinedBehaviorSanitizer) =="
ctest --test-dir build-asan --output-on-failure -j "$jobs" --label-exclude slow

echo "== normal build =="
ctest --test-dir build --output-on-failure -j "$jobs"
