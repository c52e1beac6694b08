#include "fuzz/mesh_check.h"

#include <cmath>
#include <cstdint>
#include <unordered_set>

namespace kv::fuzz {
namespace {

constexpr std::uint64_t kMaxElements = 2147483647;
constexpr std::size_t kMaxNameBytes = 65536;
// The smallest normal float32: a squared length below it has no direction.
constexpr float kMinSquaredLength = 1.1754944e-38f;

bool finite(const auto& components) {
  for (const auto c : components) {
    if (!std::isfinite(c)) {
      return false;
    }
  }
  return true;
}

std::string array_sizes_broken(const Mesh& m) {
  if (m.triangles.empty()) {
    return "no triangles";
  }
  if (m.objects.empty()) {
    return "no objects";
  }
  const std::uint64_t sizes[] = {m.positions.size(), m.uvs.size(),        m.normals.size(),
                                 m.triangles.size(), m.objects.size(),    m.materials.size(),
                                 m.blocks.size(),    m.polygroups.size(), m.colors.size()};
  for (const std::uint64_t size : sizes) {
    if (size > kMaxElements) {
      return "an array holds more than 2147483647 elements";
    }
  }
  if (!m.triangle_materials.empty() && m.triangle_materials.size() != m.triangles.size()) {
    return "triangle_materials is neither empty nor one per triangle";
  }
  if (!m.object_blocks.empty() && m.object_blocks.size() != m.objects.size()) {
    return "object_blocks is neither empty nor one per object";
  }
  if (!m.object_alt_names.empty() && m.object_alt_names.size() != m.objects.size()) {
    return "object_alt_names is neither empty nor one per object";
  }
  if (!m.polygroups.empty() && m.polygroups.size() != m.triangles.size()) {
    return "polygroups is neither empty nor one per triangle";
  }
  if (!m.colors.empty() && m.colors.size() != 3 * m.triangles.size()) {
    return "colors is neither empty nor one per corner";
  }
  return {};
}

std::string vertices_broken(const Mesh& m, bool unit_normals) {
  for (std::size_t i = 0; i < m.positions.size(); ++i) {
    if (!finite(m.positions[i])) {
      return "position " + std::to_string(i) + " is not finite";
    }
  }
  for (std::size_t i = 0; i < m.uvs.size(); ++i) {
    if (!finite(m.uvs[i])) {
      return "uv " + std::to_string(i) + " is not finite";
    }
  }
  for (std::size_t i = 0; i < m.normals.size(); ++i) {
    const auto& n = m.normals[i];
    const float yy = n[1] * n[1];
    const float xx = n[0] * n[0];
    const float squared = (yy + xx) + n[2] * n[2];
    if (!finite(n) || !(squared >= kMinSquaredLength)) {
      return "normal " + std::to_string(i) + " has no direction";
    }
    if (unit_normals && std::fabs(std::sqrt(squared) - 1.0f) > 1e-3f) {
      return "normal " + std::to_string(i) + " is not of unit length";
    }
  }
  return {};
}

bool index_ok(std::int32_t index, std::size_t count) {
  return index == -1 || (index >= 0 && static_cast<std::size_t>(index) < count);
}

std::string triangles_broken(const Mesh& m) {
  for (std::size_t i = 0; i < m.triangles.size(); ++i) {
    const Triangle& t = m.triangles[i];
    for (const Corner& c : t.corners) {
      if (c.position >= m.positions.size() || !index_ok(c.uv, m.uvs.size()) ||
          !index_ok(c.normal, m.normals.size())) {
        return "triangle " + std::to_string(i) + " has a corner index out of range";
      }
    }
    if (t.object >= m.objects.size()) {
      return "triangle " + std::to_string(i) + " has an object index out of range";
    }
    if (!m.triangle_materials.empty() && m.triangle_materials[i] >= m.materials.size()) {
      return "triangle " + std::to_string(i) + " has a material index out of range";
    }
  }
  for (std::size_t i = 0; i < m.object_blocks.size(); ++i) {
    if (m.object_blocks[i] >= m.blocks.size()) {
      return "object " + std::to_string(i) + " has a block index out of range";
    }
  }
  return {};
}

std::string names_broken(const Mesh& m) {
  std::unordered_set<std::string> seen;
  for (const std::string& name : m.objects) {
    if (name.size() > kMaxNameBytes) {
      return "an object name is longer than 65536 bytes";
    }
    if (!seen.insert(name).second) {
      return "the object name '" + name + "' is not unique";
    }
  }
  for (const auto* names : {&m.materials, &m.blocks}) {
    for (const std::string& name : *names) {
      if (name.size() > kMaxNameBytes) {
        return "a material or block name is longer than 65536 bytes";
      }
    }
  }
  return {};
}

}  // namespace

std::string mesh_rule_broken(const Mesh& mesh, bool unit_normals) {
  std::string broken = array_sizes_broken(mesh);
  if (broken.empty()) {
    broken = vertices_broken(mesh, unit_normals);
  }
  if (broken.empty()) {
    broken = triangles_broken(mesh);
  }
  if (broken.empty()) {
    broken = names_broken(mesh);
  }
  return broken;
}

}  // namespace kv::fuzz
