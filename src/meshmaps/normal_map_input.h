// A stored tangent-space normal map of the low mesh (--normal-map), read
// into unit vectors, and what the bake takes from it: the shading normal of
// the low surface and the curvature its normals describe.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <vector>

#include "core/vec3.h"
#include "image/texel_image.h"

namespace kv::meshmaps {

// Rows top first, one unit tangent-space vector per texel, OpenGL's y.
struct NormalMapImage {
  std::int32_t width = 0;
  std::int32_t height = 0;
  std::vector<Vec3f> normals;

  // The texel holding the point at fractions (fu, fv) of the map's width
  // and height, fv counted from the top.
  std::size_t texel_at(double fu, double fv) const;
  // The change of the normal's x along u plus that of y along v, per texel
  // of the map: positive where the normals spread out (convex).
  double divergence(std::size_t texel) const;
};

// The texels of a normal-map file by its extension: PNG, EXR or .kvt.
TexelImage read_normal_map_texels(const std::filesystem::path& path);

// Decodes RGB texels (2c - 1 per channel, y flipped for DirectX) into unit
// vectors. Throws Error naming the file when it has fewer than three
// channels.
NormalMapImage decode_normal_map(const TexelImage& texels, bool directx,
                                 const std::filesystem::path& path);

}  // namespace kv::meshmaps
