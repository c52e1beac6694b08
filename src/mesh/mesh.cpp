#include "mesh/mesh.h"

namespace kv {

std::uint64_t mesh_memory_bytes(const Mesh& mesh) {
  const std::uint64_t words =
      3 * (std::uint64_t{mesh.positions.size()} + mesh.colors.size() + mesh.normals.size()) +
      10 * std::uint64_t{mesh.triangles.size()} + 4 * std::uint64_t{mesh.uvs.size()} +
      mesh.polygroups.size() + mesh.triangle_materials.size();
  std::uint64_t names = 0;
  for (const auto& name : mesh.objects) {
    names += name.size();
  }
  return 4 * words + names;
}

}  // namespace kv
