// What the GPU backend can tell about the first usable device.
#pragma once

#include <cstdint>
#include <string>

namespace kv::gpu {

struct GpuProbe {
  bool available = false;  // the GPU bake can run on this device
  std::string device;
  std::string driver;
  std::uint32_t api_version = 0;  // packed Vulkan version number
  bool ray_query = false;
  bool acceleration_structure = false;
  bool buffer_device_address = false;
  bool float64 = false;
  bool int64 = false;
  bool denorm_preserve_32 = false;
  bool denorm_preserve_64 = false;
  bool rte_32 = false;
  bool rte_64 = false;
  bool signed_zero_inf_nan_32 = false;
  bool signed_zero_inf_nan_64 = false;
  std::uint32_t subgroup_size = 0;
  double timestamp_period_ns = 0.0;
  std::uint64_t vram_budget = 0;
  std::uint64_t vram_usage = 0;
};

struct ProbeOptions {
  bool low_priority = true;
  std::uint32_t wait_limit_ms = 600000;
};

// Looks for the first usable device. A build without a GPU backend reports
// an unavailable, empty device and gives the reason in *why.
GpuProbe probe_gpu(const ProbeOptions& options, std::string* why);

}  // namespace kv::gpu
