#include "mesh/mesh_checks.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <string_view>
#include <unordered_map>

#include "core/error.h"

namespace kv {
namespace {

constexpr std::uint64_t kCheckChunk = 65536;
constexpr float kSmallestNormalFloat = 1.1754944e-38f;

bool float_is_finite(float value) {
  return (std::bit_cast<std::uint32_t>(value) & 0x7f800000u) != 0x7f800000u;
}

bool double_is_finite(double value) {
  return (std::bit_cast<std::uint64_t>(value) & 0x7ff0000000000000ull) != 0x7ff0000000000000ull;
}

template <typename Array, typename Finite>
void check_finite(const Array& array, std::uint64_t begin, std::uint64_t end, Finite finite,
                  FirstFailure& failure) {
  for (std::uint64_t i = begin; i < std::min<std::uint64_t>(end, array.size()); ++i) {
    const auto& v = array[i];
    bool ok = true;
    for (const auto component : v) {
      ok &= finite(component);
    }
    if (!ok) {
      failure.record(i);
      return;
    }
  }
}

// Scales the normals in place when `scaled` is given (the normals of `mesh`).
void check_normal_chunk(const Mesh& mesh, LargeArray<std::array<float, 3>>* scaled,
                        std::uint64_t begin, std::uint64_t end, FirstFailure& failure) {
  bool failed = false;
  for (std::uint64_t i = begin; i < std::min<std::uint64_t>(end, mesh.normals.size()); ++i) {
    const auto& n = mesh.normals[i];
    const float x = n[0];
    const float y = n[1];
    const float z = n[2];
    const float yy = y * y;
    const float xx = x * x;
    const float zz = z * z;
    const float length_squared = (yy + xx) + zz;
    const float length = std::sqrt(length_squared);
    // A non-finite component makes the squared length NaN or infinite, which
    // the checks below refuse as well.
    const bool ok = float_is_finite(x) & float_is_finite(y) & float_is_finite(z) &
                    (length_squared >= kSmallestNormalFloat) & (length > 0.0f) &
                    float_is_finite(length);
    if (!ok) {
      if (!failed) {
        failure.record(i);
        failed = true;
      }
      continue;
    }
    if (scaled != nullptr) {
      const float r = 1.0f / length;
      (*scaled)[i] = {x * r, y * r, z * r};
    }
  }
}

void check_triangle_chunk(const Mesh& mesh, std::uint64_t begin, std::uint64_t end,
                          FirstFailure& failure) {
  // An index of -1 or 0..count-1 is exactly one whose value + 1, taken as
  // unsigned, is at most the count; the counts fit 32 bits.
  const auto position_count = static_cast<std::uint32_t>(mesh.positions.size());
  const auto uv_limit = static_cast<std::uint32_t>(mesh.uvs.size());
  const auto normal_limit = static_cast<std::uint32_t>(mesh.normals.size());
  const auto object_count = static_cast<std::uint32_t>(mesh.objects.size());
  for (std::uint64_t i = begin; i < std::min<std::uint64_t>(end, mesh.triangles.size()); ++i) {
    const Triangle& t = mesh.triangles[i];
    bool ok = t.object < object_count;
    for (const Corner& c : t.corners) {
      ok &= c.position < position_count;
      ok &= static_cast<std::uint32_t>(c.uv) + 1u <= uv_limit;
      ok &= static_cast<std::uint32_t>(c.normal) + 1u <= normal_limit;
    }
    if (!ok) {
      failure.record(i);
      return;
    }
  }
}

[[noreturn]] void fail(const std::string& prefix, std::string_view message) {
  throw Error(prefix + std::string(message));
}

}  // namespace

void check_vertex_chunk(Mesh& mesh, bool normalize, std::uint64_t begin, std::uint64_t end,
                        MeshFailures& failures) {
  const auto finite_float = [](float v) { return float_is_finite(v); };
  check_finite(mesh.positions, begin, end, finite_float, failures.position);
  check_finite(
      mesh.uvs, begin, end, [](double v) { return double_is_finite(v); }, failures.uv);
  check_normal_chunk(mesh, normalize ? &mesh.normals : nullptr, begin, end, failures.normal);
  check_finite(mesh.colors, begin, end, finite_float, failures.color);
}

void check_range(const Mesh& mesh, CheckedArray array, std::uint64_t begin, std::uint64_t end,
                 MeshFailures& failures) {
  const auto finite_float = [](float v) { return float_is_finite(v); };
  switch (array) {
    case CheckedArray::positions:
      return check_finite(mesh.positions, begin, end, finite_float, failures.position);
    case CheckedArray::uvs:
      return check_finite(
          mesh.uvs, begin, end, [](double v) { return double_is_finite(v); }, failures.uv);
    case CheckedArray::normals:
      return check_normal_chunk(mesh, nullptr, begin, end, failures.normal);
    case CheckedArray::colors:
      return check_finite(mesh.colors, begin, end, finite_float, failures.color);
    case CheckedArray::triangles:
      return check_triangle_chunk(mesh, begin, end, failures.triangle);
  }
}

void check_vertices(Mesh& mesh, bool normalize, const WorkerPool& pool, MeshFailures& failures) {
  const std::uint64_t span =
      std::max({mesh.positions.size(), mesh.uvs.size(), mesh.normals.size(), mesh.colors.size()});
  pool.for_chunks(span, kCheckChunk, [&](std::uint64_t, std::uint64_t begin, std::uint64_t end) {
    check_vertex_chunk(mesh, normalize, begin, end, failures);
  });
}

void check_triangles(const Mesh& mesh, const WorkerPool& pool, MeshFailures& failures) {
  pool.for_chunks(mesh.triangles.size(), kCheckChunk,
                  [&](std::uint64_t, std::uint64_t begin, std::uint64_t end) {
                    check_triangle_chunk(mesh, begin, end, failures.triangle);
                  });
}

void raise_first_failure(const MeshFailures& failures, const std::string& prefix) {
  if (failures.position.failed()) {
    fail(prefix, "position " + std::to_string(failures.position.first()) + " is not finite");
  }
  if (failures.uv.failed()) {
    fail(prefix, "uv " + std::to_string(failures.uv.first()) + " is not finite");
  }
  if (failures.normal.failed()) {
    fail(prefix, "normal " + std::to_string(failures.normal.first()) + " has no direction");
  }
  if (failures.color.failed()) {
    fail(prefix, "color " + std::to_string(failures.color.first()) + " is not finite");
  }
  if (failures.triangle.failed()) {
    fail(prefix,
         "triangle " + std::to_string(failures.triangle.first()) + " has an index out of range");
  }
}

void check_material_indices(const Mesh& mesh, const std::string& prefix) {
  const std::uint64_t materials = mesh.materials.size();
  for (std::size_t i = 0; i < mesh.triangle_materials.size(); ++i) {
    if (mesh.triangle_materials[i] >= materials) {
      fail(prefix, "triangle " + std::to_string(i) + " has a material index out of range");
    }
  }
}

void check_block_indices(const Mesh& mesh, const std::string& prefix) {
  const std::uint64_t blocks = mesh.blocks.size();
  for (std::uint32_t index : mesh.object_blocks) {
    if (index >= blocks) {
      fail(prefix, "an object has a block index out of range");
    }
  }
}

void refuse_duplicate_objects(const Mesh& mesh, const std::string& prefix) {
  std::unordered_map<std::string_view, std::uint32_t> seen;
  seen.reserve(mesh.objects.size());
  for (const std::string& name : mesh.objects) {
    ++seen[name];
  }
  for (const std::string& name : mesh.objects) {
    if (seen[name] > 1) {
      fail(prefix, "duplicate object name '" + name + "'");
    }
  }
}

}  // namespace kv
