#include "service/mesh_transform.h"

#include <cmath>
#include <cstdint>
#include <unordered_map>
#include <utility>

#include "core/error.h"
#include "mesh/node_transform.h"

namespace kv::service {

namespace {

constexpr std::uint32_t kDropped = 0xFFFFFFFFu;

// Keeps the elements whose `keep` entry is set, in order, and frees the rest.
template <typename Array, typename Keep>
void compact(Array& array, std::size_t per_item, Keep&& keep) {
  std::size_t out = 0;
  for (std::size_t item = 0; item * per_item < array.size(); ++item) {
    if (!keep(item)) {
      continue;
    }
    if (out != item) {
      for (std::size_t k = 0; k < per_item; ++k) {
        array[out * per_item + k] = std::move(array[item * per_item + k]);
      }
    }
    ++out;
  }
  array.resize(out * per_item);
  array.shrink_to_fit();
}

// New indices of the used elements of an array of `count`, in their order;
// kDropped for the unused ones.
std::vector<std::uint32_t> used_remap(std::size_t count, const LargeArray<Triangle>& triangles,
                                      std::int64_t (*index_of)(const Corner&)) {
  std::vector<std::uint32_t> remap(count, kDropped);
  for (const Triangle& t : triangles) {
    for (const Corner& c : t.corners) {
      const std::int64_t index = index_of(c);
      if (index >= 0) {
        remap[static_cast<std::size_t>(index)] = 0;
      }
    }
  }
  std::uint32_t next = 0;
  for (std::uint32_t& entry : remap) {
    if (entry != kDropped) {
      entry = next++;
    }
  }
  return remap;
}

// Drops positions, UVs and normals no triangle uses and renumbers corners.
void drop_unused_elements(Mesh& mesh) {
  const auto positions = used_remap(mesh.positions.size(), mesh.triangles,
                                    [](const Corner& c) { return std::int64_t{c.position}; });
  const auto uvs = used_remap(mesh.uvs.size(), mesh.triangles,
                              [](const Corner& c) { return std::int64_t{c.uv}; });
  const auto normals = used_remap(mesh.normals.size(), mesh.triangles,
                                  [](const Corner& c) { return std::int64_t{c.normal}; });
  for (Triangle& t : mesh.triangles) {
    for (Corner& c : t.corners) {
      c.position = positions[c.position];
      c.uv = c.uv < 0 ? -1 : static_cast<std::int32_t>(uvs[static_cast<std::size_t>(c.uv)]);
      c.normal = c.normal < 0
                     ? -1
                     : static_cast<std::int32_t>(normals[static_cast<std::size_t>(c.normal)]);
    }
  }
  compact(mesh.positions, 1, [&](std::size_t i) { return positions[i] != kDropped; });
  compact(mesh.uvs, 1, [&](std::size_t i) { return uvs[i] != kDropped; });
  compact(mesh.normals, 1, [&](std::size_t i) { return normals[i] != kDropped; });
}

}  // namespace

void apply_up_axis_y(Mesh& mesh) {
  // (x, y, z) -> (x, -z, y): exact, and a rotation, so the winding stays.
  for (auto& p : mesh.positions) {
    p = {p[0], -p[2], p[1]};
  }
  for (auto& n : mesh.normals) {
    n = {n[0], -n[2], n[1]};
  }
}

void apply_matrix(Mesh& mesh, const std::array<double, 16>& row_major) {
  Mat4 world{};
  for (std::size_t r = 0; r < 4; ++r) {
    for (std::size_t c = 0; c < 4; ++c) {
      world[r][c] = row_major[4 * r + c];
    }
  }
  const NodeTransform transform(world);
  // Into new arrays first, so that a refusal leaves the mesh as it was.
  LargeArray<std::array<float, 3>> positions(mesh.positions.size());
  for (std::size_t i = 0; i < positions.size(); ++i) {
    const auto& p = mesh.positions[i];
    positions[i] = transform.point(p[0], p[1], p[2]);
    if (!std::isfinite(positions[i][0]) || !std::isfinite(positions[i][1]) ||
        !std::isfinite(positions[i][2])) {
      throw Error("the matrix takes vertex " + std::to_string(i) + " beyond the float range");
    }
  }
  LargeArray<std::array<float, 3>> normals(mesh.normals.size());
  for (std::size_t i = 0; i < normals.size(); ++i) {
    const auto& n = mesh.normals[i];
    if (!transform.normal(n[0], n[1], n[2], normals[i])) {
      throw Error("the matrix leaves normal " + std::to_string(i) + " without a direction");
    }
  }
  mesh.positions = std::move(positions);
  mesh.normals = std::move(normals);
  if (transform.mirrored()) {
    for (Triangle& t : mesh.triangles) {
      std::swap(t.corners[1], t.corners[2]);
    }
    // Per-corner colours follow their corners.
    for (std::size_t t = 0; 3 * t + 2 < mesh.colors.size(); ++t) {
      std::swap(mesh.colors[3 * t + 1], mesh.colors[3 * t + 2]);
    }
  }
}

Mesh filter_objects(Mesh&& mesh, const std::vector<std::string>& names) {
  if (names.empty()) {
    return std::move(mesh);
  }
  std::unordered_map<std::string, std::uint32_t> index;
  for (std::uint32_t i = 0; i < mesh.objects.size(); ++i) {
    index.emplace(mesh.objects[i], i);
  }
  std::vector<std::uint32_t> object_remap(mesh.objects.size(), kDropped);
  for (const std::string& name : names) {
    const auto found = index.find(name);
    if (found == index.end()) {
      throw Error("the mesh has no object \"" + name + "\"");
    }
    object_remap[found->second] = 0;
  }
  std::uint32_t next = 0;
  for (std::uint32_t& entry : object_remap) {
    if (entry != kDropped) {
      entry = next++;
    }
  }
  auto kept = [&](std::size_t t) { return object_remap[mesh.triangles[t].object] != kDropped; };
  std::size_t kept_count = 0;
  for (std::size_t t = 0; t < mesh.triangles.size(); ++t) {
    kept_count += kept(t) ? 1 : 0;
  }
  if (kept_count == 0) {
    throw Error("the named objects hold no triangles");
  }
  // Arrays per triangle are compacted before the triangles they follow.
  if (!mesh.triangle_materials.empty()) {
    compact(mesh.triangle_materials, 1, kept);
  }
  if (!mesh.polygroups.empty()) {
    compact(mesh.polygroups, 1, kept);
  }
  if (!mesh.colors.empty()) {
    compact(mesh.colors, 3, kept);
  }
  compact(mesh.triangles, 1,
          [&](std::size_t t) { return object_remap[mesh.triangles[t].object] != kDropped; });
  for (Triangle& t : mesh.triangles) {
    t.object = object_remap[t.object];
  }
  auto object_kept = [&](std::size_t o) { return object_remap[o] != kDropped; };
  if (!mesh.object_blocks.empty()) {
    compact(mesh.object_blocks, 1, object_kept);
  }
  if (!mesh.object_alt_names.empty()) {
    compact(mesh.object_alt_names, 1, object_kept);
  }
  compact(mesh.objects, 1, object_kept);
  drop_unused_elements(mesh);
  return std::move(mesh);
}

}  // namespace kv::service
