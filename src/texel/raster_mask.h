// Which low triangles own texels: all of them, unless a skip list, material
// names or a UV tile narrow the choice. Every low triangle still traces and
// occludes; the mask only decides texel ownership.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "mesh/mesh.h"

namespace kv {

struct RasterFilter {
  std::vector<std::string> materials;  // names in the order given
  std::int32_t uv_tile = 0;            // 0: none, else 1001 .. 1999
  std::vector<std::int64_t> skipped;   // low triangle indices
  bool given() const { return !materials.empty() || uv_tile != 0 || !skipped.empty(); }
};

// One byte per triangle, 1 = rasterised; empty when no filter is given.
// udim is the bake's UDIM tile, which a given UV tile must equal.
std::vector<std::uint8_t> build_raster_mask(const Mesh& mesh, const RasterFilter& filter,
                                            std::int32_t udim);

}  // namespace kv
