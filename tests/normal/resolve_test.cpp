#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <mutex>
#include <optional>
#include <tuple>

#include "core/error.h"
#include "normal/miss_fill.h"
#include "normal/normal_bake.h"
#include "normal/normal_resolve.h"
#include "sampling/ray_setup.h"
#include "support/bake_test_meshes.h"
#include "support/test_support.h"
#include "texel/low_prep.h"
#include "trace/cpu_tracer.h"

namespace kv {
namespace {

using test::add_plane;
using test::PlaneSpec;
using test::square;
using test::unit_low_plane;
using Codes = std::array<std::uint16_t, 3>;
using U64s = std::vector<std::uint64_t>;

constexpr Codes kFlat = {32768, 32768, 65535};

TangentFrame frame(std::array<float, 3> t, float sign, std::array<float, 3> n = {0, 0, 1}) {
  return {t, sign, n};
}

// The solve at (b1, b2); `fallback` must come out as expected.
std::array<double, 3> solve(const std::array<TangentFrame, 3>& frames, double b1, double b2,
                            bool per_vertex, std::array<float, 3> h, bool expect_fallback) {
  bool fallback = !expect_fallback;
  const auto c = tangent_space_normal(frames, b1, b2, per_vertex, h, &fallback);
  EXPECT_EQ(fallback, expect_fallback);
  return c;
}

void expect_near3(const std::array<double, 3>& got, const std::array<double, 3>& want,
                  double tolerance = 1e-7) {
  for (std::size_t k = 0; k < 3; ++k) {
    EXPECT_NEAR(got[k], want[k], tolerance) << "component " << k;
  }
}

TEST(TangentSolve, DirectSolveSignsAndSkewedFrames) {
  const TangentFrame up = frame({1, 0, 0}, 1.0f);
  expect_near3(solve({up, up, up}, 0.25, 0.25, false, {0.6f, 0.8f, 0.0f}, false), {0.6f, 0.8f, 0});
  // A negative sign mirrors the bitangent, so the second coefficient flips.
  const TangentFrame mirrored = frame({1, 0, 0}, -1.0f);
  expect_near3(solve({mirrored, mirrored, mirrored}, 0.25, 0.25, false, {0.6f, 0.8f, 0.0f}, false),
               {0.6f, -0.8f, 0});

  // T = (1, 0, 0.5) and N = +z are not orthogonal; B = N x T = (0, 1, 0).
  // Cramer's rule recovers the coefficients that built h, where a projection
  // onto the axes would not.
  const double c0 = 0.3, c1 = 0.2, c2 = 0.5;
  const std::array<float, 3> h = {static_cast<float>(c0), static_cast<float>(c1),
                                  static_cast<float>(c0 * 0.5 + c2)};
  const TangentFrame skew = frame({1.0f, 0.0f, 0.5f}, 1.0f);
  const double len = std::sqrt(c0 * c0 + c1 * c1 + c2 * c2);
  expect_near3(solve({skew, skew, skew}, 0.1, 0.2, false, h, false), {c0 / len, c1 / len, c2 / len},
               1e-6);

  // Corner 0 has sign +1, corners 1 and 2 sign -1. At the second corner the
  // per-fragment rule still takes corner 0's sign, the per-vertex rule takes
  // the second corner's own bitangent.
  const std::array<TangentFrame, 3> mixed = {up, mirrored, mirrored};
  expect_near3(solve(mixed, 1.0, 0.0, false, {0.0f, 0.6f, 0.8f}, false), {0, 0.6, 0.8});
  expect_near3(solve(mixed, 1.0, 0.0, true, {0.0f, 0.6f, 0.8f}, false), {0, -0.6, 0.8});
}

TEST(TangentSolve, FallbackFrames) {
  const std::array<float, 3> h = {0.6f, 0.8f, 0.0f};
  const TangentFrame up = frame({1, 0, 0}, 1.0f);
  // Per-vertex bitangents that cancel (signs +1 and -1 blended half and
  // half): the determinant is 0, the orthonormalised frame with corner 0's
  // sign answers instead.
  expect_near3(solve({up, frame({1, 0, 0}, -1.0f), up}, 0.5, 0.0, true, h, true), {0.6f, 0.8f, 0});
  // Tangent along the normal, a zero frame, and a high normal of zero length
  // leave no direction: the flat normal.
  const std::array<double, 3> flat = {0.0, 0.0, 1.0};
  const TangentFrame parallel = frame({0, 0, 1}, 1.0f);
  EXPECT_EQ(solve({parallel, parallel, parallel}, 0.2, 0.3, false, h, true), flat);
  const TangentFrame zero = frame({0, 0, 0}, 1.0f, {0, 0, 0});
  EXPECT_EQ(solve({zero, zero, zero}, 0.2, 0.3, false, h, true), flat);
  EXPECT_EQ(solve({up, up, up}, 0.2, 0.3, false, {0, 0, 0}, true), flat);
}

TEST(TexelCodes, ColourRoundTripAndEncoding) {
  std::array<float, 3> sum = {0.0f, 0.0f, 0.0f};
  // 1e-9 vanishes in 0.5 + 1e-9 * 0.5; adding c directly would keep it.
  add_through_colour(sum, {1e-9, -1e-9, 1.0});
  EXPECT_EQ(sum, (std::array<float, 3>{0.0f, 0.0f, 1.0f}));
  add_through_colour(sum, {0.25, -0.5, 0.0});
  EXPECT_EQ(sum, (std::array<float, 3>{0.25f, -0.5f, 1.0f}));

  Codes codes = {1, 2, 3};
  ASSERT_TRUE(texel_normal_codes({0.0f, 0.0f, 4.0f}, codes.data()));
  EXPECT_EQ(codes, kFlat);
  // x = -0.6 -> 0.2 -> 13107. z = 0.8 -> 0.9 in float (0.899999976) gives
  // 58981.498 -> 58981; a 64-bit colour would give 58981.5 -> 58982.
  ASSERT_TRUE(texel_normal_codes({-3.0f, 0.0f, 4.0f}, codes.data()));
  EXPECT_EQ(codes, (Codes{13107, 32768, 58981}));

  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  for (const std::array<float, 3>& bad :
       {std::array<float, 3>{0, 0, 0}, std::array<float, 3>{nan, 0, 1}, {inf, 0, 1}}) {
    EXPECT_FALSE(texel_normal_codes(bad, codes.data()));
  }
  EXPECT_EQ(codes, (Codes{13107, 32768, 58981}));  // untouched
}

// ---- whole resolves over small scenes ------------------------------------------

NormalBakeSettings small_settings(std::int32_t size, std::int32_t aa) {
  NormalBakeSettings s;
  s.width = size;
  s.height = size;
  s.aa = aa;
  s.relative_scale = false;
  return s;
}

NormalBakeResult bake(const Mesh& low, const Mesh& high, const NormalBakeSettings& s,
                      int threads = 1, std::int32_t band_rows = 0,
                      const BandFinished& band_finished = {}) {
  const LowPrep prep = LowPrep::build(low, {}, low_prep_settings_of(s));
  const CpuTracer tracer(high, {}, CpuTracerOptions{}, threads);
  ResolveOptions options;
  options.band_rows = band_rows;
  options.distances = ray_distances(high, s.front, s.rear, s.relative_scale);
  return resolve_normals(prep, high, tracer, s, options, WorkerPool(threads), band_finished);
}

Codes codes_at(const NormalBakeResult& r, std::size_t i) {
  return {r.normal[i * 3], r.normal[i * 3 + 1], r.normal[i * 3 + 2]};
}

// Every counter of a result, in declaration order: samples covered, rays,
// hits, invalid ray and hit normals, degenerate frames, texels covered,
// outside, centre covered, valid and opaque, stacked samples.
U64s counts(const NormalBakeResult& r) {
  const NormalBakeCounters& k = r.counters;
  return U64s({k.samples_covered, k.rays, k.hits, k.invalid_ray_normals, k.invalid_hit_normals,
               k.degenerate_frames, k.texels_covered, k.texels_outside, k.texels_centre_covered,
               k.texels_valid, k.texels_opaque, k.stacked_skipped});
}

Mesh high_at(float z, std::optional<std::array<float, 3>> normal = {}) {
  Mesh high;
  PlaneSpec p = square(z, 1.5f);
  p.normal = normal;
  add_plane(high, p);
  return high;
}

TEST(Resolve, DirectXDiffersOnlyInTheSecondChannel) {
  const Mesh high = high_at(0.004f, std::array<float, 3>{0.3f, 0.4f, std::sqrt(0.75f)});
  NormalBakeSettings dx = small_settings(4, 2);
  dx.normal_format = 1;
  const NormalBakeResult a = bake(unit_low_plane(), high, small_settings(4, 2));
  const NormalBakeResult b = bake(unit_low_plane(), high, dx);
  for (std::size_t i = 0; i < 16; ++i) {
    // x = 0.3 -> 0.65 and y = 0.4 -> 0.7 of the range in OpenGL.
    EXPECT_NEAR(a.normal[i * 3], 0.65 * 65535.0, 2.0);
    EXPECT_NEAR(a.normal[i * 3 + 1], 0.7 * 65535.0, 2.0);
    EXPECT_EQ(std::pair(a.normal[i * 3], a.normal[i * 3 + 2]),
              std::pair(b.normal[i * 3], b.normal[i * 3 + 2]));
    EXPECT_NEAR(b.normal[i * 3 + 1], 65535 - a.normal[i * 3 + 1], 1);
  }
  EXPECT_EQ(a.opacity, b.opacity);
  EXPECT_EQ(a.normal_valid, b.normal_valid);
}

TEST(Resolve, DistanceWindowIsOpenAtBothEnds) {
  // One texel: its single ray starts at (0.5, 0.5) where every barycentric
  // blend is exact, so the high plane's height is the hit's exact distance.
  NormalBakeSettings s = small_settings(1, 1);
  s.front = 0.01f;
  s.rear = 0.02f;
  const auto opacity_with_plane_at = [&](float z) {
    Mesh high;
    PlaneSpec p;
    p.z = z;
    add_plane(high, p);
    return bake(unit_low_plane(), high, s).opacity[0];
  };
  EXPECT_EQ(opacity_with_plane_at(0.01f), 0);
  EXPECT_EQ(opacity_with_plane_at(std::nextafter(0.01f, 0.0f)), 65535);
  EXPECT_EQ(opacity_with_plane_at(-0.02f), 0);
  EXPECT_EQ(opacity_with_plane_at(-0.0199f), 65535);
  EXPECT_EQ(opacity_with_plane_at(0.0f), 65535);
}

TEST(Resolve, AntiAliasedBorderTexelGetsOpacityButNoNormal) {
  // The low plane covers u in [0, 0.53]: texel column 5 of 10 spans
  // [0.5, 0.6] with its centre at 0.55 outside, its first sub-sample column
  // (u = 0.5125) inside.
  Mesh low;
  PlaneSpec p;
  p.x1 = 0.53f;
  p.u1 = 0.53;
  add_plane(low, p);
  const NormalBakeResult r = bake(low, high_at(0.004f), small_settings(10, 4));
  // Per texel of columns 4, 5, 6: opacity, valid, centre covered, outside.
  const auto state = [&](std::size_t i) {
    return std::tuple(r.opacity[i], r.normal_valid[i], r.centre_covered[i], r.outside[i]);
  };
  using State = decltype(state(0));
  for (std::size_t row = 0; row < 100; row += 10) {
    EXPECT_EQ(state(row + 4), State(65535, 1, 1, 0)) << row;
    EXPECT_EQ(state(row + 5), State(65535, 0, 0, 0)) << row;
    EXPECT_EQ(state(row + 6), State(0, 0, 0, 1)) << row;
    EXPECT_EQ(codes_at(r, row + 5), (Codes{0, 0, 0}));
  }
  // 21 of 40 sample columns lie on the plane (u = 0.5125 is the last).
  EXPECT_EQ(counts(r), (U64s{840, 840, 840, 0, 0, 0, 60, 40, 50, 50, 60, 0}));
}

TEST(Resolve, StackedSamplesTraceOnceAndCountTheOthers) {
  // Plane B (UVs on the left half) lies over plane A (the whole square) in
  // UV space. Its triangles have the higher indices and own the left half.
  // Left-half samples on A's diagonal (x + y = 7) touch A's triangles only on
  // their shared edge, so they are not stacked: 32 - 4 = 28.
  Mesh low = unit_low_plane();
  PlaneSpec b;
  b.z = 0.5f;
  b.u1 = 0.5;
  add_plane(low, b);
  NormalBakeSettings s = small_settings(8, 1);
  s.uv_snap_bits = -1;
  const NormalBakeResult r = bake(low, high_at(0.004f), s);
  // Plane B lies at z = 0.5, far from the high plane: its left half misses.
  EXPECT_EQ(counts(r), (U64s{64, 64, 32, 0, 0, 0, 64, 0, 64, 32, 32, 28}));
  EXPECT_EQ((std::array{r.opacity[0], r.opacity[7]}), (std::array<std::uint16_t, 2>{0, 65535}));
}

TEST(Resolve, BandsReportTheirRowsAndCancelBetweenThem) {
  const Mesh high = high_at(0.004f);
  std::vector<std::array<std::int32_t, 4>> regions;
  std::size_t cancel_at = 0;
  const auto record = [&](const TexelRegion& region, const NormalBakeResult& partial) {
    regions.push_back({region.x, region.y, region.w, region.h});
    // The band's last row is final when the band is reported.
    EXPECT_EQ(partial.normal_valid[static_cast<std::size_t>((region.y + region.h - 1) * 8 + 7)], 1);
    if (regions.size() == cancel_at) {
      throw Cancelled();
    }
  };
  bake(unit_low_plane(), high, small_settings(8, 1), 1, 3, record);
  EXPECT_EQ(regions, (decltype(regions){{0, 0, 8, 3}, {0, 3, 8, 3}, {0, 6, 8, 2}}));

  regions.clear();
  cancel_at = 2;
  EXPECT_THROW(bake(unit_low_plane(), high, small_settings(8, 1), 1, 3, record), Cancelled);
  EXPECT_EQ(regions.size(), 2u);
}

void expect_same(const NormalBakeResult& a, const NormalBakeResult& b, const char* what) {
  EXPECT_EQ(std::tie(a.normal, a.opacity, a.normal_valid, a.outside, a.centre_covered),
            std::tie(b.normal, b.opacity, b.normal_valid, b.outside, b.centre_covered))
      << what;
  EXPECT_EQ(counts(a), counts(b)) << what;
}

TEST(Resolve, SameCodesOnAnyThreadCountBandSizeAndRefineCache) {
  const Mesh low = test::uv_sphere(24, 12, 1.0f, 0.0f);
  const Mesh high = test::uv_sphere(96, 48, 1.0f, 0.01f);
  NormalBakeSettings s;
  s.width = 48;
  s.height = 40;
  s.aa = 2;
  const NormalBakeResult reference = bake(low, high, s, 1);
  ASSERT_GT(reference.counters.texels_valid, 1000u);
  // The bumps must show: not every texel is the flat code.
  std::size_t bent = 0;
  for (std::size_t i = 0; i < reference.normal_valid.size(); ++i) {
    bent += reference.normal_valid[i] && reference.normal[i * 3 + 2] < 65400 ? 1 : 0;
  }
  EXPECT_GT(bent, 100u);

  expect_same(reference, bake(low, high, s, 2), "two threads");
  expect_same(reference, bake(low, high, s, 2, 1), "bands of one row");
  expect_same(reference, bake(low, high, s, 1, 7), "bands of seven rows");
  expect_same(reference, bake(low, high, s, 2, 40), "one band");
  test::ScopedEnv off("KV_TRACE_REFINE_CACHE", "off");
  expect_same(reference, bake(low, high, s, 2), "refine cache off");
}

// Forwards to another tracer and keeps, for every batch, which of its slots
// held a real ray (a distance window) rather than group filler.
class RecordingTracer final : public Tracer {
 public:
  explicit RecordingTracer(const Tracer& inner) : inner_(inner) {}
  std::string description() const override { return inner_.description(); }
  RayHit trace(const RayQuery& query) const override { return inner_.trace(query); }
  bool runs_on_gpu() const override { return false; }
  void trace_batch(const RayQuery* queries, RayHit* hits, std::uint64_t count,
                   const WorkerPool& pool) const override {
    std::vector<bool> real;
    for (std::uint64_t i = 0; i < count; ++i) {
      real.push_back(queries[i].t_max > 0.0f);
    }
    {
      const std::lock_guard guard(mutex_);
      batches_.push_back(std::move(real));
    }
    inner_.trace_batch(queries, hits, count, pool);
  }
  bool check_known_hit(const RayQuery& query, RayHit& hit) const override {
    return inner_.check_known_hit(query, hit);
  }
  bool has_name_groups() const override { return inner_.has_name_groups(); }
  GpuTraceStatistics gpu_statistics() const override { return {}; }

  std::vector<std::vector<bool>> batches() const { return batches_; }

 private:
  const Tracer& inner_;
  mutable std::mutex mutex_;
  mutable std::vector<std::vector<bool>> batches_;
};

TEST(Resolve, EveryRowStartsATraceGroupOfItsOwn) {
  // Rows of 13 and of 20 sub-samples: neither fills whole groups of 8, so each
  // row's rays are followed by filler up to the next multiple of 8.
  for (const auto& [size, aa, row_slots] : {std::tuple(13, 1, 16), std::tuple(5, 2, 24)}) {
    const NormalBakeSettings s = small_settings(size, aa);
    const Mesh low = unit_low_plane();
    const Mesh high = high_at(0.004f, std::array<float, 3>{0.3f, 0.4f, std::sqrt(0.75f)});
    const LowPrep prep = LowPrep::build(low, {}, low_prep_settings_of(s));
    const CpuTracer tracer(high, {}, CpuTracerOptions{}, 2);
    ResolveOptions options;
    options.distances = ray_distances(high, s.front, s.rear, s.relative_scale);
    const std::uint64_t row_samples = static_cast<std::uint64_t>(size * aa * aa);
    std::optional<NormalBakeResult> reference;
    for (const auto& [threads, band_rows] : {std::pair(1, 1), std::pair(2, 3), std::pair(2, 0)}) {
      const RecordingTracer recorder(tracer);
      options.band_rows = band_rows;
      const NormalBakeResult r =
          resolve_normals(prep, high, recorder, s, options, WorkerPool(threads));
      EXPECT_EQ(r.counters.rays, row_samples * static_cast<std::uint64_t>(size)) << size;
      std::uint64_t slots = 0;
      for (const std::vector<bool>& batch : recorder.batches()) {
        ASSERT_EQ(batch.size() % static_cast<std::size_t>(row_slots), 0u) << size;
        for (std::size_t i = 0; i < batch.size(); ++i) {
          ASSERT_EQ(batch[i], i % static_cast<std::size_t>(row_slots) < row_samples) << i;
        }
        slots += batch.size();
      }
      EXPECT_EQ(slots, static_cast<std::uint64_t>(row_slots * size)) << size;
      if (reference) {
        expect_same(*reference, r, "another band size");
      } else {
        reference = r;
        EXPECT_EQ(r.normal_valid, std::vector<std::uint8_t>(r.normal_valid.size(), 1));
      }
    }
  }
}

// ---- whole bakes -----------------------------------------------------------------

// A high plane at height z whose normals lean towards +x (0.6 -> 0.8 of the
// code range), so a resolved Normal differs from the flat one.
PlaneSpec tilted_plane(float z, bool facing_up = true, std::uint32_t object = 0) {
  PlaneSpec p = square(z, 1.5f);
  p.facing_up = facing_up;
  p.normal = std::array<float, 3>{0.6f, 0.0f, 0.8f};
  p.object = object;
  return p;
}

// Every texel holds a Normal: the flat code, or (flat false) the tilted one.
void expect_all_flat(const NormalBakeRun& run, bool flat, const char* what) {
  const NormalBakeResult& r = run.result;
  for (std::size_t i = 0; i < r.normal_valid.size(); ++i) {
    ASSERT_EQ(r.normal_valid[i], 1) << what << " texel " << i;
    if (flat) {
      EXPECT_EQ(codes_at(r, i), kFlat) << what << " texel " << i;
    } else {
      EXPECT_NEAR(r.normal[i * 3], 0.8 * 65535.0, 2.0) << what << " texel " << i;
    }
  }
}

TEST(NormalBake, BackfaceAndNameSettingsReachTheRays) {
  // Nearer to the ray origin: a tilted plane (clockwise, then
  // counter-clockwise); behind it a counter-clockwise flat one.
  Mesh high;
  add_plane(high, tilted_plane(0.002f, false));
  add_plane(high, square(-0.002f, 1.5f));
  NormalBakeSettings s = small_settings(4, 1);
  const NormalBakeRun skipping = bake_normal_map(unit_low_plane(), high, s, 1);
  expect_all_flat(skipping, true, "ignore backface");
  EXPECT_EQ(skipping.result.counters.hits, 16u);
  s.ignore_backface = false;
  expect_all_flat(bake_normal_map(unit_low_plane(), high, s, 1), false, "keep backface");

  Mesh low = unit_low_plane();
  low.objects = {"panel_low"};
  Mesh named;
  add_plane(named, tilted_plane(0.002f, true, 0));
  add_plane(named, square(-0.002f, 1.5f, true, 1));
  named.objects = {"other_high", "panel_high"};
  s = small_settings(4, 2);
  expect_all_flat(bake_normal_map(low, named, s, 1), false, "match always");
  s.match_by_name = true;
  const NormalBakeRun by_name = bake_normal_map(low, named, s, 1);
  expect_all_flat(by_name, true, "match by name");
  EXPECT_EQ(std::pair(by_name.unmatched_low_objects, by_name.coverage.filled), std::pair(0ul, 0ul));

  // A low object without a partner: its rays pass every high triangle, and
  // the miss fill gives its texels the flat normal.
  low.objects = {"lonely_low"};
  const NormalBakeRun lonely = bake_normal_map(low, named, s, 1);
  const MissFill& fill = lonely.coverage;
  EXPECT_EQ((U64s{lonely.unmatched_low_objects, lonely.result.counters.hits, fill.texels, fill.hits,
                  fill.filled, lonely.texels_valid, lonely.result.counters.texels_opaque}),
            (U64s{1, 0, 16, 0, 16, 16, 0}));
  expect_all_flat(lonely, true, "miss fill");
}

TEST(NormalBake, NameGroupKeysDropSuffixesAndFollowBlocks) {
  Mesh low;
  low.objects = {"a_low", "b", "c_low"};
  low.blocks = {"body_low"};
  low.object_blocks = {0, 0, 0};
  Mesh high;
  high.objects = {"b", "a_high", "z_high"};
  high.triangles.resize(3);
  for (std::uint32_t t = 0; t < 3; ++t) {
    high.triangles[t].object = 2 - t;  // "z_high", "a_high", "b"
  }
  NormalBakeSettings s;
  s.match_by_name = true;
  const NameGroups names = match_name_groups(low, high, s);
  ASSERT_EQ(std::pair(names.low_objects.size(), names.high_triangles.size()), std::pair(3ul, 3ul));
  EXPECT_EQ(names.high_triangles[1], names.low_objects[0]);  // a_high ~ a_low
  EXPECT_EQ(names.high_triangles[2], names.low_objects[1]);  // b ~ b
  EXPECT_NE(names.high_triangles[0], names.low_objects[2]);  // z_high !~ c_low
  EXPECT_NE(names.low_objects[0], names.low_objects[1]);
  EXPECT_EQ(names.unmatched_low_objects, 1u);

  // --match objects: the low mesh's block "body_low" keys all three objects;
  // the high mesh has no blocks and keeps its object names.
  high.objects = {"x_high", "body_high", "y"};
  s.match_objects = true;
  const NameGroups blocks = match_name_groups(low, high, s);
  EXPECT_EQ(blocks.low_objects[0], blocks.low_objects[2]);
  EXPECT_EQ(blocks.high_triangles[1], blocks.low_objects[0]);
  EXPECT_NE(blocks.high_triangles[0], blocks.low_objects[0]);
  EXPECT_EQ(blocks.unmatched_low_objects, 0u);
}

TEST(NormalBake, MissFillLeavesTexelsOutsideTheIslands) {
  // Texels whose centre lies outside the islands are left to padding.
  NormalBakeResult r;
  r.width = 3;
  r.height = 1;
  r.normal = {1, 2, 3, 0, 0, 0, 0, 0, 0};
  r.normal_valid = {1, 0, 0};
  r.centre_covered = {1, 1, 0};
  r.opacity = {65535, 0, 65535};
  const MissFill fill = fill_normal_misses(r);
  EXPECT_EQ((U64s{fill.texels, fill.hits, fill.filled}), (U64s{2, 1, 1}));
  EXPECT_EQ(r.normal, (std::vector<std::uint16_t>{1, 2, 3, 32768, 32768, 65535, 0, 0, 0}));
  EXPECT_EQ(r.normal_valid, (std::vector<std::uint8_t>{1, 1, 0}));
  EXPECT_EQ(r.opacity, (std::vector<std::uint16_t>{65535, 0, 65535}));
  r.centre_covered.pop_back();
  EXPECT_EQ(test::message_of([&] { fill_normal_misses(r); }),
            "miss fill: the Normal result's arrays do not match its size");
}

TEST(NormalBake, CallbacksPhasesRegionsAndRunFigures) {
  Mesh high;
  add_plane(high, square(0.004f, 1.5f));  // 3 units wide
  NormalBakeSettings s = small_settings(6, 1);
  s.relative_scale = true;
  s.band_samples = 12;  // two rows per band
  std::vector<std::string> events;
  std::vector<std::array<std::int32_t, 4>> regions;
  NormalBakeCallbacks callbacks;
  callbacks.phase_started = [&](std::string_view phase) { events.emplace_back(phase); };
  callbacks.tracing_started = [&](std::string_view backend) {
    events.push_back("tracing " + std::string(backend.substr(0, 7)));
  };
  callbacks.region_finished = [&](const TexelRegion& r, const NormalBakeResult&) {
    regions.push_back({r.x, r.y, r.w, r.h});
  };
  const NormalBakeRun run = bake_normal_map(unit_low_plane(), high, s, 2, callbacks);
  EXPECT_EQ(events, (std::vector<std::string>{"bvh", "bake", "tracing embree "}));
  std::sort(regions.begin(), regions.end());  // each band once, in any order
  EXPECT_EQ(regions, (decltype(regions){{0, 0, 6, 2}, {0, 2, 6, 2}, {0, 4, 6, 2}}));
  EXPECT_EQ(run.backend.rfind("embree ", 0), 0u);
  EXPECT_EQ(std::tuple(run.scale, run.front, run.rear),
            std::tuple(3.0, 0.01f * 3.0f, 0.01f * 3.0f));
  EXPECT_EQ((U64s{run.low_triangles, run.high_triangles, run.memory.band_rows,
                  run.result.counters.rays, run.zero_uv_area_triangles}),
            (U64s{2, 2, 2, 36, 0}));
  EXPECT_GE(run.seconds.trace, run.seconds.trace_rays);
  expect_all_flat(run, true, "relative scale");
}

TEST(NormalBake, TightMemoryBudgetShrinksBandsNotResults) {
  const Mesh low = test::uv_sphere(16, 8, 1.0f, 0.0f);
  const Mesh high = test::uv_sphere(64, 32, 1.0f, 0.01f);
  NormalBakeSettings s;
  s.width = 32;
  s.height = 32;
  s.aa = 4;
  const NormalBakeRun roomy = bake_normal_map(low, high, s, 2);
  EXPECT_TRUE(roomy.memory.notices.empty());
  EXPECT_EQ(roomy.memory.band_rows, 32u);

  s.memory_budget_mb = 1;
  s.memory_budget_given = true;
  std::vector<BakeMemoryNotice> notices;
  NormalBakeCallbacks callbacks;
  callbacks.low_memory = [&](const BakeMemoryNotice& n) { notices.push_back(n); };
  const NormalBakeRun tight = bake_normal_map(low, high, s, 1, callbacks);
  ASSERT_EQ(notices.size(), 1u);
  EXPECT_EQ(std::tuple(notices[0].stage, notices[0].reason, notices[0].from, notices[0].to),
            std::tuple("bake", "memory_budget", 32ul, tight.memory.band_rows));
  EXPECT_LT(tight.memory.band_rows, 32u);
  EXPECT_EQ(std::pair(tight.memory.budget_mb, tight.memory.notices.size()), std::pair(1ul, 1ul));
  expect_same(tight.result, roomy.result, "tight budget");
  EXPECT_EQ(tight.coverage.filled, roomy.coverage.filled);
  EXPECT_GT(roomy.result.counters.hits, 5000u);
}

TEST(NormalBake, InvalidInputsFailBeforeAnyPhase) {
  bool phase_seen = false;
  NormalBakeCallbacks callbacks;
  callbacks.phase_started = [&](std::string_view) { phase_seen = true; };
  const Mesh high = high_at(0.0f);
  EXPECT_EQ(
      test::message_of([&] { bake_normal_map(Mesh{}, high, small_settings(4, 1), 1, callbacks); }),
      "low mesh has no triangles");
  EXPECT_FALSE(phase_seen);
}

}  // namespace
}  // namespace kv
