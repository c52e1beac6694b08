// The libFuzzer entry of one target; KV_FUZZ_TARGET names it at build time.
#include "fuzz/harness.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kv::fuzz::run_target(KV_FUZZ_TARGET, std::span<const std::uint8_t>(data, size));
  return 0;
}
