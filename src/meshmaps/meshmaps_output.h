// The baked mesh maps on their way out: range-mapped to codes, padded with
// the --dilation rings, and written one map at a time in command-line order.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "meshmaps/meshmaps_bake.h"
#include "meshmaps/meshmaps_settings.h"

namespace kv::meshmaps {

struct WrittenMap {
  std::string map;  // as in the summary's "maps"
  std::uint64_t texels_padded = 0;
};

struct OutputSeconds {
  double padding = 0.0;
  double write = 0.0;
};

// Called once a map's file is whole.
using MapWritten = std::function<void(const std::string& map, const std::filesystem::path& path)>;

// Writes every map asked for; the run's buffers are consumed map by map, so
// at most one map's codes are held beside them.
std::vector<WrittenMap> write_mesh_maps(MeshMapsRun& run, const MeshMapsSettings& settings,
                                        int threads, OutputSeconds* seconds,
                                        const MapWritten& map_written = {});

}  // namespace kv::meshmaps
