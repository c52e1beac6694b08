// The per-texel results of a mesh-maps bake before the range mappings: raw
// values where a map's range needs every texel first, codes elsewhere.
// Arrays are row-major, row 0 at the top; a map not asked for stays empty.
#pragma once

#include <cstdint>
#include <vector>

namespace kv::meshmaps {

struct MeshMapsCounters {
  std::uint64_t samples_covered = 0;  // sub-samples on a rasterised low triangle
  std::uint64_t rays = 0;             // primary rays
  std::uint64_t hits = 0;             // primary rays with a high hit
  std::uint64_t texels_covered = 0;   // texels with a covered sub-sample
  std::uint64_t texels_hit = 0;       // texels with a hit: the maps' valid texels
  std::uint64_t secondary_rays = 0;   // every AO, bent normals, thickness and curvature ray
};

struct MeshMapsBuffers {
  std::int32_t width = 0;
  std::int32_t height = 0;
  std::vector<std::uint8_t> hit;            // 1 where a sub-sample hit: the maps' valid texels
  std::vector<std::uint16_t> opacity;       // 65535 where hit
  std::vector<float> ao;                    // 1 unoccluded .. 0 occluded
  std::vector<float> thickness;             // mean distance, mesh units
  std::vector<float> curvature;             // mean height change over the radius
  std::vector<float> height_map;            // mean signed distance, positive outward
  std::vector<std::uint16_t> world_normal;  // three codes per texel
  std::vector<std::uint16_t> position;      // three codes per texel
  std::vector<std::uint16_t> id;            // three codes per texel
  std::vector<std::uint16_t> bent_normals;  // three codes per texel
  MeshMapsCounters counters;
};

// Which buffers a bake fills.
struct MapRequest {
  bool opacity = false, ao = false, thickness = false, curvature = false, height = false,
       world_normal = false, position = false, id = false, bent_normals = false;
};

// Bytes per texel the buffers of `request` take.
std::uint64_t buffer_bytes_per_texel(const MapRequest& request);

// Buffers of width x height texels for `request`, zero-filled.
MeshMapsBuffers make_buffers(std::int32_t width, std::int32_t height, const MapRequest& request);

}  // namespace kv::meshmaps
