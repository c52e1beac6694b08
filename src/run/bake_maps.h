// The baked maps on their way out: the Normal map padded, then both written.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>

#include "normal/normal_bake.h"

namespace kv::run {

// Texels holding a Normal before and after padding.
struct PaddingCount {
  std::uint64_t before = 0;
  std::uint64_t after = 0;
};

// Pads the Normal map; the Opacity map keeps its coverage as baked, since
// spreading it would mark the gutter as opaque.
PaddingCount pad_normal_map(NormalBakeResult& result, const NormalBakeSettings& settings);

// Writes one map of UNORM16 codes: a 16-bit PNG for a .png path, else a
// float EXR.
void write_map(const std::filesystem::path& path, int width, int height, int channels,
               std::span<const std::uint16_t> codes, int threads);

// Writes the Normal map and the Opacity map, each when its path is set: PNG
// for a .png path, else EXR.
void write_maps(const NormalBakeResult& result, const NormalBakeSettings& settings);

}  // namespace kv::run
