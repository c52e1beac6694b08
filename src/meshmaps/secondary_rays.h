// The secondary rays of one primary hit, cast from the high surface through
// the bake's tracer: ambient occlusion, bent normals, thickness and
// curvature. Each call traces its own rays as one batch on the calling
// thread, so a value depends only on the hit and the rotation it is given.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "core/vec3.h"
#include "mesh/mesh.h"
#include "meshmaps/meshmaps_settings.h"
#include "meshmaps/sample_directions.h"
#include "trace/tracer.h"

namespace kv::meshmaps {

// The point a primary ray found, where the secondary rays start.
struct HitSurface {
  Vec3f point{};
  Vec3f normal{};           // unit shading normal
  std::int32_t group = -1;  // the hit triangle's name group for same-name rays; -1: any
};

// One map's rays with their distances in mesh units.
struct MapRays {
  std::int32_t rays = 1;
  float min = 0.0f;
  float max = 1.0f;
  float spread = 180.0f;
  Distribution distribution = Distribution::cosine;
  bool same_name = false;
  std::uint32_t salt = 0;  // keeps the maps' rotations apart
  DirectionSet directions;
};

// Distances relative to the high box are multiplied by `scale`.
MapRays map_rays(const RaySettings& settings, float scale, std::uint32_t salt);

// An infinite plane across the up axis, below the high mesh.
struct GroundPlane {
  bool on = false;
  std::int32_t axis = 2;  // 2: z up, 1: y up
  float level = 0.0f;
};

// The nearest distance of a ray to the plane within [t_near, t_far], or a
// negative value when it does not meet it there.
double ground_distance(const GroundPlane& plane, const Vec3f& origin, const Vec3f& direction,
                       double t_near, double t_far);

// The point and shading normal of a primary hit on `high` (the face normal
// where the corners give none); false when neither can be formed.
bool hit_surface(const Mesh& high, const RayHit& hit, HitSurface& s);

// The ambient occlusion rays of one hit as plain occlusion queries, for
// whoever casts the same rays another way.
void ao_occlusion_queries(const MapRays& m, const HitSurface& s,
                          const std::array<double, 2>& rotation, std::vector<OcclusionQuery>& out);

class SecondaryRays {
 public:
  explicit SecondaryRays(const Tracer& tracer) : tracer_(tracer) {}

  // 1 when every ray escapes; with the cosine distribution and no
  // attenuation, the fraction that escapes.
  double ambient_occlusion(const MapRays& m, Attenuation attenuation, const GroundPlane& ground,
                           const HitSurface& s, const std::array<double, 2>& rotation);
  // The mean escaping direction; the shading normal when none escapes.
  // `as_nearest`: asked as nearest-hit queries, as the occlusion with an
  // attenuation asks them.
  Vec3f bent_normal(const MapRays& m, const HitSurface& s, const std::array<double, 2>& rotation,
                    bool as_nearest);
  // The same from the rays of the last ambient_occlusion call, for bent
  // normals whose rays are those of the occlusion.
  Vec3f bent_normal_of_last(const HitSurface& s) const;
  // The mean distance to the far side along rays into the surface, escaping
  // rays counting as m.max.
  double thickness(const MapRays& m, const HitSurface& s, const std::array<double, 2>& rotation);
  // The mean height change of the surface around the point over radius
  // m.max, divided by it: positive where convex; *found is false when no
  // ray met the surface.
  double curvature(const MapRays& m, const HitSurface& s, const std::array<double, 2>& rotation,
                   bool* found);

  std::uint64_t rays_cast() const { return rays_cast_; }

 private:
  // Distances of the prepared rays (negative: escaped).
  // Casts m's rays around `axis` from the hit into distances_, as
  // nearest-hit queries or, when no distance is needed, occlusion queries.
  void cast(const MapRays& m, const HitSurface& s, const Vec3f& axis,
            const std::array<double, 2>& rotation, bool as_nearest);
  // distances_ of the prepared queries (negative: escaped): their hit
  // distance plus `offset`, or `far` for a blocked occlusion query.
  // `parallel`: the rays run side by side (curvature's) rather than fanned
  // out from the hit point.
  void nearest(double offset, bool parallel = false);
  void occluded(double far);
  void add_ray(const Vec3f& origin, const Vec3f& direction, float t_near, float t_far,
               std::int32_t group, bool as_nearest);

  const Tracer& tracer_;
  std::vector<RayQuery> queries_;
  std::vector<RayHit> hits_;
  std::vector<OcclusionQuery> occlusion_;
  std::vector<std::uint8_t> blocked_;
  std::vector<Vec3f> directions_;
  std::vector<double> cosines_;
  std::vector<double> distances_;
  std::uint64_t rays_cast_ = 0;
};

}  // namespace kv::meshmaps
