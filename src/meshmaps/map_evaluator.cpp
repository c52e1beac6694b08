#include "meshmaps/map_evaluator.h"

#include <algorithm>
#include <cmath>
#include <span>

#include "image/unorm16.h"
#include "normal/normal_resolve.h"
#include "sampling/ray_setup.h"

namespace kv::meshmaps {
namespace {

std::uint16_t colour_code(double v) {
  return encode_unorm16(0.5 + 0.5 * v);
}

// The tangent-space vector c in the low frame at raster barycentrics
// (b1, b2), as a unit vector in the mesh's axes; false when it has no length.
bool from_tangent_space(std::span<const TangentFrame, 3> corners, double b1, double b2,
                        const Vec3f& c, Vec3f& out) {
  const double b0 = 1.0 - b1 - b2;
  const Vec3d t = blend_102(widen(corners[0].tangent), widen(corners[1].tangent),
                            widen(corners[2].tangent), b0, b1, b2);
  const Vec3d n = blend_102(widen(corners[0].normal), widen(corners[1].normal),
                            widen(corners[2].normal), b0, b1, b2);
  const Vec3d b = scaled(cross(n, t), corners[0].sign < 0.0f ? -1.0 : 1.0);
  for (std::size_t k = 0; k < 3; ++k) {
    out[k] = static_cast<float>(t[k] * c[0] + b[k] * c[1] + n[k] * c[2]);
  }
  return normalize_in_place(out);
}

}  // namespace

PositionScale position_scale(const Mesh& low, PositionMode mode, PositionNormalization how) {
  PositionScale p;
  p.mode = mode;
  if (low.positions.size() == 0) {
    return p;
  }
  std::array<double, 3> lo{};
  std::array<double, 3> hi{};
  for (std::size_t k = 0; k < 3; ++k) {
    lo[k] = hi[k] = static_cast<double>(low.positions[0][k]);
  }
  for (const auto& v : low.positions) {
    for (std::size_t k = 0; k < 3; ++k) {
      lo[k] = std::min(lo[k], static_cast<double>(v[k]));
      hi[k] = std::max(hi[k], static_cast<double>(v[k]));
    }
  }
  double largest = 0.0;
  for (std::size_t k = 0; k < 3; ++k) {
    p.centre[k] = (lo[k] + hi[k]) * 0.5;
    p.half[k] = (hi[k] - lo[k]) * 0.5;
    largest = std::max(largest, p.half[k]);
  }
  for (std::size_t k = 0; k < 3; ++k) {
    if (how == PositionNormalization::bsphere || !(p.half[k] > 0.0)) {
      p.half[k] = largest > 0.0 ? largest : 1.0;
    }
  }
  return p;
}

// What a texel's sub-samples add up to, each sum in sub-sample order.
struct MeshMapsEvaluator::TexelSums {
  bool covered = false;
  std::uint32_t hits = 0;
  double ao = 0.0;
  double thickness = 0.0;
  double curvature = 0.0;
  std::uint32_t curvature_count = 0;
  double height = 0.0;
  Vec3f normal = {0.0f, 0.0f, 0.0f};
  Vec3d position = {0.0, 0.0, 0.0};
  std::array<float, 3> bent = {0.0f, 0.0f, 0.0f};
  std::uint32_t bent_count = 0;
  std::vector<std::uint32_t> ids;

  // Zero again, keeping the ID list's memory for the next texel.
  void reset() {
    std::vector<std::uint32_t> kept = std::move(ids);
    kept.clear();
    *this = TexelSums{};
    ids = std::move(kept);
  }
};

MeshMapsEvaluator::MeshMapsEvaluator(const LowPrep& prep, const Tracer& tracer,
                                     const EvaluatorSetup& setup, MeshMapsBuffers& out)
    : prep_(prep), tracer_(tracer), setup_(setup), out_(out) {}

void MeshMapsEvaluator::begin_band(std::uint64_t chunks) {
  chunk_counters_.assign(static_cast<std::size_t>(chunks), MeshMapsCounters{});
}

void MeshMapsEvaluator::end_band() {
  for (const MeshMapsCounters& k : chunk_counters_) {
    out_.counters.hits += k.hits;
    out_.counters.texels_covered += k.texels_covered;
    out_.counters.texels_hit += k.texels_hit;
    out_.counters.secondary_rays += k.secondary_rays;
  }
}

void MeshMapsEvaluator::evaluate(std::uint64_t chunk, const SampleRows& rows) {
  MeshMapsCounters k;
  SecondaryRays rays(tracer_);
  TexelSums sums;
  for (std::int32_t y = rows.y_begin; y < rows.y_end; ++y) {
    for (std::int32_t x = 0; x < rows.width; ++x) {
      sums.reset();
      const SubSample* texel = rows.texel(x, y);
      for (std::uint32_t i = 0; i < rows.texel_samples(); ++i) {
        const SubSample& s = texel[i];
        if (s.triangle < 0) {
          continue;
        }
        sums.covered = true;
        if (s.ray < 0 || rows.hits[s.ray].triangle < 0) {
          continue;
        }
        sample(rows, x, y, i, s, rows.hits[s.ray], rays, sums);
      }
      const std::size_t index = static_cast<std::size_t>(y) * static_cast<std::size_t>(rows.width) +
                                static_cast<std::size_t>(x);
      k.texels_covered += sums.covered ? 1 : 0;
      k.hits += sums.hits;
      if (sums.hits > 0) {
        ++k.texels_hit;
        finish_texel(index, sums);
      }
    }
  }
  k.secondary_rays = rays.rays_cast();
  chunk_counters_[static_cast<std::size_t>(chunk)] = k;
}

void MeshMapsEvaluator::sample(const SampleRows& rows, std::int32_t x, std::int32_t y,
                               std::uint32_t index, const SubSample& s, const RayHit& hit,
                               SecondaryRays& rays, TexelSums& sums) const {
  const MapRequest& want = setup_.request;
  HitSurface surface;
  if (!hit_surface(*setup_.high, hit, surface)) {
    return;  // a degenerate high triangle: the texel takes its other samples
  }
  ++sums.hits;
  if (!setup_.high_groups.empty()) {
    surface.group =
        static_cast<std::int32_t>(setup_.high_groups[static_cast<std::size_t>(hit.triangle)]);
  }
  std::size_t map_texel = 0;
  if (setup_.normal_map != nullptr) {
    const auto aa = static_cast<std::uint32_t>(rows.aa);
    const double fu =
        (static_cast<double>(x) * aa + index % aa + 0.5) / (static_cast<double>(rows.width) * aa);
    const double fv = (static_cast<double>(y) * aa + index / aa + 0.5) /
                      (static_cast<double>(prep_.settings().height) * aa);
    map_texel = setup_.normal_map->texel_at(fu, fv);
    if (setup_.normal_map_shading) {
      const std::span<const TangentFrame, 3> corners(
          prep_.tangent_frames().data() + static_cast<std::size_t>(s.triangle) * 3, 3);
      Vec3f shaded{};
      if (from_tangent_space(corners, s.b1, s.b2, setup_.normal_map->normals[map_texel], shaded)) {
        surface.normal = shaded;
      }
    }
  }
  const NoiseTable* noise = setup_.noise;
  Vec3f bent{};
  if (want.ao) {
    sums.ao += rays.ambient_occlusion(setup_.ao, setup_.ao_attenuation, setup_.ground, surface,
                                      sample_rotation(x, y, index, setup_.ao.salt, noise));
    if (setup_.bent_shares_ao) {
      bent = rays.bent_normal_of_last(surface);
    }
  }
  if (want.bent_normals && !setup_.bent_shares_ao) {
    bent = rays.bent_normal(setup_.bent, surface,
                            sample_rotation(x, y, index, setup_.bent.salt, noise),
                            setup_.bent_nearest);
  }
  if (want.thickness) {
    sums.thickness += rays.thickness(setup_.thickness, surface,
                                     sample_rotation(x, y, index, setup_.thickness.salt, noise));
  }
  if (want.curvature && setup_.curvature_from_normal_map) {
    sums.curvature += setup_.normal_map->divergence(map_texel);
    ++sums.curvature_count;
  } else if (want.curvature) {
    bool found = false;
    const double c =
        rays.curvature(setup_.curvature, surface,
                       sample_rotation(x, y, index, setup_.curvature.salt, noise), &found);
    if (found) {
      sums.curvature += c;
      ++sums.curvature_count;
    }
  }
  if (want.height && !setup_.neutral_height) {
    sums.height += static_cast<double>(setup_.front) - static_cast<double>(hit.t);
  }
  for (std::size_t k = 0; k < 3; ++k) {
    sums.normal[k] += surface.normal[k];
    sums.position[k] += static_cast<double>(surface.point[k]);
  }
  if (want.id) {
    sums.ids.push_back(setup_.ids.ids[static_cast<std::size_t>(hit.triangle)]);
  }
  if (want.bent_normals) {
    add_bent(s, bent, sums);
  }
}

void MeshMapsEvaluator::add_bent(const SubSample& s, const Vec3f& bent, TexelSums& sums) const {
  const std::span<const TangentFrame, 3> corners(
      prep_.tangent_frames().data() + static_cast<std::size_t>(s.triangle) * 3, 3);
  bool fallback = false;
  std::array<double, 3> c = tangent_space_normal(
      corners, s.b1, s.b2, prep_.settings().tangent_space == 1, bent, &fallback);
  if (setup_.directx) {
    c[1] = -c[1];
  }
  add_through_colour(sums.bent, c);
  ++sums.bent_count;
}

namespace {

// The ID most sub-samples hit; the lowest on a tie.
std::uint32_t majority(std::vector<std::uint32_t> ids) {
  std::sort(ids.begin(), ids.end());
  std::uint32_t best = ids[0];
  std::size_t best_run = 0;
  for (std::size_t i = 0; i < ids.size();) {
    std::size_t j = i;
    while (j < ids.size() && ids[j] == ids[i]) {
      ++j;
    }
    if (j - i > best_run) {
      best_run = j - i;
      best = ids[i];
    }
    i = j;
  }
  return best;
}

}  // namespace

void MeshMapsEvaluator::finish_texel(std::size_t t, const TexelSums& sums) const {
  const MapRequest& want = setup_.request;
  const double n = static_cast<double>(sums.hits);
  out_.hit[t] = 1;
  if (want.opacity) {
    out_.opacity[t] = 65535;
  }
  if (want.ao) {
    out_.ao[t] = static_cast<float>(sums.ao == n ? 1.0 : sums.ao / n);
  }
  if (want.thickness) {
    out_.thickness[t] = static_cast<float>(sums.thickness / n);
  }
  if (want.curvature) {
    out_.curvature[t] =
        sums.curvature_count > 0
            ? static_cast<float>(sums.curvature / static_cast<double>(sums.curvature_count))
            : 0.0f;
  }
  if (want.height) {
    out_.height_map[t] = static_cast<float>(sums.height / n);
  }
  if (want.world_normal) {
    Vec3f u = sums.normal;
    if (normalize_in_place(u)) {
      const Vec3f w = setup_.world_up == 1 ? Vec3f{u[0], u[2], -u[1]} : u;
      for (std::size_t k = 0; k < 3; ++k) {
        out_.world_normal[t * 3 + k] = colour_code(static_cast<double>(w[k]));
      }
    }
  }
  if (want.position) {
    const PositionScale& p = setup_.position;
    std::array<double, 3> v{};
    for (std::size_t k = 0; k < 3; ++k) {
      v[k] = (sums.position[k] / n - p.centre[k]) / p.half[k];
    }
    for (std::size_t k = 0; k < 3; ++k) {
      const std::size_t axis =
          p.mode == PositionMode::all ? k : static_cast<std::size_t>(p.mode) - 1;
      out_.position[t * 3 + k] = colour_code(v[axis]);
    }
  }
  if (want.id && !sums.ids.empty()) {
    const auto& colour = setup_.ids.colours[majority(sums.ids)];
    for (std::size_t k = 0; k < 3; ++k) {
      out_.id[t * 3 + k] = encode_unorm16(colour[k]);
    }
  }
  if (want.bent_normals && sums.bent_count > 0) {
    texel_normal_codes(sums.bent, &out_.bent_normals[t * 3]);
  }
}

}  // namespace kv::meshmaps
