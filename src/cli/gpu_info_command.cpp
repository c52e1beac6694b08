#include <string>

#include "cli/process_entry.h"
#include "core/error.h"
#include "core/json_line.h"
#include "gpu/gpu_probe.h"
#include "platform/platform.h"

namespace kv::cli {

namespace {

// Major (seven bits, variant excluded), minor and patch of a packed version.
std::string api_version_text(std::uint32_t packed) {
  return std::to_string((packed >> 22) & 0x7Fu) + "." + std::to_string((packed >> 12) & 0x3FFu) +
         "." + std::to_string(packed & 0xFFFu);
}

}  // namespace

int gpu_info_command() {
  gpu::ProbeOptions options;
  // Any value of the variable, even empty, asks for normal priority.
  options.low_priority = !platform::get_env("KORVANE_PROBE_NORMAL_PRIORITY").has_value();
  options.wait_limit_ms = 600000;
  const gpu::GpuProbe probe = gpu::probe_gpu(options, nullptr);

  Json gpu;
  gpu["available"] = probe.available;
  gpu["device"] = probe.device;
  gpu["driver"] = probe.driver;
  gpu["api_version"] = api_version_text(probe.api_version);
  gpu["ray_query"] = probe.ray_query;
  gpu["acceleration_structure"] = probe.acceleration_structure;
  gpu["buffer_device_address"] = probe.buffer_device_address;
  gpu["float64"] = probe.float64;
  gpu["int64"] = probe.int64;
  gpu["denorm_preserve_32"] = probe.denorm_preserve_32;
  gpu["denorm_preserve_64"] = probe.denorm_preserve_64;
  gpu["rte_32"] = probe.rte_32;
  gpu["rte_64"] = probe.rte_64;
  gpu["signed_zero_inf_nan_32"] = probe.signed_zero_inf_nan_32;
  gpu["signed_zero_inf_nan_64"] = probe.signed_zero_inf_nan_64;
  gpu["subgroup_size"] = probe.subgroup_size;
  gpu["timestamp_period_ns"] = probe.timestamp_period_ns;
  gpu["vram_budget"] = probe.vram_budget;
  gpu["vram_usage"] = probe.vram_usage;
  Json line;
  line["gpu"] = std::move(gpu);
  if (!platform::write_stdout(json_line(line) + "\n")) {
    throw Error("cannot write to standard output");
  }
  return probe.available ? 0 : 1;
}

}  // namespace kv::cli
