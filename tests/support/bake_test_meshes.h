// Small meshes and rays for the bake tests: triangles and planes with chosen
// UVs, heights, windings and normals, a bumpy height field, and UV spheres.
#pragma once

#include <array>
#include <cmath>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "mesh/mesh.h"
#include "support/message_of.h"
#include "trace/tracer.h"

namespace kv::test {

using Corners3 = std::array<std::array<float, 3>, 3>;
using Uvs3 = std::array<std::array<double, 2>, 3>;

// Appends a triangle whose corners each get their own position (and UV and
// normal, when given), in object `object`. Returns its index.
inline std::uint32_t add_triangle(Mesh& mesh, const Corners3& p, const std::optional<Uvs3>& uv = {},
                                  std::uint32_t object = 0, const std::optional<Corners3>& n = {}) {
  Triangle t;
  t.object = object;
  for (std::size_t i = 0; i < 3; ++i) {
    t.corners[i].position = static_cast<std::uint32_t>(mesh.positions.size());
    mesh.positions.push_back(p[i]);
    if (uv) {
      t.corners[i].uv = static_cast<std::int32_t>(mesh.uvs.size());
      mesh.uvs.push_back((*uv)[i]);
    }
    if (n) {
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
inline std::uint32_t add_uv_triangle(Mesh& mesh, const Uvs3& uv, std::uint32_t object = 0) {
  Corners3 p;
  for (std::size_t i = 0; i < 3; ++i) {
    p[i] = {static_cast<float>(uv[i][0]), static_cast<float>(uv[i][1]), 0.0f};
  }
  return add_triangle(mesh, p, uv, object);
}

struct PlaneSpec {
  float x0 = 0.0f, y0 = 0.0f, x1 = 1.0f, y1 = 1.0f;  // position rectangle
  float z = 0.0f;
  double u0 = 0.0, v0 = 0.0, u1 = 1.0, v1 = 1.0;  // UV rectangle (low planes)
  bool with_uvs = true;
  bool facing_up = true;                       // counter-clockwise seen from +z
  std::optional<std::array<float, 3>> normal;  // one normal for every corner
  std::uint32_t object = 0;
};

// Appends a rectangle as two triangles: (x0,y0) (x1,y0) (x1,y1), which covers
// the half below the diagonal, and (x0,y0) (x1,y1) (x0,y1); reversed when not
// facing up.
inline void add_plane(Mesh& mesh, const PlaneSpec& p) {
  const auto base = static_cast<std::uint32_t>(mesh.positions.size());
  mesh.positions.insert(
      mesh.positions.end(),
      {{p.x0, p.y0, p.z}, {p.x1, p.y0, p.z}, {p.x1, p.y1, p.z}, {p.x0, p.y1, p.z}});
  const auto uv_base = static_cast<std::int32_t>(mesh.uvs.size());
  if (p.with_uvs) {
    mesh.uvs.insert(mesh.uvs.end(), {{p.u0, p.v0}, {p.u1, p.v0}, {p.u1, p.v1}, {p.u0, p.v1}});
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

// The square [-half, half]^2 at height z, without UVs.
inline PlaneSpec square(float z, float half = 1.0f, bool facing_up = true,
                        std::uint32_t object = 0) {
  PlaneSpec p;
  p.x0 = p.y0 = -half;
  p.x1 = p.y1 = half;
  p.z = z;
  p.with_uvs = false;
  p.facing_up = facing_up;
  p.object = object;
  return p;
}

// The query the bakes build for surface point (x, y, 0) with axis +z:
// origin front above the point, looking down, t_max = front + rear.
inline RayQuery down_query(float x, float y, float front, float rear, std::int32_t group = -1,
                           std::uint8_t ignore_backface = 1) {
  RayQuery q;
  q.surface_point = {x, y, 0.0f};
  q.surface_normal = {0.0f, 0.0f, 1.0f};
  q.origin = {x, y, front};
  q.direction = {0.0f, 0.0f, -1.0f};
  q.front = front;
  q.rear = rear;
  q.t_max = rear + front;
  q.group = group;
  q.ignore_backface = ignore_backface;
  return q;
}

// A deterministic bumpy height field of n x n cells over [-1, 1]^2, facing
// up, two objects split at x = 0.
inline Mesh bumpy_field(int n) {
  Mesh mesh;
  auto point = [&](int i, int j) {
    const float x = -1.0f + 2.0f / static_cast<float>(n) * static_cast<float>(i);
    const float y = -1.0f + 2.0f / static_cast<float>(n) * static_cast<float>(j);
    // An integer hash of the grid point, so the field needs no libm.
    std::uint32_t h = static_cast<std::uint32_t>((x + 2.0f) * 1000.0f) * 73856093u ^
                      static_cast<std::uint32_t>((y + 2.0f) * 1000.0f) * 19349663u;
    h ^= h >> 13;
    h *= 0x5bd1e995u;
    h ^= h >> 15;
    return std::array<float, 3>{x, y, static_cast<float>(h % 2001u) / 2000.0f * 0.02f - 0.01f};
  };
  for (int j = 0; j < n; ++j) {
    for (int i = 0; i < n; ++i) {
      const std::uint32_t object = i < n / 2 ? 0u : 1u;
      add_triangle(mesh, {point(i, j), point(i + 1, j), point(i + 1, j + 1)}, {}, object);
      add_triangle(mesh, {point(i, j), point(i + 1, j + 1), point(i, j + 1)}, {}, object);
    }
  }
  return mesh;
}

// Queries over the field from surface points on z = 0 along slightly tilted
// axes; a fixed linear congruential sequence makes them the same every run.
// A few points lie beyond the field's edge and miss.
inline std::vector<RayQuery> field_queries(std::size_t count, float front, float rear) {
  std::vector<RayQuery> queries;
  std::uint64_t state = 12345;
  auto next = [&] {
    state = state * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<float>((state >> 40) & 0xFFFFFF) / 16777216.0f;  // [0, 1)
  };
  for (std::size_t i = 0; i < count; ++i) {
    const float x = next() * 2.1f - 1.05f;
    const float y = next() * 2.1f - 1.05f;
    float n[3] = {next() * 0.4f - 0.2f, next() * 0.4f - 0.2f, 1.0f};
    const float inv = 1.0f / std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
    for (float& c : n) {
      c *= inv;
    }
    RayQuery q = down_query(x, y, front, rear);
    q.surface_normal = {n[0], n[1], n[2]};
    q.origin = {x + n[0] * front, y + n[1] * front, n[2] * front};
    q.direction = {-n[0], -n[1], -n[2]};
    queries.push_back(q);
  }
  return queries;
}

// A latitude-longitude sphere of `segments` x `rings` cells with a seam
// column, UVs (i / segments, 1 - j / rings), smooth normals, counter-clockwise
// seen from outside; segments * (2 rings - 2) triangles. `bump` displaces the
// radius by a smooth pattern; a bumped sphere has no stored normals.
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
      std::array<float, 3> p, n;
      for (std::size_t k = 0; k < 3; ++k) {
        p[k] = static_cast<float>(r * d[k]);
        n[k] = static_cast<float>(d[k]);
      }
      mesh.positions.push_back(p);
      if (bump == 0.0f) {
        mesh.normals.push_back(n);
      }
      mesh.uvs.push_back({static_cast<double>(i) / segments, 1.0 - static_cast<double>(j) / rings});
    }
  }
  auto add = [&](std::uint32_t a, std::uint32_t b, std::uint32_t c) {
    Triangle t;
    const std::uint32_t ids[3] = {a, b, c};
    for (std::size_t k = 0; k < 3; ++k) {
      t.corners[k] = {ids[k], static_cast<std::int32_t>(ids[k]),
                      bump == 0.0f ? static_cast<std::int32_t>(ids[k]) : -1};
    }
    mesh.triangles.push_back(t);
  };
  auto vertex = [&](int i, int j) { return static_cast<std::uint32_t>(j * (segments + 1) + i); };
  for (int j = 0; j < rings; ++j) {
    for (int i = 0; i < segments; ++i) {
      if (j != 0) {
        add(vertex(i, j), vertex(i, j + 1), vertex(i + 1, j));
      }
      if (j != rings - 1) {
        add(vertex(i + 1, j), vertex(i, j + 1), vertex(i + 1, j + 1));
      }
    }
  }
  return mesh;
}

}  // namespace kv::test
