#include "gpu/gpu_probe.h"

namespace kv::gpu {

GpuProbe probe_gpu(const ProbeOptions& /*options*/, std::string* why) {
  if (why != nullptr) {
    *why = "this korvane build has no GPU backend";
  }
  return GpuProbe{};
}

}  // namespace kv::gpu
