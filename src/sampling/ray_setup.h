// How a bake turns one raster hit on the low surface into a ray query: the
// distance window scaled to the high mesh, the surface point and the axis
// blended from the low triangle's corners, in 32-bit float.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "core/vec3.h"
#include "mesh/mesh.h"
#include "trace/tracer.h"

namespace kv {

// The distance window of every ray of a bake, in mesh units.
struct RayDistances {
  float scale = 1.0f;  // factor applied to the settings' distances
  float front = 0.0f;  // allowed in front of the surface point
  float rear = 0.0f;   // allowed behind it
  float t_max = 0.0f;  // rear + front: the ray's length
};

// Largest side of the axis-aligned box around every position, computed in
// 64-bit; 0 for a mesh without positions.
double mesh_extent(const Mesh& mesh);

// With relative scale the distances are multiplied by the high mesh's extent
// (as a 32-bit float); otherwise they are taken as given.
RayDistances ray_distances(const Mesh& high, float front, float rear, bool relative_scale);

// The unit normal at barycentrics (1 - u - v, u, v) of a triangle: the
// corners' normals blended as (w0 n0 + u n1) + v n2 and normalised. False
// when a corner has no normal (its own or its face normal) or the blend has
// no usable length.
bool blended_normal(const Mesh& mesh, std::uint32_t triangle, float u, float v, Vec3f& out);

// The inputs of ray setup shared by every sub-sample of a bake.
struct RaySetup {
  const Mesh* low = nullptr;
  // One normal per low corner (three per triangle, in triangle order) when
  // normals are averaged; empty to use the corners' own normals.
  std::span<const std::array<float, 3>> averaged_normals;
  // One name group per low object when names are matched; empty otherwise.
  std::span<const std::uint32_t> object_groups;
  RayDistances distances;
  bool ignore_backface = true;
};

// Builds the query of the sample at barycentrics (b1, b2) of low triangle
// `triangle`. False when the axis cannot be formed: the sample casts no ray.
bool build_ray_query(const RaySetup& setup, std::uint32_t triangle, double b1, double b2,
                     RayQuery& query);

}  // namespace kv
