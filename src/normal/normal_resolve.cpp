#include "normal/normal_resolve.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "core/prefetch.h"
#include "image/unorm16.h"
#include "sampling/ray_setup.h"

namespace kv {
namespace {

inline bool usable(double length_value) {
  return length_value > 0.0 && std::isfinite(length_value);
}

// The orthonormalised frame used when the direct solve fails.
Vec3d fallback_solve(const Vec3d& t, const Vec3d& n, double s, const Vec3d& h) {
  const Vec3d flat = {0.0, 0.0, 1.0};
  const double n_length = length_xyz(n);
  if (!usable(n_length)) {
    return flat;
  }
  const Vec3d nh = {n[0] / n_length, n[1] / n_length, n[2] / n_length};
  const double nt = dot_yxz(nh, t);
  const Vec3d t_ortho = {t[0] - nh[0] * nt, t[1] - nh[1] * nt, t[2] - nh[2] * nt};
  const double t_length = length_xyz(t_ortho);
  if (!usable(t_length)) {
    return flat;
  }
  const Vec3d th = {t_ortho[0] / t_length, t_ortho[1] / t_length, t_ortho[2] / t_length};
  const Vec3d b = scaled(cross(nh, th), s);
  const double c0 = dot_yxz(th, h);
  const double c1 = dot_yxz(b, h);
  const double c2x = h[0] * nh[0];
  const double c2y = h[1] * nh[1];
  const double c2z = h[2] * nh[2];
  const double c2 = (c2x + c2y) + c2z;
  const Vec3d c = {c0, c1, c2};
  const double c_length = length_xyz(c);
  if (!usable(c_length)) {
    return flat;
  }
  return {c0 / c_length, c1 / c_length, c2 / c_length};
}

// High triangles are met in no useful order, so their records and normals
// miss the cache: while hit `ray` is resolved, the records of a later hit and
// the normals of a nearer one (whose record has arrived by then) are fetched.
constexpr std::size_t kRecordAhead = 16;
constexpr std::size_t kNormalsAhead = 8;

void prefetch_hit_normals(const Mesh& high, const RayHit* hits, std::size_t count,
                          std::size_t ray) {
  if (ray + kRecordAhead < count && hits[ray + kRecordAhead].triangle >= 0) {
    prefetch(&high.triangles[static_cast<std::size_t>(hits[ray + kRecordAhead].triangle)]);
  }
  if (ray + kNormalsAhead < count && hits[ray + kNormalsAhead].triangle >= 0) {
    const Triangle& t =
        high.triangles[static_cast<std::size_t>(hits[ray + kNormalsAhead].triangle)];
    for (const Corner& c : t.corners) {
      if (c.normal >= 0 && static_cast<std::size_t>(c.normal) < high.normals.size()) {
        prefetch(&high.normals[static_cast<std::size_t>(c.normal)]);
      }
    }
  }
}

}  // namespace

std::array<double, 3> tangent_space_normal(std::span<const TangentFrame, 3> corners, double b1,
                                           double b2, bool per_vertex_bitangent,
                                           const std::array<float, 3>& h32, bool* fallback) {
  const double b0 = 1.0 - b1 - b2;
  const Vec3d t0 = widen(corners[0].tangent);
  const Vec3d t1 = widen(corners[1].tangent);
  const Vec3d t2 = widen(corners[2].tangent);
  const Vec3d n0 = widen(corners[0].normal);
  const Vec3d n1 = widen(corners[1].normal);
  const Vec3d n2 = widen(corners[2].normal);
  const Vec3d t = blend_102(t0, t1, t2, b0, b1, b2);
  const Vec3d n = blend_102(n0, n1, n2, b0, b1, b2);
  const double s = corners[0].sign < 0.0f ? -1.0 : 1.0;

  Vec3d b{};
  if (per_vertex_bitangent) {
    const Vec3d c0 = scaled(cross(n0, t0), static_cast<double>(corners[0].sign));
    const Vec3d c1 = scaled(cross(n1, t1), static_cast<double>(corners[1].sign));
    const Vec3d c2 = scaled(cross(n2, t2), static_cast<double>(corners[2].sign));
    b = blend_102(c0, c1, c2, b0, b1, b2);
  } else {
    b = scaled(cross(n, t), s);
  }

  const Vec3d h = widen(h32);
  const double det = det3_xyz(t, b, n);
  if (det != 0.0 && std::isfinite(det)) {
    const Vec3d c = {det3_xyz(h, b, n) / det, det3_xyz(t, h, n) / det, det3_xyz(t, b, h) / det};
    const double c_length = length_xyz(c);
    if (std::isfinite(c[0]) && std::isfinite(c[1]) && std::isfinite(c[2]) && c_length > 0.0) {
      *fallback = false;
      return {c[0] / c_length, c[1] / c_length, c[2] / c_length};
    }
  }
  *fallback = true;
  return fallback_solve(t, n, s, h);
}

void add_through_colour(std::array<float, 3>& sum, const std::array<double, 3>& c) {
  for (std::size_t k = 0; k < 3; ++k) {
    const float e = static_cast<float>(c[k]) * 0.5f + 0.5f;
    sum[k] += (e + e) - 1.0f;
  }
}

bool texel_normal_codes(const std::array<float, 3>& sum, std::uint16_t* codes) {
  Vec3f unit = sum;
  if (!normalize_in_place(unit)) {
    return false;
  }
  for (std::size_t k = 0; k < 3; ++k) {
    const float colour = unit[k] * 0.5f + 0.5f;
    codes[k] = encode_unorm16(static_cast<double>(colour));
  }
  return true;
}

namespace {

// The resolve counters join the setup counters of their chunk; the
// counters are whole numbers, so the join order cannot change them.
void add_resolve_counters(NormalBakeCounters& into, const NormalBakeCounters& k) {
  into.hits += k.hits;
  into.invalid_hit_normals += k.invalid_hit_normals;
  into.degenerate_frames += k.degenerate_frames;
  into.texels_covered += k.texels_covered;
  into.texels_outside += k.texels_outside;
  into.texels_centre_covered += k.texels_centre_covered;
  into.texels_valid += k.texels_valid;
  into.texels_opaque += k.texels_opaque;
}

// What a texel's sub-samples add up to.
struct TexelSum {
  bool any_covered = false;
  bool any_hit = false;
  std::uint32_t contributing = 0;
  std::array<float, 3> sum = {0.0f, 0.0f, 0.0f};
};

// The Normal/Opacity evaluator: each texel's traced sub-samples, in
// row-major order, become its Normal codes and Opacity code.
class NormalEvaluator final : public TexelEvaluator {
 public:
  NormalEvaluator(const LowPrep& prep, const Mesh& high, bool directx, NormalBakeResult& result)
      : prep_(prep),
        high_(high),
        frames_(prep.tangent_frames()),
        per_vertex_(prep.settings().tangent_space == 1),
        directx_(directx),
        result_(result) {}

  void begin_band(std::uint64_t chunks) override {
    chunk_counters_.assign(static_cast<std::size_t>(chunks), NormalBakeCounters{});
  }

  void evaluate(std::uint64_t chunk, const SampleRows& rows) override {
    NormalBakeCounters k;
    for (std::int32_t y = rows.y_begin; y < rows.y_end; ++y) {
      for (std::int32_t x = 0; x < rows.width; ++x) {
        resolve_texel(rows, x, y, k);
      }
    }
    chunk_counters_[static_cast<std::size_t>(chunk)] = k;
  }

  void end_band() override {
    for (const NormalBakeCounters& k : chunk_counters_) {
      add_resolve_counters(result_.counters, k);
    }
  }

 private:
  TexelSum sum_samples(const SampleRows& rows, const SubSample* texel, NormalBakeCounters& k) const;
  void resolve_texel(const SampleRows& rows, std::int32_t x, std::int32_t y,
                     NormalBakeCounters& k) const;

  const LowPrep& prep_;
  const Mesh& high_;
  std::span<const TangentFrame> frames_;
  bool per_vertex_;
  bool directx_;
  NormalBakeResult& result_;
  std::vector<NormalBakeCounters> chunk_counters_;  // one per chunk of the band
};

TexelSum NormalEvaluator::sum_samples(const SampleRows& rows, const SubSample* texel,
                                      NormalBakeCounters& k) const {
  TexelSum t;
  for (std::size_t s = 0; s < rows.texel_samples(); ++s) {
    const SubSample& sample = texel[s];
    if (sample.triangle < 0) {
      continue;
    }
    t.any_covered = true;
    if (sample.ray < 0) {
      continue;
    }
    const auto ray = static_cast<std::size_t>(sample.ray);
    prefetch_hit_normals(high_, rows.hits, rows.hit_count, ray);
    const RayHit& hit = rows.hits[ray];
    if (hit.triangle < 0) {
      continue;
    }
    t.any_hit = true;
    ++k.hits;
    Vec3f h{};
    if (!blended_normal(high_, static_cast<std::uint32_t>(hit.triangle), hit.u, hit.v, h)) {
      ++k.invalid_hit_normals;
      continue;
    }
    bool fallback = false;
    const std::span<const TangentFrame, 3> corners(
        frames_.data() + static_cast<std::size_t>(sample.triangle) * 3, 3);
    std::array<double, 3> c =
        tangent_space_normal(corners, sample.b1, sample.b2, per_vertex_, h, &fallback);
    if (fallback) {
      ++k.degenerate_frames;
    }
    if (directx_) {
      c[1] = -c[1];
    }
    add_through_colour(t.sum, c);
    ++t.contributing;
  }
  return t;
}

void NormalEvaluator::resolve_texel(const SampleRows& rows, std::int32_t x, std::int32_t y,
                                    NormalBakeCounters& k) const {
  const std::size_t index = static_cast<std::size_t>(y) * static_cast<std::size_t>(rows.width) +
                            static_cast<std::size_t>(x);
  const TexelSum t = sum_samples(rows, rows.texel(x, y), k);
  if (!t.any_covered) {
    result_.outside[index] = 1;
    ++k.texels_outside;
    return;
  }
  ++k.texels_covered;
  if (t.any_hit) {
    result_.opacity[index] = 65535;
    ++k.texels_opaque;
  }
  const bool centre = rows.aa == 1 ? true : prep_.raster().lookup(x, y, 1).triangle >= 0;
  if (!centre) {
    return;
  }
  result_.centre_covered[index] = 1;
  ++k.texels_centre_covered;
  if (t.contributing > 0 && texel_normal_codes(t.sum, &result_.normal[index * 3])) {
    result_.normal_valid[index] = 1;
    ++k.texels_valid;
  }
}

NormalBakeResult empty_result(std::int32_t width, std::int32_t height) {
  const std::size_t texels = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  NormalBakeResult result;
  result.width = width;
  result.height = height;
  result.normal.assign(texels * 3, 0);
  result.opacity.assign(texels, 0);
  result.normal_valid.assign(texels, 0);
  result.outside.assign(texels, 0);
  result.centre_covered.assign(texels, 0);
  return result;
}

}  // namespace

NormalBakeResult resolve_normals(const LowPrep& prep, const Mesh& high, const Tracer& tracer,
                                 const NormalBakeSettings& settings, const ResolveOptions& options,
                                 const WorkerPool& pool, const BandFinished& band_finished,
                                 ResolveSeconds* seconds) {
  const LowPrepSettings& ps = prep.settings();
  NormalBakeResult result = empty_result(ps.width, ps.height);
  NormalEvaluator evaluator(prep, high, settings.normal_format == 1, result);
  BandLoopSettings loop;
  loop.band_rows = options.band_rows > 0
                       ? std::min(options.band_rows, ps.height)
                       : band_rows_for(settings.band_samples, ps.width, ps.height, ps.aa);
  loop.distances = options.distances;
  loop.ignore_backface = settings.ignore_backface;
  BandDone band_done;
  if (band_finished) {
    band_done = [&](const TexelRegion& region) { band_finished(region, result); };
  }
  const BandLoopCounters k = run_band_loop(prep, tracer, loop, evaluator, pool, band_done, seconds);
  result.counters.samples_covered = k.samples_covered;
  result.counters.rays = k.rays;
  result.counters.invalid_ray_normals = k.invalid_ray_normals;
  result.counters.stacked_skipped = k.stacked_skipped;
  return result;
}

}  // namespace kv
