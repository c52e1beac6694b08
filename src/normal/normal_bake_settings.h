// The validated settings of one Normal/Opacity bake, with their defaults.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "padding/padding_mode.h"

namespace kv {

struct NormalBakeSettings {
  std::filesystem::path low;
  std::filesystem::path high;
  std::filesystem::path out_normal;
  std::filesystem::path out_opacity;  // empty: no Opacity map
  std::filesystem::path report;       // empty: no report file
  std::filesystem::path cache_dir;    // empty: no mesh cache
  std::int32_t width = 2048;
  std::int32_t height = 2048;
  std::int32_t udim = 1001;
  std::int32_t aa = 1;  // sub-samples per texel side
  float front = 0.01f;
  float rear = 0.01f;
  bool relative_scale = true;
  bool average_normals = true;
  bool ignore_backface = true;
  std::uint32_t normal_format = 0;  // 0 opengl, 1 directx
  std::uint32_t tangent_space = 0;  // 0 per-fragment, 1 per-vertex
  std::int32_t threads = 0;         // 0: all hardware threads
  std::int32_t uv_snap_bits = 8;    // -1: off
  bool uv_snap_texel = false;       // snap unit: texel (true) or sub-sample
  std::vector<std::string> raster_materials;
  std::int32_t uv_tile = 0;  // 0: none
  std::uint64_t band_samples = 1048576;
  std::int32_t dilation = 32;
  PaddingMode padding = PaddingMode::ring;
  std::array<double, 3> padding_color = {32768.0, 32768.0, 65535.0};
  bool match_by_name = false;
  bool match_objects = false;
  std::string low_suffix = "_low";
  std::string high_suffix = "_high";
  std::uint32_t quads = 0;  // 0 split, 1 reject
  std::string backend = "cpu";
  std::string gpu_pipeline = "resident";
  bool gpu_pipeline_given = false;
  std::string gpu_precision = "fp32-resolve";
  bool gpu_precision_given = false;
  double gpu_band_pause_ms = 0.0;
  std::int32_t gpu_band_growth = 0;  // 0: no limit
  double gpu_band_ms = 8.0;
  std::uint64_t memory_budget_mb = 0;  // 0: automatic
  bool memory_budget_given = false;
  bool progress = false;
  std::filesystem::path preview;  // empty: no preview
  std::int32_t preview_size = 0;  // 0: the default
  bool help = false;
};

// The checks a bake makes when it starts, before any mesh is read or traced.
// Throws kv::Error with the first failing check's message.
void check_bake_start(const NormalBakeSettings& settings);

}  // namespace kv
