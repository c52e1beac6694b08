#include "normal/normal_resolve.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <utility>

#include "core/error.h"
#include "core/stopwatch.h"
#include "core/prefetch.h"
#include "image/unorm16.h"
#include "sampling/ray_setup.h"

namespace kv {
namespace {

using Vec3d = std::array<double, 3>;

inline Vec3d widen(const std::array<float, 3>& v) {
  return {static_cast<double>(v[0]), static_cast<double>(v[1]), static_cast<double>(v[2])};
}

inline Vec3d cross(const Vec3d& a, const Vec3d& b) {
  return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}

inline Vec3d scaled(const Vec3d& v, double s) {
  return {v[0] * s, v[1] * s, v[2] * s};
}

inline double dot(const Vec3d& a, const Vec3d& b) {
  return (a[0] * b[0] + a[1] * b[1]) + a[2] * b[2];
}

// The dot product in the order the fallback frame uses: (y + x) + z.
inline double dot_yxz(const Vec3d& a, const Vec3d& b) {
  const double y = a[1] * b[1];
  const double x = a[0] * b[0];
  const double z = a[2] * b[2];
  return (y + x) + z;
}

inline double length(const Vec3d& v) {
  return std::sqrt(dot(v, v));
}

inline bool usable(double length_value) {
  return length_value > 0.0 && std::isfinite(length_value);
}

// X1 b1 + X0 b0 + X2 b2, summed in this order.
inline Vec3d blend(const Vec3d& x0, const Vec3d& x1, const Vec3d& x2, double b0, double b1,
                   double b2) {
  Vec3d r{};
  for (std::size_t k = 0; k < 3; ++k) {
    const double first = x1[k] * b1;
    const double second = x0[k] * b0;
    const double third = x2[k] * b2;
    r[k] = (first + second) + third;
  }
  return r;
}

// a . (b x c): the determinant of the matrix with columns a, b, c.
inline double det3(const Vec3d& a, const Vec3d& b, const Vec3d& c) {
  return dot(a, cross(b, c));
}

// The orthonormalised frame used when the direct solve fails.
Vec3d fallback_solve(const Vec3d& t, const Vec3d& n, double s, const Vec3d& h) {
  const Vec3d flat = {0.0, 0.0, 1.0};
  const double n_length = length(n);
  if (!usable(n_length)) {
    return flat;
  }
  const Vec3d nh = {n[0] / n_length, n[1] / n_length, n[2] / n_length};
  const double nt = dot_yxz(nh, t);
  const Vec3d t_ortho = {t[0] - nh[0] * nt, t[1] - nh[1] * nt, t[2] - nh[2] * nt};
  const double t_length = length(t_ortho);
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
  const double c_length = length(c);
  if (!usable(c_length)) {
    return flat;
  }
  return {c0 / c_length, c1 / c_length, c2 / c_length};
}

// Barycentric margin inside which a second low triangle counts as stacked
// over a sample: samples on (or within rounding of) a shared edge belong to
// neighbours, not to stacked UVs.
constexpr double kStackMargin = 1e-6;

bool strictly_inside(const Mesh& low, std::uint32_t t, double u, double v) {
  const Triangle& tri = low.triangles[t];
  const auto& p0 = low.uvs[static_cast<std::size_t>(tri.corners[0].uv)];
  const auto& p1 = low.uvs[static_cast<std::size_t>(tri.corners[1].uv)];
  const auto& p2 = low.uvs[static_cast<std::size_t>(tri.corners[2].uv)];
  const double area = (p2[1] - p0[1]) * (p1[0] - p0[0]) - (p1[1] - p0[1]) * (p2[0] - p0[0]);
  const double n1 = (p2[1] - p0[1]) * (u - p0[0]) - (p2[0] - p0[0]) * (v - p0[1]);
  const double n2 = (p1[0] - p0[0]) * (v - p0[1]) - (p1[1] - p0[1]) * (u - p0[0]);
  // A weight above the margin is above 0, so its numerator has the area's
  // sign: most candidates fail that test and need no division.
  const auto same_sign = [area](double n) { return area > 0.0 ? n > 0.0 : n < 0.0; };
  if (!same_sign(n1) || !same_sign(n2)) {
    return false;
  }
  const double b1 = n1 / area;
  const double b2 = n2 / area;
  return b1 > kStackMargin && b2 > kStackMargin && (1.0 - b1 - b2) > kStackMargin;
}

// One sub-sample of a band.
struct SubSample {
  std::int32_t triangle = -1;  // covering low triangle, -1 = none
  std::int32_t ray = -1;       // index of its query in the band, -1 = no ray
  double b1 = 0.0;
  double b2 = 0.0;
};

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

// Sub-samples per chunk of a band's rows: chunks are whole texel rows.
constexpr std::uint64_t kChunkSamples = 16384;

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
  const Vec3d t = blend(t0, t1, t2, b0, b1, b2);
  const Vec3d n = blend(n0, n1, n2, b0, b1, b2);
  const double s = corners[0].sign < 0.0f ? -1.0 : 1.0;

  Vec3d b{};
  if (per_vertex_bitangent) {
    const Vec3d c0 = scaled(cross(n0, t0), static_cast<double>(corners[0].sign));
    const Vec3d c1 = scaled(cross(n1, t1), static_cast<double>(corners[1].sign));
    const Vec3d c2 = scaled(cross(n2, t2), static_cast<double>(corners[2].sign));
    b = blend(c0, c1, c2, b0, b1, b2);
  } else {
    b = scaled(cross(n, t), s);
  }

  const Vec3d h = widen(h32);
  const double det = det3(t, b, n);
  if (det != 0.0 && std::isfinite(det)) {
    const Vec3d c = {det3(h, b, n) / det, det3(t, h, n) / det, det3(t, b, h) / det};
    const double c_length = length(c);
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

std::uint64_t band_bytes_per_sample() {
  // The record, its query (held twice while the chunks are joined) and its hit.
  return sizeof(SubSample) + 2 * sizeof(RayQuery) + sizeof(RayHit);
}

std::int32_t band_rows_for(std::uint64_t band_samples, std::int32_t width, std::int32_t height,
                           std::int32_t aa) {
  const std::uint64_t row_samples = static_cast<std::uint64_t>(width) *
                                    static_cast<std::uint64_t>(aa) * static_cast<std::uint64_t>(aa);
  std::uint64_t rows = row_samples == 0 ? 1 : band_samples / row_samples;
  // A band's rays are indexed with signed 32-bit numbers.
  const std::uint64_t index_limit =
      row_samples == 0 ? 1 : static_cast<std::uint64_t>(INT32_MAX) / row_samples;
  rows = std::min(rows, index_limit);
  rows = std::clamp<std::uint64_t>(rows, 1, static_cast<std::uint64_t>(std::max(height, 1)));
  return static_cast<std::int32_t>(rows);
}

NormalBakeResult resolve_normals(const LowPrep& prep, const Mesh& high, const Tracer& tracer,
                                 const NormalBakeSettings& settings, const ResolveOptions& options,
                                 const WorkerPool& pool, const BandFinished& band_finished,
                                 ResolveSeconds* seconds) {
  const Clock::time_point loop_start = Clock::now();
  ResolveSeconds times;
  const Mesh& low = prep.mesh();
  const UvRaster& raster = prep.raster();
  const std::int32_t width = prep.settings().width;
  const std::int32_t height = prep.settings().height;
  const std::int32_t aa = prep.settings().aa;
  const bool per_vertex = prep.settings().tangent_space == 1;
  const bool directx = settings.normal_format == 1;
  const std::span<const TangentFrame> frames = prep.tangent_frames();

  const std::int32_t band_rows = options.band_rows > 0
                                     ? std::min(options.band_rows, height)
                                     : band_rows_for(settings.band_samples, width, height, aa);
  const std::uint64_t texel_samples =
      static_cast<std::uint64_t>(aa) * static_cast<std::uint64_t>(aa);
  const std::uint64_t row_samples = static_cast<std::uint64_t>(width) * texel_samples;
  const std::uint64_t rows_per_chunk = std::max<std::uint64_t>(1, kChunkSamples / row_samples);

  RaySetup setup;
  setup.low = &low;
  setup.averaged_normals = prep.averaged_normals();
  setup.object_groups = prep.name_groups();
  setup.distances = options.distances;
  setup.ignore_backface = settings.ignore_backface;

  const std::size_t texel_count =
      static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  NormalBakeResult result;
  result.width = width;
  result.height = height;
  result.normal.assign(texel_count * 3, 0);
  result.opacity.assign(texel_count, 0);
  result.normal_valid.assign(texel_count, 0);
  result.outside.assign(texel_count, 0);
  result.centre_covered.assign(texel_count, 0);

  // Per-chunk sub-samples, queries and hits, kept between bands so their
  // memory is reused. A sample's ray indexes its own chunk's queries. Each on
  // cache lines of its own: neighbouring chunks run on different threads and
  // count into their parts on every sample.
  struct alignas(64) Part {
    std::vector<SubSample> samples;
    std::vector<RayQuery> queries;
    std::vector<RayHit> hits;
    std::uint64_t rays = 0;  // queries that are real rays, not group filler
    NormalBakeCounters counters;
    double setup_seconds = 0.0;
    double ray_seconds = 0.0;
    double resolve_seconds = 0.0;
  };
  std::vector<Part> parts;
  std::vector<RayQuery> queries;
  std::vector<RayHit> hits;
  // A CPU tracer traces each chunk's rays on the thread that set them up,
  // while they are still in cache; a GPU wants the whole band at once.
  const bool per_chunk_rays = !tracer.runs_on_gpu();

  // The U of every sample column, for the stacked-sample test: the same
  // division for every row, done once.
  std::vector<double> sample_u(static_cast<std::size_t>(width) * static_cast<std::size_t>(aa));
  for (std::size_t sx = 0; sx < sample_u.size(); ++sx) {
    sample_u[sx] =
        (static_cast<double>(sx) + 0.5) / (static_cast<double>(width) * aa) + raster.u0();
  }

  for (std::int32_t y0 = 0; y0 < height; y0 += band_rows) {
    const std::int32_t rows = std::min(band_rows, height - y0);
    const std::uint64_t chunks = chunk_count(static_cast<std::uint64_t>(rows), rows_per_chunk);
    parts.resize(static_cast<std::size_t>(chunks));

    // Raster lookups and ray setup of rows [row_begin, row_end) of the band.
    auto set_up = [&](Part& part, std::uint64_t row_begin, std::uint64_t row_end) {
      part.queries.clear();
      part.counters = NormalBakeCounters{};
      part.samples.resize(static_cast<std::size_t>((row_end - row_begin) * row_samples));
      for (std::uint64_t r = row_begin; r < row_end; ++r) {
        const std::int64_t y = y0 + static_cast<std::int64_t>(r);
        for (std::int32_t x = 0; x < width; ++x) {
          SubSample* texel =
              part.samples.data() + ((r - row_begin) * static_cast<std::uint64_t>(width) +
                                     static_cast<std::uint64_t>(x)) *
                                        texel_samples;
          for (std::int32_t j = 0; j < aa; ++j) {
            for (std::int32_t i = 0; i < aa; ++i) {
              SubSample& sample = texel[j * aa + i];
              const std::int64_t sx = static_cast<std::int64_t>(x) * aa + i;
              const std::int64_t sy = y * aa + j;
              const RasterHit found = raster.lookup(sx, sy, aa);
              sample = SubSample{found.triangle, -1, found.b1, found.b2};
              if (found.triangle < 0) {
                continue;
              }
              ++part.counters.samples_covered;
              // A cell with one candidate cannot hold a second covering
              // triangle. Lying strictly inside implies covering, so the
              // other candidates need only the strict test.
              const std::span<const std::uint32_t> candidates = raster.cell_candidates(sx, sy, aa);
              if (candidates.size() > 1) {
                const double u = sample_u[static_cast<std::size_t>(sx)];
                const double v = (raster.v0() + 1.0) - (static_cast<double>(sy) + 0.5) /
                                                           (static_cast<double>(height) * aa);
                for (const std::uint32_t other : candidates) {
                  if (static_cast<std::int32_t>(other) != found.triangle &&
                      strictly_inside(low, other, u, v)) {
                    ++part.counters.stacked_skipped;
                  }
                }
              }
            }
          }
        }
      }
      // The queries in a pass of their own: with nothing between them, the
      // square roots and divisions of neighbouring samples overlap.
      part.rays = 0;
      for (std::uint64_t r = row_begin; r < row_end; ++r) {
        SubSample* row = part.samples.data() + (r - row_begin) * row_samples;
        for (SubSample* sample = row; sample != row + row_samples; ++sample) {
          if (sample->triangle < 0) {
            continue;
          }
          // Built in place: a copy of every query costs more than the rare
          // removal of one whose axis cannot be formed.
          RayQuery& query = part.queries.emplace_back();
          if (!build_ray_query(setup, static_cast<std::uint32_t>(sample->triangle), sample->b1,
                               sample->b2, query)) {
            part.queries.pop_back();
            ++part.counters.invalid_ray_normals;
            continue;
          }
          sample->ray = static_cast<std::int32_t>(part.queries.size() - 1);
          ++part.rays;
        }
        // Each row's rays start a trace group of their own, so they are
        // grouped the same whatever the band and chunk sizes. The filler
        // queries have no distance window: they are never traced.
        part.queries.resize(chunk_count(part.queries.size(), kTraceGroup) * kTraceGroup);
      }
    };

    // The resolve of rows [row_begin, row_end): texels are independent.
    auto resolve_rows = [&](const Part& part, const RayHit* part_hits, std::uint64_t row_begin,
                            std::uint64_t row_end) {
      NormalBakeCounters k;
      for (std::uint64_t r = row_begin; r < row_end; ++r) {
        const std::int32_t y = y0 + static_cast<std::int32_t>(r);
        for (std::int32_t x = 0; x < width; ++x) {
          const std::size_t texel_index =
              static_cast<std::size_t>(y) * static_cast<std::size_t>(width) +
              static_cast<std::size_t>(x);
          const SubSample* texel =
              part.samples.data() + ((r - row_begin) * static_cast<std::uint64_t>(width) +
                                     static_cast<std::uint64_t>(x)) *
                                        texel_samples;
          bool any_covered = false;
          bool any_hit = false;
          std::uint32_t contributing = 0;
          std::array<float, 3> sum = {0.0f, 0.0f, 0.0f};
          for (std::uint64_t s = 0; s < texel_samples; ++s) {
            const SubSample& sample = texel[s];
            if (sample.triangle < 0) {
              continue;
            }
            any_covered = true;
            if (sample.ray < 0) {
              continue;
            }
            const auto ray = static_cast<std::size_t>(sample.ray);
            prefetch_hit_normals(high, part_hits, part.queries.size(), ray);
            const RayHit& hit = part_hits[ray];
            if (hit.triangle < 0) {
              continue;
            }
            any_hit = true;
            ++k.hits;
            Vec3f h{};
            if (!blended_normal(high, static_cast<std::uint32_t>(hit.triangle), hit.u, hit.v, h)) {
              ++k.invalid_hit_normals;
              continue;
            }
            bool fallback = false;
            const std::span<const TangentFrame, 3> corners(
                frames.data() + static_cast<std::size_t>(sample.triangle) * 3, 3);
            std::array<double, 3> c =
                tangent_space_normal(corners, sample.b1, sample.b2, per_vertex, h, &fallback);
            if (fallback) {
              ++k.degenerate_frames;
            }
            if (directx) {
              c[1] = -c[1];
            }
            add_through_colour(sum, c);
            ++contributing;
          }
          if (!any_covered) {
            result.outside[texel_index] = 1;
            ++k.texels_outside;
            continue;
          }
          ++k.texels_covered;
          if (any_hit) {
            result.opacity[texel_index] = 65535;
            ++k.texels_opaque;
          }
          const bool centre = aa == 1 ? true : raster.lookup(x, y, 1).triangle >= 0;
          if (!centre) {
            continue;
          }
          result.centre_covered[texel_index] = 1;
          ++k.texels_centre_covered;
          if (contributing > 0 && texel_normal_codes(sum, &result.normal[texel_index * 3])) {
            result.normal_valid[texel_index] = 1;
            ++k.texels_valid;
          }
        }
      }
      return k;
    };

    auto chunk_rows = [&](std::uint64_t c) {
      const std::uint64_t row_begin = c * rows_per_chunk;
      const std::uint64_t row_end =
          std::min<std::uint64_t>(row_begin + rows_per_chunk, static_cast<std::uint64_t>(rows));
      return std::pair<std::uint64_t, std::uint64_t>(row_begin, row_end);
    };

    // The resolve counters join the setup counters of their chunk; the
    // counters are whole numbers, so the join order cannot change them.
    auto add_resolve_counters = [](NormalBakeCounters& into, const NormalBakeCounters& k) {
      into.hits += k.hits;
      into.invalid_hit_normals += k.invalid_hit_normals;
      into.degenerate_frames += k.degenerate_frames;
      into.texels_covered += k.texels_covered;
      into.texels_outside += k.texels_outside;
      into.texels_centre_covered += k.texels_centre_covered;
      into.texels_valid += k.texels_valid;
      into.texels_opaque += k.texels_opaque;
    };

    const Clock::time_point band_start = Clock::now();
    std::uint64_t ray_count = 0;
    if (per_chunk_rays) {
      pool.for_chunks(chunks, 1, [&](std::uint64_t c, std::uint64_t, std::uint64_t) {
        Part& part = parts[static_cast<std::size_t>(c)];
        const auto [row_begin, row_end] = chunk_rows(c);
        Clock::time_point step = Clock::now();
        set_up(part, row_begin, row_end);
        Clock::time_point next = Clock::now();
        part.setup_seconds = std::chrono::duration<double>(next - step).count();
        step = next;
        part.hits.assign(part.queries.size(), RayHit{});
        if (!part.queries.empty()) {
          tracer.trace_batch(part.queries.data(), part.hits.data(), part.queries.size(), 1);
        }
        next = Clock::now();
        part.ray_seconds = std::chrono::duration<double>(next - step).count();
        step = next;
        add_resolve_counters(part.counters,
                             resolve_rows(part, part.hits.data(), row_begin, row_end));
        part.resolve_seconds = seconds_since(step);
      });
      std::uint64_t slots = 0;
      for (const Part& part : parts) {
        slots += part.queries.size();
        ray_count += part.rays;
      }
      if (slots > static_cast<std::uint64_t>(INT32_MAX)) {
        throw Error("a bake band holds more rays than it can index");
      }
      // The band's time split by the share each step took on the threads.
      double ray_cpu = 0.0;
      double all_cpu = 0.0;
      for (const Part& part : parts) {
        ray_cpu += part.ray_seconds;
        all_cpu += part.setup_seconds + part.ray_seconds + part.resolve_seconds;
      }
      const double band_seconds = seconds_since(band_start);
      const double ray_share = all_cpu > 0.0 ? ray_cpu / all_cpu : 0.0;
      times.rays += band_seconds * ray_share;
      times.resolve += band_seconds * (1.0 - ray_share);
    } else {
      pool.for_chunks(chunks, 1, [&](std::uint64_t c, std::uint64_t, std::uint64_t) {
        const auto [row_begin, row_end] = chunk_rows(c);
        set_up(parts[static_cast<std::size_t>(c)], row_begin, row_end);
      });
      std::vector<std::uint64_t> offsets(static_cast<std::size_t>(chunks) + 1, 0);
      for (std::size_t c = 0; c < static_cast<std::size_t>(chunks); ++c) {
        offsets[c + 1] = offsets[c] + parts[c].queries.size();
        ray_count += parts[c].rays;
      }
      const std::uint64_t slots = offsets.back();
      if (slots > static_cast<std::uint64_t>(INT32_MAX)) {
        throw Error("a bake band holds more rays than it can index");
      }
      queries.resize(static_cast<std::size_t>(slots));
      hits.assign(static_cast<std::size_t>(slots), RayHit{});
      pool.for_chunks(chunks, 1, [&](std::uint64_t c, std::uint64_t, std::uint64_t) {
        const Part& part = parts[static_cast<std::size_t>(c)];
        std::copy(part.queries.begin(), part.queries.end(),
                  queries.begin() + static_cast<std::ptrdiff_t>(offsets[c]));
      });
      times.resolve += seconds_since(band_start);

      Clock::time_point phase_start = Clock::now();
      if (slots > 0) {
        tracer.trace_batch(queries.data(), hits.data(), slots, pool.thread_count());
      }
      times.rays += seconds_since(phase_start);

      phase_start = Clock::now();
      pool.for_chunks(chunks, 1, [&](std::uint64_t c, std::uint64_t, std::uint64_t) {
        Part& part = parts[static_cast<std::size_t>(c)];
        const auto [row_begin, row_end] = chunk_rows(c);
        add_resolve_counters(part.counters,
                             resolve_rows(part, hits.data() + offsets[c], row_begin, row_end));
      });
      times.resolve += seconds_since(phase_start);
    }

    for (const Part& part : parts) {
      const NormalBakeCounters& k = part.counters;
      result.counters.samples_covered += k.samples_covered;
      result.counters.invalid_ray_normals += k.invalid_ray_normals;
      result.counters.stacked_skipped += k.stacked_skipped;
      add_resolve_counters(result.counters, k);
    }
    result.counters.rays += ray_count;

    if (band_finished) {
      const Clock::time_point wait_start = Clock::now();
      band_finished(TexelRegion{0, y0, width, rows}, result);
      times.wait += seconds_since(wait_start);
    }
  }
  times.total = seconds_since(loop_start);
  if (seconds != nullptr) {
    *seconds = times;
  }
  return result;
}

}  // namespace kv
