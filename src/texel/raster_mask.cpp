#include "texel/raster_mask.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "core/error.h"

namespace kv {

std::vector<std::uint8_t> build_raster_mask(const Mesh& mesh, const RasterFilter& filter,
                                            std::int32_t udim) {
  if (!filter.given()) {
    return {};
  }
  const std::size_t count = mesh.triangles.size();
  std::vector<std::uint8_t> mask(count, 1);

  for (const std::int64_t index : filter.skipped) {
    if (index < 0 || static_cast<std::uint64_t>(index) >= count) {
      throw Error("a skipped raster triangle is not in the low mesh");
    }
    mask[static_cast<std::size_t>(index)] = 0;
  }

  if (!filter.materials.empty()) {
    if (mesh.materials.empty() || mesh.triangle_materials.size() != count) {
      throw Error("--raster-material: the low mesh carries no material names");
    }
    // Which material indices were asked for; names match byte for byte.
    std::vector<std::uint8_t> wanted(mesh.materials.size(), 0);
    for (const std::string& name : filter.materials) {
      bool found = false;
      for (std::size_t m = 0; m < mesh.materials.size(); ++m) {
        if (mesh.materials[m] == name) {
          wanted[m] = 1;
          found = true;
        }
      }
      if (!found) {
        throw Error("--raster-material: the low mesh has no material named '" + name + "'");
      }
    }
    for (std::size_t t = 0; t < count; ++t) {
      const std::uint32_t m = mesh.triangle_materials[t];
      if (m >= wanted.size() || wanted[m] == 0) {
        mask[t] = 0;
      }
    }
  }

  if (filter.uv_tile != 0) {
    if (filter.uv_tile < 1001 || filter.uv_tile > 1999) {
      throw Error("--uv-tile takes 1001 to 1999");
    }
    if (filter.uv_tile != udim) {
      throw Error("--uv-tile and the UDIM tile differ");
    }
    const double tu = (filter.uv_tile - 1001) % 10;
    const double tv = (filter.uv_tile - 1001) / 10;
    for (std::size_t t = 0; t < count; ++t) {
      if (mask[t] == 0) {
        continue;
      }
      double su = 0.0;
      double sv = 0.0;
      for (const Corner& c : mesh.triangles[t].corners) {
        if (c.uv < 0 || static_cast<std::size_t>(c.uv) >= mesh.uvs.size()) {
          throw Error("low mesh triangle " + std::to_string(t) + " has no UV coordinates");
        }
        su += mesh.uvs[static_cast<std::size_t>(c.uv)][0];
        sv += mesh.uvs[static_cast<std::size_t>(c.uv)][1];
      }
      if (std::floor(su / 3.0) != tu || std::floor(sv / 3.0) != tv) {
        mask[t] = 0;
      }
    }
  }
  return mask;
}

}  // namespace kv
