// Small hand-built low meshes for the low-preparation tests.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "mesh/mesh.h"

namespace kv::test {

// Appends a triangle whose corners each get their own position and UV (and
// normal, when given), in object `object`.
inline std::uint32_t add_triangle(Mesh& mesh, const std::array<std::array<float, 3>, 3>& p,
                                  const std::array<std::array<double, 2>, 3>& uv,
                                  std::uint32_t object = 0,
                                  const std::array<std::array<float, 3>, 3>* n = nullptr) {
  Triangle t;
  t.object = object;
  for (std::size_t i = 0; i < 3; ++i) {
    t.corners[i].position = static_cast<std::uint32_t>(mesh.positions.size());
    mesh.positions.push_back(p[i]);
    t.corners[i].uv = static_cast<std::int32_t>(mesh.uvs.size());
    mesh.uvs.push_back(uv[i]);
    if (n != nullptr) {
      t.corners[i].normal = static_cast<std::int32_t>(mesh.normals.size());
      mesh.normals.push_back((*n)[i]);
    }
  }
  mesh.triangles.push_back(t);
  if (mesh.objects.size() <= object) {
    mesh.objects.resize(object + 1, "object");
  }
  return static_cast<std::uint32_t>(mesh.triangles.size() - 1);
}

// A triangle lying in the z = 0 plane at its UV coordinates.
inline std::uint32_t add_uv_triangle(Mesh& mesh, const std::array<std::array<double, 2>, 3>& uv,
                                     std::uint32_t object = 0) {
  std::array<std::array<float, 3>, 3> p;
  for (std::size_t i = 0; i < 3; ++i) {
    p[i] = {static_cast<float>(uv[i][0]), static_cast<float>(uv[i][1]), 0.0f};
  }
  return add_triangle(mesh, p, uv, object);
}

// A grid of n x n quads (two triangles each) over UV [0, 1]^2, lying in the
// z = 0 plane, with a gentle bump in z so face normals differ.
inline Mesh grid_mesh(int n) {
  Mesh mesh;
  mesh.objects.push_back("grid");
  const auto at = [n](int i, int j) {
    const double u = static_cast<double>(i) / n;
    const double v = static_cast<double>(j) / n;
    return std::array<double, 2>{u, v};
  };
  for (int j = 0; j <= n; ++j) {
    for (int i = 0; i <= n; ++i) {
      const auto uv = at(i, j);
      mesh.uvs.push_back(uv);
      const double z = 0.1 * (uv[0] - 0.5) * (uv[0] - 0.5) + 0.05 * uv[1] * uv[1];
      mesh.positions.push_back(
          {static_cast<float>(uv[0]), static_cast<float>(uv[1]), static_cast<float>(z)});
    }
  }
  const auto id = [n](int i, int j) { return static_cast<std::uint32_t>(j * (n + 1) + i); };
  for (int j = 0; j < n; ++j) {
    for (int i = 0; i < n; ++i) {
      const std::uint32_t q[4] = {id(i, j), id(i + 1, j), id(i + 1, j + 1), id(i, j + 1)};
      for (const auto& tri : {std::array<int, 3>{0, 1, 2}, std::array<int, 3>{0, 2, 3}}) {
        Triangle t;
        for (std::size_t k = 0; k < 3; ++k) {
          t.corners[k].position = q[tri[k]];
          t.corners[k].uv = static_cast<std::int32_t>(q[tri[k]]);
        }
        mesh.triangles.push_back(t);
      }
    }
  }
  return mesh;
}

}  // namespace kv::test
