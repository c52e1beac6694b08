#include "service/mesh_join.h"

#include <cstdint>

namespace kv::service {
namespace {

template <typename T>
void append(LargeArray<T>& to, const LargeArray<T>& from) {
  to.insert(to.end(), from.begin(), from.end());
}

std::int32_t shifted(std::int32_t index, std::size_t by) {
  return index < 0 ? index : static_cast<std::int32_t>(static_cast<std::size_t>(index) + by);
}

void append_triangles(Mesh& to, const Mesh& from) {
  const std::size_t positions = to.positions.size();
  const std::size_t uvs = to.uvs.size();
  const std::size_t normals = to.normals.size();
  const std::size_t objects = to.objects.size();
  for (Triangle t : from.triangles) {
    for (Corner& c : t.corners) {
      c.position = static_cast<std::uint32_t>(c.position + positions);
      c.uv = shifted(c.uv, uvs);
      c.normal = shifted(c.normal, normals);
    }
    t.object = static_cast<std::uint32_t>(t.object + objects);
    to.triangles.push_back(t);
  }
}

}  // namespace

Mesh join_meshes(const std::vector<const Mesh*>& meshes) {
  Mesh joined;
  bool materials = true, polygroups = true, colors = true;
  for (const Mesh* mesh : meshes) {
    materials = materials && !mesh->triangle_materials.empty();
    polygroups = polygroups && !mesh->polygroups.empty();
    colors = colors && !mesh->colors.empty();
  }
  for (const Mesh* mesh : meshes) {
    const std::size_t material_base = joined.materials.size();
    append_triangles(joined, *mesh);
    append(joined.positions, mesh->positions);
    append(joined.uvs, mesh->uvs);
    append(joined.normals, mesh->normals);
    joined.objects.insert(joined.objects.end(), mesh->objects.begin(), mesh->objects.end());
    if (materials) {
      joined.materials.insert(joined.materials.end(), mesh->materials.begin(),
                              mesh->materials.end());
      for (const std::uint32_t m : mesh->triangle_materials) {
        joined.triangle_materials.push_back(static_cast<std::uint32_t>(m + material_base));
      }
    }
    if (polygroups) {
      append(joined.polygroups, mesh->polygroups);
    }
    if (colors) {
      append(joined.colors, mesh->colors);
    }
  }
  return joined;
}

}  // namespace kv::service
