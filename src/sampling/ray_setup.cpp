#include "sampling/ray_setup.h"

#include <algorithm>
#include <cmath>
#include <optional>

#include "texel/corner_normals.h"

namespace kv {

double mesh_extent(const Mesh& mesh) {
  if (mesh.positions.empty()) {
    return 0.0;
  }
  std::array<double, 3> lo{};
  std::array<double, 3> hi{};
  for (int k = 0; k < 3; ++k) {
    lo[k] = hi[k] = static_cast<double>(mesh.positions[0][k]);
  }
  for (const auto& p : mesh.positions) {
    for (int k = 0; k < 3; ++k) {
      const double x = static_cast<double>(p[k]);
      lo[k] = std::min(lo[k], x);
      hi[k] = std::max(hi[k], x);
    }
  }
  return std::max({hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]});
}

RayDistances ray_distances(const Mesh& high, float front, float rear, bool relative_scale) {
  RayDistances d;
  d.scale = relative_scale ? static_cast<float>(mesh_extent(high)) : 1.0f;
  d.front = front * d.scale;
  d.rear = rear * d.scale;
  d.t_max = d.rear + d.front;
  return d;
}

bool blended_normal(const Mesh& mesh, std::uint32_t triangle, float u, float v, Vec3f& out) {
  std::array<Vec3f, 3> n{};
  const Triangle& t = mesh.triangles[triangle];
  for (int c = 0; c < 3; ++c) {
    // Stored normals are read directly; corner_normal decides the rest.
    const std::int32_t stored = t.corners[c].normal;
    if (stored >= 0 && static_cast<std::size_t>(stored) < mesh.normals.size()) {
      n[c] = mesh.normals[static_cast<std::size_t>(stored)];
      continue;
    }
    const std::optional<Vec3f> corner = corner_normal(mesh, triangle, c);
    if (!corner) {
      return false;
    }
    n[c] = *corner;
  }
  const float w0 = (1.0f - u) - v;
  Vec3f h = blend_012(w0, u, v, n[0], n[1], n[2]);
  if (!normalize_in_place(h)) {
    return false;
  }
  out = h;
  return true;
}

bool build_ray_query(const RaySetup& setup, std::uint32_t triangle, double b1, double b2,
                     RayQuery& query) {
  const Mesh& low = *setup.low;
  const Triangle& t = low.triangles[triangle];
  const float f1 = static_cast<float>(b1);
  const float f2 = static_cast<float>(b2);
  const float f0 = (1.0f - f1) - f2;

  const Vec3f point =
      blend_012(f0, f1, f2, low.positions[t.corners[0].position],
                low.positions[t.corners[1].position], low.positions[t.corners[2].position]);
  std::array<Vec3f, 3> own{};
  const Vec3f* a = own.data();
  if (!setup.averaged_normals.empty()) {
    a = setup.averaged_normals.data() + static_cast<std::size_t>(triangle) * 3;
  } else {
    for (int c = 0; c < 3; ++c) {
      const std::optional<Vec3f> corner = corner_normal(low, triangle, c);
      if (!corner) {
        return false;
      }
      own[static_cast<std::size_t>(c)] = *corner;
    }
  }
  Vec3f axis = blend_012(f0, f1, f2, a[0], a[1], a[2]);
  if (!normalize_in_place(axis)) {
    return false;
  }

  const RayDistances& d = setup.distances;
  for (int k = 0; k < 3; ++k) {
    query.origin[k] = point[k] + axis[k] * d.front;
    query.direction[k] = -axis[k];
  }
  query.t_max = d.t_max;
  query.surface_point = point;
  query.surface_normal = axis;
  query.front = d.front;
  query.rear = d.rear;
  query.group =
      setup.object_groups.empty() ? -1 : static_cast<std::int32_t>(setup.object_groups[t.object]);
  query.ignore_backface = setup.ignore_backface ? 1 : 0;
  query.reserved[0] = query.reserved[1] = query.reserved[2] = 0;
  return true;
}

}  // namespace kv
