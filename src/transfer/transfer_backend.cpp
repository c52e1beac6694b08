#include "transfer/transfer_backend.h"

#include <algorithm>

#include "core/error.h"
#include "gpu/gpu_probe.h"
#include "platform/platform.h"

namespace kv::transfer {
namespace {

bool has_source_tiles(const TransferSettings& settings) {
  return std::any_of(settings.outputs.begin(), settings.outputs.end(), [](const OutputRequest& o) {
    return std::any_of(o.textures.begin(), o.textures.end(),
                       [](const TextureRequest& t) { return !t.tiles.empty(); });
  });
}

// Why the GPU cannot run this transfer, from the settings alone.
std::string cpu_only_reason(const TransferSettings& settings) {
  if (!settings.dump_hits.empty()) {
    return "keeping hits needs the CPU path";
  }
  if (has_source_tiles(settings)) {
    return "UDIM source tiles are read on the CPU";
  }
  return {};
}

std::string gpu_unavailable_reason() {
  gpu::ProbeOptions options;
  options.low_priority = !platform::get_env("KORVANE_PROBE_NORMAL_PRIORITY").has_value();
  std::string why;
  const gpu::GpuProbe probe = gpu::probe_gpu(options, &why);
  if (!probe.available) {
    return why.empty() ? std::string("no usable GPU was found") : why;
  }
  return "this build has no GPU transfer kernel";
}

}  // namespace

std::string choose_backend(const TransferSettings& settings) {
  if (settings.backend == "cpu") {
    return {};
  }
  std::string why = cpu_only_reason(settings);
  if (!why.empty()) {
    if (settings.backend == "gpu") {
      throw Error("transfer: " + why);
    }
    return why;
  }
  why = gpu_unavailable_reason();
  if (settings.backend == "gpu") {
    throw Error("transfer: the GPU backend cannot run: " + why);
  }
  return why;
}

}  // namespace kv::transfer
