// Small meshes for the resolve and bake tests: flat planes with chosen UVs,
// heights, windings and normals, and a bumpy sphere inside a smooth one.
#pragma once

#include <array>
#include <cmath>
#include <cstdint>
#include <optional>
#include <string>

#include "mesh/mesh.h"

namespace kv::test {

struct PlaneSpec {
  float x0 = 0.0f, y0 = 0.0f, x1 = 1.0f, y1 = 1.0f;  // position rectangle
  float z = 0.0f;
  double u0 = 0.0, v0 = 0.0, u1 = 1.0, v1 = 1.0;  // UV rectangle (low planes)
  bool with_uvs = true;
  bool facing_up = true;                       // counter-clockwise seen from +z
  std::optional<std::array<float, 3>> normal;  // one normal for every corner
  std::uint32_t object = 0;
};

// Appends a rectangle as two triangles: (x0,y0) (x1,y0) (x1,y1) and
// (x0,y0) (x1,y1) (x0,y1), reversed when not facing up.
inline void add_plane(Mesh& mesh, const PlaneSpec& p) {
  const auto base = static_cast<std::uint32_t>(mesh.positions.size());
  mesh.positions.push_back({p.x0, p.y0, p.z});
  mesh.positions.push_back({p.x1, p.y0, p.z});
  mesh.positions.push_back({p.x1, p.y1, p.z});
  mesh.positions.push_back({p.x0, p.y1, p.z});
  const auto uv_base = static_cast<std::int32_t>(mesh.uvs.size());
  if (p.with_uvs) {
    mesh.uvs.push_back({p.u0, p.v0});
    mesh.uvs.push_back({p.u1, p.v0});
    mesh.uvs.push_back({p.u1, p.v1});
    mesh.uvs.push_back({p.u0, p.v1});
  }
  std::int32_t normal = -1;
  if (p.normal) {
    normal = static_cast<std::int32_t>(mesh.normals.size());
    mesh.normals.push_back(*p.normal);
  }
  const std::array<std::array<std::uint32_t, 3>, 2> up = {{{0, 1, 2}, {0, 2, 3}}};
  const std::array<std::array<std::uint32_t, 3>, 2> down = {{{0, 2, 1}, {0, 3, 2}}};
  for (const auto& tri : p.facing_up ? up : down) {
    Triangle t;
    for (std::size_t k = 0; k < 3; ++k) {
      t.corners[k].position = base + tri[k];
      t.corners[k].uv = p.with_uvs ? uv_base + static_cast<std::int32_t>(tri[k]) : -1;
      t.corners[k].normal = normal;
    }
    t.object = p.object;
    mesh.triangles.push_back(t);
  }
  while (mesh.objects.size() <= p.object) {
    mesh.objects.push_back("object" + std::to_string(mesh.objects.size()));
  }
}

// A low plane over [0,1]^2 at z = 0 whose UVs equal its x and y.
inline Mesh unit_low_plane() {
  Mesh mesh;
  add_plane(mesh, PlaneSpec{});
  return mesh;
}

// A high plane at height z reaching well beyond the unit square.
inline PlaneSpec high_plane(float z) {
  PlaneSpec p;
  p.x0 = -1.0f;
  p.y0 = -1.0f;
  p.x1 = 2.0f;
  p.y1 = 2.0f;
  p.z = z;
  p.with_uvs = false;
  return p;
}

// A latitude-longitude sphere of `segments` x `rings` cells with a seam
// column, UVs (i / segments, 1 - j / rings), smooth normals, counter-clockwise
// seen from outside. `bump` displaces the radius by a smooth pattern; a
// bumped sphere has no stored normals, so its faces show.
inline Mesh uv_sphere(int segments, int rings, float radius, float bump) {
  Mesh mesh;
  mesh.objects = {"sphere"};
  const double pi = 3.14159265358979323846;
  for (int j = 0; j <= rings; ++j) {
    for (int i = 0; i <= segments; ++i) {
      const double theta = pi * j / rings;
      const double phi = 2.0 * pi * (i % segments) / segments;
      const double d[3] = {std::sin(theta) * std::cos(phi), std::sin(theta) * std::sin(phi),
                           std::cos(theta)};
      const double r = radius * (1.0 + bump * std::sin(5.0 * phi) * std::sin(4.0 * theta));
      mesh.positions.push_back({static_cast<float>(r * d[0]), static_cast<float>(r * d[1]),
                                static_cast<float>(r * d[2])});
      if (bump == 0.0f) {
        mesh.normals.push_back(
            {static_cast<float>(d[0]), static_cast<float>(d[1]), static_cast<float>(d[2])});
      }
      mesh.uvs.push_back({static_cast<double>(i) / segments, 1.0 - static_cast<double>(j) / rings});
    }
  }
  auto vertex = [&](int i, int j) { return static_cast<std::uint32_t>(j * (segments + 1) + i); };
  auto add = [&](std::uint32_t a, std::uint32_t b, std::uint32_t c) {
    Triangle t;
    const std::uint32_t ids[3] = {a, b, c};
    for (std::size_t k = 0; k < 3; ++k) {
      t.corners[k].position = ids[k];
      t.corners[k].uv = static_cast<std::int32_t>(ids[k]);
      t.corners[k].normal = bump == 0.0f ? static_cast<std::int32_t>(ids[k]) : -1;
    }
    mesh.triangles.push_back(t);
  };
  for (int j = 0; j < rings; ++j) {
    for (int i = 0; i < segments; ++i) {
      const std::uint32_t a = vertex(i, j), b = vertex(i + 1, j);
      const std::uint32_t c = vertex(i, j + 1), d = vertex(i + 1, j + 1);
      if (j != 0) {
        add(a, c, b);
      }
      if (j != rings - 1) {
        add(b, c, d);
      }
    }
  }
  return mesh;
}

}  // namespace kv::test
