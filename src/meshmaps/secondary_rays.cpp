#include "meshmaps/secondary_rays.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "core/parallel.h"
#include "meshmaps/sample_directions.h"
#include "sampling/ray_setup.h"

namespace kv::meshmaps {

MapRays map_rays(const RaySettings& settings, float scale, std::uint32_t salt) {
  MapRays m;
  m.rays = settings.rays;
  const float factor = settings.absolute ? 1.0f : scale;
  m.min = settings.min * factor;
  m.max = settings.max * factor;
  m.spread = settings.spread;
  m.distribution = settings.distribution;
  m.same_name = settings.self == SelfOcclusion::same_name;
  m.salt = salt;
  m.directions = direction_set(settings.rays, settings.spread, settings.distribution);
  return m;
}

double ground_distance(const GroundPlane& plane, const Vec3f& origin, const Vec3f& direction,
                       double t_near, double t_far) {
  const auto axis = static_cast<std::size_t>(plane.axis);
  const double d = static_cast<double>(direction[axis]);
  if (!plane.on || !(d < 0.0)) {
    return -1.0;
  }
  const double t = (static_cast<double>(plane.level) - static_cast<double>(origin[axis])) / d;
  return t >= t_near && t <= t_far ? t : -1.0;
}

void SecondaryRays::add_ray(const Vec3f& origin, const Vec3f& direction, float t_near, float t_far,
                            std::int32_t group, bool as_nearest) {
  if (!as_nearest) {
    OcclusionQuery o;
    o.origin = origin;
    o.direction = direction;
    o.t_near = t_near;
    o.t_far = t_far;
    occlusion_.push_back(o);
    return;
  }
  // A nearest-hit query through the bake's own tracer: the window runs along
  // the ray itself, so every triangle from t_near to t_far counts, from
  // either side.
  RayQuery q;
  for (std::size_t k = 0; k < 3; ++k) {
    q.origin[k] = origin[k] + direction[k] * t_near;
  }
  q.direction = direction;
  q.t_max = t_far - t_near;
  q.surface_point = q.origin;
  q.surface_normal = direction;
  q.front = q.t_max * 2.0f + 1.0f;
  q.rear = 1.0f;
  q.group = group;
  q.ignore_backface = 0;
  queries_.push_back(q);
}

void SecondaryRays::nearest(double offset, bool parallel) {
  hits_.resize(queries_.size());
  if (parallel) {
    tracer_.trace_batch(queries_.data(), hits_.data(), queries_.size(), WorkerPool::serial());
  } else {
    tracer_.trace_fanned_batch(queries_.data(), hits_.data(), queries_.size(),
                               WorkerPool::serial());
  }
  rays_cast_ += queries_.size();
  distances_.resize(queries_.size());
  for (std::size_t i = 0; i < queries_.size(); ++i) {
    distances_[i] = hits_[i].triangle >= 0 ? static_cast<double>(hits_[i].t) + offset : -1.0;
  }
}

void SecondaryRays::occluded(double far) {
  blocked_.resize(occlusion_.size());
  tracer_.occluded_batch(occlusion_.data(), blocked_.data(), occlusion_.size(),
                         WorkerPool::serial());
  rays_cast_ += occlusion_.size();
  distances_.resize(occlusion_.size());
  for (std::size_t i = 0; i < occlusion_.size(); ++i) {
    // Only whether it was blocked is known: the far end stands for the distance.
    distances_[i] = blocked_[i] != 0 ? far : -1.0;
  }
}

namespace {

// The directions of one map's rays around `axis`.
void hemisphere(const MapRays& m, const Vec3f& axis, const std::array<double, 2>& rotation,
                std::vector<Vec3f>& directions, std::vector<double>& cosines) {
  hemisphere_directions(m.directions, rotation, axis, directions, cosines);
}

double attenuated(Attenuation a, double t, double max) {
  const double x = std::clamp(t / max, 0.0, 1.0);
  switch (a) {
    case Attenuation::none:
      return 0.0;
    case Attenuation::smooth:
      return x * x * (3.0 - 2.0 * x);
    case Attenuation::linear:
    default:
      return x;
  }
}

}  // namespace

bool hit_surface(const Mesh& high, const RayHit& hit, HitSurface& s) {
  const auto triangle = static_cast<std::uint32_t>(hit.triangle);
  const Triangle& t = high.triangles[triangle];
  const Vec3f& p0 = high.positions[t.corners[0].position];
  const Vec3f& p1 = high.positions[t.corners[1].position];
  const Vec3f& p2 = high.positions[t.corners[2].position];
  s.point = blend_012((1.0f - hit.u) - hit.v, hit.u, hit.v, p0, p1, p2);
  if (blended_normal(high, triangle, hit.u, hit.v, s.normal)) {
    return true;
  }
  auto edge = [](const Vec3f& a, const Vec3f& b) {
    return Vec3d{static_cast<double>(b[0]) - a[0], static_cast<double>(b[1]) - a[1],
                 static_cast<double>(b[2]) - a[2]};
  };
  const Vec3d n = cross(edge(p0, p1), edge(p0, p2));
  s.normal = {static_cast<float>(n[0]), static_cast<float>(n[1]), static_cast<float>(n[2])};
  return normalize_in_place(s.normal);
}

void ao_occlusion_queries(const MapRays& m, const HitSurface& s,
                          const std::array<double, 2>& rotation, std::vector<OcclusionQuery>& out) {
  std::vector<Vec3f> directions;
  std::vector<double> cosines;
  hemisphere(m, s.normal, rotation, directions, cosines);
  out.clear();
  for (const Vec3f& d : directions) {
    OcclusionQuery o;
    o.origin = s.point;
    o.direction = d;
    o.t_near = m.min;
    o.t_far = m.max;
    out.push_back(o);
  }
}

void SecondaryRays::cast(const MapRays& m, const HitSurface& s, const Vec3f& axis,
                         const std::array<double, 2>& rotation, bool as_nearest) {
  hemisphere(m, axis, rotation, directions_, cosines_);
  // Only the tracer's window queries know name groups.
  const bool window = as_nearest || (m.same_name && s.group >= 0);
  const std::int32_t group = m.same_name ? s.group : -1;
  queries_.clear();
  occlusion_.clear();
  for (const Vec3f& d : directions_) {
    add_ray(s.point, d, m.min, m.max, group, window);
  }
  if (window) {
    nearest(m.min);
  } else {
    occluded(m.max);
  }
}

double SecondaryRays::ambient_occlusion(const MapRays& m, Attenuation attenuation,
                                        const GroundPlane& ground, const HitSurface& s,
                                        const std::array<double, 2>& rotation) {
  cast(m, s, s.normal, rotation, attenuation != Attenuation::none);
  double weighted = 0.0;
  double weights = 0.0;
  for (std::size_t i = 0; i < directions_.size(); ++i) {
    double t = distances_[i];
    const double g = ground_distance(ground, s.point, directions_[i], m.min, m.max);
    if (g >= 0.0 && (t < 0.0 || g < t)) {
      t = g;
    }
    const double visible = t < 0.0 ? 1.0 : attenuated(attenuation, t, m.max);
    // Uniform directions weigh each ray by its cosine; cosine-distributed
    // ones carry it in their density already.
    const double w = m.distribution == Distribution::cosine ? 1.0 : cosines_[i];
    weighted += visible * w;
    weights += w;
  }
  if (!(weights > 0.0)) {
    return 1.0;
  }
  return weighted == weights ? 1.0 : weighted / weights;
}

Vec3f SecondaryRays::bent_normal(const MapRays& m, const HitSurface& s,
                                 const std::array<double, 2>& rotation, bool as_nearest) {
  cast(m, s, s.normal, rotation, as_nearest);
  return bent_normal_of_last(s);
}

Vec3f SecondaryRays::bent_normal_of_last(const HitSurface& s) const {
  Vec3d sum = {0.0, 0.0, 0.0};
  bool any = false;
  for (std::size_t i = 0; i < directions_.size(); ++i) {
    if (distances_[i] < 0.0) {
      any = true;
      for (std::size_t k = 0; k < 3; ++k) {
        sum[k] += static_cast<double>(directions_[i][k]);
      }
    }
  }
  Vec3f out = {static_cast<float>(sum[0]), static_cast<float>(sum[1]), static_cast<float>(sum[2])};
  if (!any || !normalize_in_place(out)) {
    return s.normal;
  }
  return out;
}

double SecondaryRays::thickness(const MapRays& m, const HitSurface& s,
                                const std::array<double, 2>& rotation) {
  const Vec3f inward = {-s.normal[0], -s.normal[1], -s.normal[2]};
  cast(m, s, inward, rotation, true);
  double sum = 0.0;
  for (const double t : distances_) {
    sum += t < 0.0 ? static_cast<double>(m.max) : t;
  }
  return sum / static_cast<double>(distances_.size());
}

double SecondaryRays::curvature(const MapRays& m, const HitSurface& s,
                                const std::array<double, 2>& rotation, bool* found) {
  // Rays drop onto the surface from a ring of radius r around the point,
  // from height r above its tangent plane: the height of the surface there
  // against the tangent plane is r - t.
  Vec3d t{};
  Vec3d b{};
  tangent_basis(s.normal, t, b);
  const double r = static_cast<double>(m.max);
  const Vec3f down = {-s.normal[0], -s.normal[1], -s.normal[2]};
  queries_.clear();
  occlusion_.clear();
  for (std::int32_t k = 0; k < m.rays; ++k) {
    const double phi = 2.0 * std::numbers::pi * (static_cast<double>(k) + rotation[0]) /
                       static_cast<double>(m.rays);
    const double c = std::cos(phi) * r;
    const double sn = std::sin(phi) * r;
    Vec3f origin{};
    for (std::size_t i = 0; i < 3; ++i) {
      origin[i] = static_cast<float>(static_cast<double>(s.point[i]) + t[i] * c + b[i] * sn +
                                     static_cast<double>(s.normal[i]) * r);
    }
    add_ray(origin, down, 0.0f, static_cast<float>(2.0 * r), m.same_name ? s.group : -1, true);
  }
  nearest(0.0, true);
  double sum = 0.0;
  std::uint32_t count = 0;
  for (const double d : distances_) {
    if (d >= 0.0) {
      sum += (d - r) / r;  // the surface's drop below the tangent plane
      ++count;
    }
  }
  *found = count > 0;
  return count > 0 ? sum / static_cast<double>(count) : 0.0;
}

}  // namespace kv::meshmaps
