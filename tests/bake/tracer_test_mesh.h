// Small meshes and rays for the tracer tests.
#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

#include "bake/tracer.h"
#include "mesh/mesh.h"

namespace kv::test {

// Adds triangle (a, b, c) of the given object; corners in the order given.
inline std::uint32_t add_triangle(Mesh& mesh, std::array<float, 3> a, std::array<float, 3> b,
                                  std::array<float, 3> c, std::uint32_t object = 0) {
  const auto base = static_cast<std::uint32_t>(mesh.positions.size());
  mesh.positions.insert(mesh.positions.end(), {a, b, c});
  Triangle t;
  for (std::uint32_t k = 0; k < 3; ++k) {
    t.corners[k].position = base + k;
  }
  t.object = object;
  mesh.triangles.push_back(t);
  return static_cast<std::uint32_t>(mesh.triangles.size() - 1);
}

// The square [-half, half]^2 at height z as two triangles, counter-clockwise
// seen from above (+z) when facing_up, else clockwise. Returns the index of
// the first triangle, which covers the half y < x; the next covers y > x.
inline std::uint32_t add_square(Mesh& mesh, float z, float half, bool facing_up,
                                std::uint32_t object = 0) {
  const std::array<float, 3> p00 = {-half, -half, z};
  const std::array<float, 3> p10 = {half, -half, z};
  const std::array<float, 3> p11 = {half, half, z};
  const std::array<float, 3> p01 = {-half, half, z};
  if (facing_up) {
    const std::uint32_t first = add_triangle(mesh, p00, p10, p11, object);
    add_triangle(mesh, p00, p11, p01, object);
    return first;
  }
  const std::uint32_t first = add_triangle(mesh, p00, p11, p10, object);
  add_triangle(mesh, p00, p01, p11, object);
  return first;
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
  mesh.objects = {"left", "right"};
  auto height = [](float x, float y) {
    // Integer hash of the grid point so the field needs no libm.
    const auto hx = static_cast<std::uint32_t>((x + 2.0f) * 1000.0f);
    const auto hy = static_cast<std::uint32_t>((y + 2.0f) * 1000.0f);
    std::uint32_t h = hx * 73856093u ^ hy * 19349663u;
    h ^= h >> 13;
    h *= 0x5bd1e995u;
    h ^= h >> 15;
    return static_cast<float>(h % 2001u) / 2000.0f * 0.02f - 0.01f;
  };
  const float step = 2.0f / static_cast<float>(n);
  auto point = [&](int i, int j) {
    const float x = -1.0f + step * static_cast<float>(i);
    const float y = -1.0f + step * static_cast<float>(j);
    return std::array<float, 3>{x, y, height(x, y)};
  };
  for (int j = 0; j < n; ++j) {
    for (int i = 0; i < n; ++i) {
      const std::uint32_t object = i < n / 2 ? 0u : 1u;
      add_triangle(mesh, point(i, j), point(i + 1, j), point(i + 1, j + 1), object);
      add_triangle(mesh, point(i, j), point(i + 1, j + 1), point(i, j + 1), object);
    }
  }
  return mesh;
}

// Queries over the field from surface points on z = 0 along slightly tilted
// axes; a fixed linear congruential sequence makes them the same every run.
inline std::vector<RayQuery> field_queries(std::size_t count, float front, float rear) {
  std::vector<RayQuery> queries;
  std::uint64_t state = 12345;
  auto next = [&] {
    state = state * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<float>((state >> 40) & 0xFFFFFF) / 16777216.0f;  // [0, 1)
  };
  for (std::size_t i = 0; i < count; ++i) {
    // A few points lie beyond the field's edge and miss.
    const float x = next() * 2.1f - 1.05f;
    const float y = next() * 2.1f - 1.05f;
    float n[3] = {next() * 0.4f - 0.2f, next() * 0.4f - 0.2f, 1.0f};
    const float inv = 1.0f / std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
    for (float& c : n) {
      c *= inv;
    }
    RayQuery q;
    q.surface_point = {x, y, 0.0f};
    q.surface_normal = {n[0], n[1], n[2]};
    q.origin = {x + n[0] * front, y + n[1] * front, n[2] * front};
    q.direction = {-n[0], -n[1], -n[2]};
    q.front = front;
    q.rear = rear;
    q.t_max = rear + front;
    q.group = -1;
    q.ignore_backface = 1;
    queries.push_back(q);
  }
  return queries;
}

}  // namespace kv::test
