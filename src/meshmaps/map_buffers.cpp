#include "meshmaps/map_buffers.h"

namespace kv::meshmaps {

std::uint64_t buffer_bytes_per_texel(const MapRequest& r) {
  std::uint64_t bytes = 1;
  bytes += r.opacity ? 2 : 0;
  bytes += (r.ao ? 4 : 0) + (r.thickness ? 4 : 0) + (r.curvature ? 4 : 0) + (r.height ? 4 : 0);
  bytes +=
      (r.world_normal ? 6 : 0) + (r.position ? 6 : 0) + (r.id ? 6 : 0) + (r.bent_normals ? 6 : 0);
  return bytes;
}

MeshMapsBuffers make_buffers(std::int32_t width, std::int32_t height, const MapRequest& r) {
  const std::size_t n = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  MeshMapsBuffers b;
  b.width = width;
  b.height = height;
  b.hit.assign(n, 0);
  auto fill = [n](bool on, auto& v, std::size_t per) {
    if (on) {
      v.assign(n * per, 0);
    }
  };
  fill(r.opacity, b.opacity, 1);
  fill(r.ao, b.ao, 1);
  fill(r.thickness, b.thickness, 1);
  fill(r.curvature, b.curvature, 1);
  fill(r.height, b.height_map, 1);
  fill(r.world_normal, b.world_normal, 3);
  fill(r.position, b.position, 3);
  fill(r.id, b.id, 3);
  fill(r.bent_normals, b.bent_normals, 3);
  return b;
}

}  // namespace kv::meshmaps
