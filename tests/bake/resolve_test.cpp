#include "bake/normal_resolve.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>

#include "bake/bake_scene_meshes.h"
#include "bake/cpu_tracer.h"
#include "bake/low_prep.h"
#include "bake/ray_setup.h"
#include "core/error.h"
#include "support/test_support.h"

namespace kv {
namespace {

using test::add_plane;
using test::high_plane;
using test::PlaneSpec;
using test::unit_low_plane;

TangentFrame frame(std::array<float, 3> t, float sign, std::array<float, 3> n) {
  TangentFrame f;
  f.tangent = t;
  f.sign = sign;
  f.normal = n;
  return f;
}

std::array<TangentFrame, 3> same_frames(const TangentFrame& f) {
  return {f, f, f};
}

void expect_near3(const std::array<double, 3>& got, const std::array<double, 3>& want,
                  double tolerance = 1e-7) {
  for (std::size_t k = 0; k < 3; ++k) {
    EXPECT_NEAR(got[k], want[k], tolerance) << "component " << k;
  }
}

// ---- the tangent-space solve -----------------------------------------------

TEST(TangentSolve, OrthonormalFrameAndSign) {
  const auto up = same_frames(frame({1, 0, 0}, 1.0f, {0, 0, 1}));
  bool fallback = true;
  expect_near3(tangent_space_normal(up, 0.25, 0.25, false, {0.6f, 0.8f, 0.0f}, &fallback),
               {0.6f, 0.8f, 0.0});
  EXPECT_FALSE(fallback);
  expect_near3(tangent_space_normal(up, 0.25, 0.25, false, {0.0f, 0.0f, 1.0f}, &fallback),
               {0, 0, 1});

  // A negative sign mirrors the bitangent, so the second coefficient flips.
  const auto mirrored = same_frames(frame({1, 0, 0}, -1.0f, {0, 0, 1}));
  expect_near3(tangent_space_normal(mirrored, 0.25, 0.25, false, {0.6f, 0.8f, 0.0f}, &fallback),
               {0.6f, -0.8f, 0.0});
  EXPECT_FALSE(fallback);
}

TEST(TangentSolve, SkewedFrameIsSolvedExactly) {
  // T and N not orthogonal: Cramer's rule recovers the coefficients that
  // built h, where a projection onto the axes would not.
  const std::array<double, 3> t = {1.0, 0.0, 0.5};
  const std::array<double, 3> n = {0.0, 0.0, 1.0};
  const std::array<double, 3> b = {n[1] * t[2] - n[2] * t[1], n[2] * t[0] - n[0] * t[2],
                                   n[0] * t[1] - n[1] * t[0]};  // N x T
  const double c0 = 0.3, c1 = 0.2, c2 = 0.5;
  std::array<float, 3> h{};
  for (std::size_t k = 0; k < 3; ++k) {
    h[k] = static_cast<float>(c0 * t[k] + c1 * b[k] + c2 * n[k]);
  }
  const auto frames = same_frames(frame({1.0f, 0.0f, 0.5f}, 1.0f, {0, 0, 1}));
  bool fallback = true;
  const std::array<double, 3> c = tangent_space_normal(frames, 0.1, 0.2, false, h, &fallback);
  const double len = std::sqrt(c0 * c0 + c1 * c1 + c2 * c2);
  expect_near3(c, {c0 / len, c1 / len, c2 / len}, 1e-6);
  EXPECT_FALSE(fallback);
}

TEST(TangentSolve, PerVertexBitangentsBlendTheCornersOwnSigns) {
  // Corner 0 has sign +1, corners 1 and 2 sign -1. At the second corner the
  // per-fragment rule still takes corner 0's sign, the per-vertex rule takes
  // the second corner's own bitangent.
  const std::array<TangentFrame, 3> frames = {frame({1, 0, 0}, 1.0f, {0, 0, 1}),
                                              frame({1, 0, 0}, -1.0f, {0, 0, 1}),
                                              frame({1, 0, 0}, -1.0f, {0, 0, 1})};
  const std::array<float, 3> h = {0.0f, 0.6f, 0.8f};
  bool fallback = true;
  expect_near3(tangent_space_normal(frames, 1.0, 0.0, false, h, &fallback), {0, 0.6, 0.8});
  EXPECT_FALSE(fallback);
  expect_near3(tangent_space_normal(frames, 1.0, 0.0, true, h, &fallback), {0, -0.6, 0.8});
  EXPECT_FALSE(fallback);
}

TEST(TangentSolve, FallbackFrames) {
  const std::array<float, 3> h = {0.6f, 0.8f, 0.0f};
  bool fallback = false;
  // Per-vertex bitangents that cancel (signs +1 and -1 blended half and
  // half): the determinant is 0, the orthonormalised frame (with corner 0's
  // sign) answers instead.
  const std::array<TangentFrame, 3> cancelling = {frame({1, 0, 0}, 1.0f, {0, 0, 1}),
                                                  frame({1, 0, 0}, -1.0f, {0, 0, 1}),
                                                  frame({1, 0, 0}, 1.0f, {0, 0, 1})};
  expect_near3(tangent_space_normal(cancelling, 0.5, 0.0, true, h, &fallback), {0.6f, 0.8f, 0.0});
  EXPECT_TRUE(fallback);

  // Tangent along the normal: no frame can be formed, the flat normal remains.
  fallback = false;
  const auto parallel = same_frames(frame({0, 0, 1}, 1.0f, {0, 0, 1}));
  EXPECT_EQ(tangent_space_normal(parallel, 0.2, 0.3, false, h, &fallback),
            (std::array<double, 3>{0.0, 0.0, 1.0}));
  EXPECT_TRUE(fallback);

  // A zero frame (tangent and normal 0).
  fallback = false;
  const auto zero = same_frames(frame({0, 0, 0}, 1.0f, {0, 0, 0}));
  EXPECT_EQ(tangent_space_normal(zero, 0.2, 0.3, false, h, &fallback),
            (std::array<double, 3>{0.0, 0.0, 1.0}));
  EXPECT_TRUE(fallback);

  // A high normal of zero length has no direction: fallback, then flat.
  fallback = false;
  const auto up = same_frames(frame({1, 0, 0}, 1.0f, {0, 0, 1}));
  EXPECT_EQ(tangent_space_normal(up, 0.2, 0.3, false, {0.0f, 0.0f, 0.0f}, &fallback),
            (std::array<double, 3>{0.0, 0.0, 1.0}));
  EXPECT_TRUE(fallback);
}

// ---- the colour round trip and the texel codes -------------------------------

TEST(TexelCodes, ColourRoundTripQuantisesLikeTheColourForm) {
  std::array<float, 3> sum = {0.0f, 0.0f, 0.0f};
  // 1e-9 vanishes in 0.5 + 1e-9 * 0.5; adding c directly would keep it.
  add_through_colour(sum, {1e-9, -1e-9, 1.0});
  EXPECT_EQ(sum[0], 0.0f);
  EXPECT_EQ(sum[1], 0.0f);
  EXPECT_EQ(sum[2], 1.0f);
  add_through_colour(sum, {0.25, -0.5, 0.0});
  EXPECT_EQ(sum[0], 0.25f);
  EXPECT_EQ(sum[1], -0.5f);
  EXPECT_EQ(sum[2], 1.0f);
}

TEST(TexelCodes, NormalisedSumEncodedPerChannel) {
  std::uint16_t codes[3] = {1, 2, 3};
  ASSERT_TRUE(texel_normal_codes({0.0f, 0.0f, 4.0f}, codes));
  EXPECT_EQ(codes[0], 32768);
  EXPECT_EQ(codes[1], 32768);
  EXPECT_EQ(codes[2], 65535);

  ASSERT_TRUE(texel_normal_codes({-3.0f, 0.0f, 4.0f}, codes));
  // x = -0.6 -> 0.2 -> 13107; z = 0.8 -> 0.9 -> 58981.5 rounded half up,
  // computed in float: (0.8f * 0.5f + 0.5f) is 0.9f.
  EXPECT_EQ(codes[0],
            static_cast<std::uint16_t>(std::floor(double(-0.6f * 0.5f + 0.5f) * 65535.0 + 0.5)));
  EXPECT_EQ(codes[1], 32768);
  EXPECT_EQ(codes[2],
            static_cast<std::uint16_t>(std::floor(double(0.8f * 0.5f + 0.5f) * 65535.0 + 0.5)));

  std::uint16_t untouched[3] = {7, 8, 9};
  EXPECT_FALSE(texel_normal_codes({0.0f, 0.0f, 0.0f}, untouched));
  EXPECT_FALSE(
      texel_normal_codes({std::numeric_limits<float>::quiet_NaN(), 0.0f, 1.0f}, untouched));
  EXPECT_FALSE(texel_normal_codes({std::numeric_limits<float>::infinity(), 0.0f, 1.0f}, untouched));
  EXPECT_EQ(untouched[0], 7);
  EXPECT_EQ(untouched[1], 8);
  EXPECT_EQ(untouched[2], 9);
}

TEST(BandRows, WholeRowsWithinTheSampleBudget) {
  EXPECT_EQ(band_rows_for(1048576, 2048, 2048, 4), 32);
  EXPECT_EQ(band_rows_for(1048576, 2048, 2048, 1), 512);
  EXPECT_EQ(band_rows_for(1048575, 2048, 2048, 4), 31);
  EXPECT_EQ(band_rows_for(1, 100, 50, 2), 1);          // at least one row
  EXPECT_EQ(band_rows_for(1u << 30, 100, 50, 2), 50);  // at most the image
  // A service may ask for huge bands; rays stay countable in 32 bits.
  EXPECT_EQ(band_rows_for(UINT64_MAX, 16384, 16384, 8), 2047);
}

// ---- ray setup ------------------------------------------------------------------

TEST(RaySetup, DistancesScaleWithTheHighMesh) {
  Mesh high;
  high.positions = {{-1.0f, 0.0f, 0.0f}, {2.0f, 0.5f, 0.25f}};
  EXPECT_EQ(mesh_extent(high), 3.0);
  const RayDistances scaled = ray_distances(high, 0.01f, 0.02f, true);
  EXPECT_EQ(scaled.scale, 3.0f);
  EXPECT_EQ(scaled.front, 0.01f * 3.0f);
  EXPECT_EQ(scaled.rear, 0.02f * 3.0f);
  EXPECT_EQ(scaled.t_max, 0.02f * 3.0f + 0.01f * 3.0f);
  const RayDistances absolute = ray_distances(high, 0.01f, 0.02f, false);
  EXPECT_EQ(absolute.scale, 1.0f);
  EXPECT_EQ(absolute.front, 0.01f);
  EXPECT_EQ(ray_distances(Mesh{}, 0.01f, 0.02f, true).t_max, 0.0f);
}

TEST(RaySetup, QueryFromTheLowSurface) {
  Mesh low;
  PlaneSpec p;
  p.z = 2.0f;
  p.normal = std::array<float, 3>{0.0f, 0.0f, 1.0f};
  p.object = 1;
  add_plane(low, p);
  const std::array<std::uint32_t, 2> groups = {5, 9};
  RaySetup setup;
  setup.low = &low;
  setup.distances = {1.0f, 0.5f, 0.25f, 0.75f};
  setup.object_groups = groups;
  setup.ignore_backface = false;
  RayQuery q;
  // Triangle 0 runs (0,0) (1,0) (1,1): weights 0.5 and 0.25 on the last two.
  ASSERT_TRUE(build_ray_query(setup, 0, 0.5, 0.25, q));
  EXPECT_EQ(q.surface_point, (std::array<float, 3>{0.75f, 0.25f, 2.0f}));
  EXPECT_EQ(q.surface_normal, (std::array<float, 3>{0.0f, 0.0f, 1.0f}));
  EXPECT_EQ(q.origin, (std::array<float, 3>{0.75f, 0.25f, 2.5f}));
  EXPECT_EQ(q.direction, (std::array<float, 3>{-0.0f, -0.0f, -1.0f}));
  EXPECT_EQ(q.t_max, 0.75f);
  EXPECT_EQ(q.front, 0.5f);
  EXPECT_EQ(q.rear, 0.25f);
  EXPECT_EQ(q.group, 9);
  EXPECT_EQ(q.ignore_backface, 0);

  // Averaged normals, when given, decide the axis; a zero one casts no ray.
  std::vector<std::array<float, 3>> averaged(6, {0.0f, 3.0f, 4.0f});
  setup.averaged_normals = averaged;
  setup.object_groups = {};
  ASSERT_TRUE(build_ray_query(setup, 0, 0.5, 0.25, q));
  EXPECT_FLOAT_EQ(q.surface_normal[1], 0.6f);
  EXPECT_FLOAT_EQ(q.surface_normal[2], 0.8f);
  EXPECT_EQ(q.group, -1);
  averaged.assign(6, {0.0f, 0.0f, 0.0f});
  EXPECT_FALSE(build_ray_query(setup, 0, 0.5, 0.25, q));
}

// ---- whole resolves over small scenes ------------------------------------------------

struct Baked {
  NormalBakeResult result;
};

NormalBakeSettings small_settings(std::int32_t size, std::int32_t aa) {
  NormalBakeSettings s;
  s.width = size;
  s.height = size;
  s.aa = aa;
  s.relative_scale = false;
  return s;
}

NormalBakeResult bake(const Mesh& low, const Mesh& high, const NormalBakeSettings& s,
                      int threads = 1, std::int32_t band_rows = 0) {
  const LowPrep prep = LowPrep::build(low, {}, s);
  const CpuTracer tracer(high, {}, CpuTracerOptions{}, threads);
  const WorkerPool pool(threads);
  ResolveOptions options;
  options.band_rows = band_rows;
  options.distances = ray_distances(high, s.front, s.rear, s.relative_scale);
  return resolve_normals(prep, high, tracer, s, options, pool);
}

std::array<std::uint16_t, 3> codes_at(const NormalBakeResult& r, std::int32_t x, std::int32_t y) {
  const std::size_t i =
      static_cast<std::size_t>(y) * static_cast<std::size_t>(r.width) + static_cast<std::size_t>(x);
  return {r.normal[i * 3], r.normal[i * 3 + 1], r.normal[i * 3 + 2]};
}

TEST(Resolve, FlatPlanesFacingTheSameWayGiveTheFlatCode) {
  Mesh high;
  add_plane(high, high_plane(0.004f));
  for (std::int32_t aa : {1, 4}) {
    const NormalBakeResult r = bake(unit_low_plane(), high, small_settings(8, aa));
    ASSERT_EQ(r.normal.size(), 8u * 8u * 3u);
    for (std::int32_t y = 0; y < 8; ++y) {
      for (std::int32_t x = 0; x < 8; ++x) {
        const std::size_t i = static_cast<std::size_t>(y * 8 + x);
        EXPECT_EQ(codes_at(r, x, y), (std::array<std::uint16_t, 3>{32768, 32768, 65535}))
            << x << "," << y << " aa " << aa;
        EXPECT_EQ(r.opacity[i], 65535);
        EXPECT_EQ(r.normal_valid[i], 1);
        EXPECT_EQ(r.outside[i], 0);
      }
    }
    const std::uint64_t samples = 64u * static_cast<std::uint64_t>(aa * aa);
    EXPECT_EQ(r.counters.samples_covered, samples);
    EXPECT_EQ(r.counters.rays, samples);
    EXPECT_EQ(r.counters.hits, samples);
    EXPECT_EQ(r.counters.texels_valid, 64u);
    EXPECT_EQ(r.counters.texels_opaque, 64u);
    EXPECT_EQ(r.counters.texels_outside, 0u);
    EXPECT_EQ(r.counters.degenerate_frames, 0u);
    EXPECT_EQ(r.counters.stacked_skipped, 0u);
  }
}

TEST(Resolve, DirectXDiffersOnlyInTheSecondChannel) {
  Mesh high;
  PlaneSpec tilted = high_plane(0.004f);
  const float z = std::sqrt(1.0f - 0.09f - 0.16f);
  tilted.normal = std::array<float, 3>{0.3f, 0.4f, z};
  add_plane(high, tilted);
  NormalBakeSettings gl = small_settings(4, 2);
  NormalBakeSettings dx = gl;
  dx.normal_format = 1;
  const NormalBakeResult a = bake(unit_low_plane(), high, gl);
  const NormalBakeResult b = bake(unit_low_plane(), high, dx);
  for (std::size_t i = 0; i < 16; ++i) {
    EXPECT_EQ(a.normal[i * 3], b.normal[i * 3]);
    EXPECT_EQ(a.normal[i * 3 + 2], b.normal[i * 3 + 2]);
    EXPECT_NE(a.normal[i * 3 + 1], b.normal[i * 3 + 1]);
    EXPECT_NEAR(static_cast<int>(b.normal[i * 3 + 1]),
                65535 - static_cast<int>(a.normal[i * 3 + 1]), 1);
    // y = 0.4 -> 0.7 of the range in OpenGL.
    EXPECT_NEAR(a.normal[i * 3 + 1], 0.7 * 65535.0, 2.0);
    EXPECT_NEAR(a.normal[i * 3], 0.65 * 65535.0, 2.0);
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
  auto opacity_with_plane_at = [&](float z) {
    Mesh high;
    PlaneSpec p = high_plane(z);
    p.x0 = p.y0 = 0.0f;
    p.x1 = p.y1 = 1.0f;
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
  Mesh high;
  add_plane(high, high_plane(0.004f));
  const NormalBakeResult r = bake(low, high, small_settings(10, 4));
  for (std::int32_t y = 0; y < 10; ++y) {
    const std::size_t border = static_cast<std::size_t>(y * 10 + 5);
    EXPECT_EQ(r.opacity[border], 65535) << y;
    EXPECT_EQ(r.normal_valid[border], 0) << y;
    EXPECT_EQ(r.centre_covered[border], 0) << y;
    EXPECT_EQ(r.outside[border], 0) << y;
    EXPECT_EQ(codes_at(r, 5, y), (std::array<std::uint16_t, 3>{0, 0, 0}));
    const std::size_t inside = static_cast<std::size_t>(y * 10 + 4);
    EXPECT_EQ(r.normal_valid[inside], 1);
    EXPECT_EQ(r.centre_covered[inside], 1);
    const std::size_t beyond = static_cast<std::size_t>(y * 10 + 6);
    EXPECT_EQ(r.outside[beyond], 1);
    EXPECT_EQ(r.opacity[beyond], 0);
  }
  EXPECT_EQ(r.counters.texels_outside, 40u);
  EXPECT_EQ(r.counters.texels_covered, 60u);
  EXPECT_EQ(r.counters.texels_centre_covered, 50u);
  EXPECT_EQ(r.counters.texels_valid, 50u);
  EXPECT_EQ(r.counters.texels_opaque, 60u);
}

TEST(Resolve, TexelsWhoseRaysAllMissGetNeitherOpacityNorNormal) {
  // The high plane ends at x = 0.5: the right half of the image misses.
  Mesh high;
  PlaneSpec p = high_plane(0.004f);
  p.x1 = 0.5f;
  add_plane(high, p);
  const NormalBakeResult r = bake(unit_low_plane(), high, small_settings(8, 2));
  for (std::int32_t y = 0; y < 8; ++y) {
    for (std::int32_t x = 0; x < 8; ++x) {
      const std::size_t i = static_cast<std::size_t>(y * 8 + x);
      EXPECT_EQ(r.opacity[i], x < 4 ? 65535 : 0) << x << "," << y;
      EXPECT_EQ(r.normal_valid[i], x < 4 ? 1 : 0) << x << "," << y;
      EXPECT_EQ(r.centre_covered[i], 1);
      EXPECT_EQ(r.outside[i], 0);
    }
  }
  EXPECT_EQ(r.counters.rays, 256u);
  EXPECT_EQ(r.counters.hits, 128u);
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
  b.object = 0;
  add_plane(low, b);
  Mesh high;
  add_plane(high, high_plane(0.004f));
  NormalBakeSettings s = small_settings(8, 1);
  s.uv_snap_bits = -1;
  const NormalBakeResult r = bake(low, high, s);
  EXPECT_EQ(r.counters.stacked_skipped, 28u);
  EXPECT_EQ(r.counters.samples_covered, 64u);
  EXPECT_EQ(r.counters.rays, 64u);
  // Plane B lies at z = 0.5, far from the high plane: its left half misses.
  EXPECT_EQ(r.counters.hits, 32u);
  EXPECT_EQ(r.opacity[0], 0);
  EXPECT_EQ(r.opacity[7], 65535);
}

TEST(Resolve, BandsReportTheirRowsAndCancelBetweenThem) {
  Mesh high;
  add_plane(high, high_plane(0.004f));
  const Mesh low = unit_low_plane();
  const NormalBakeSettings s = small_settings(8, 1);
  const LowPrep prep = LowPrep::build(low, {}, s);
  const CpuTracer tracer(high, {}, CpuTracerOptions{}, 1);
  const WorkerPool pool(1);
  ResolveOptions options;
  options.band_rows = 3;
  options.distances = ray_distances(high, s.front, s.rear, false);

  std::vector<TexelRegion> regions;
  auto record = [&](const TexelRegion& region, const NormalBakeResult& partial) {
    regions.push_back(region);
    // The band's last row is final when the band is reported.
    const std::size_t last = static_cast<std::size_t>((region.y + region.h - 1) * 8 + 7);
    EXPECT_EQ(partial.normal_valid[last], 1);
  };
  resolve_normals(prep, high, tracer, s, options, pool, record);
  ASSERT_EQ(regions.size(), 3u);  // 3 + 3 + 2 rows
  EXPECT_EQ(regions[0].y, 0);
  EXPECT_EQ(regions[1].y, 3);
  EXPECT_EQ(regions[2].y, 6);
  EXPECT_EQ(regions[2].h, 2);
  EXPECT_EQ(regions[2].w, 8);
  EXPECT_EQ(regions[2].x, 0);

  regions.clear();
  auto cancel_second = [&](const TexelRegion& region, const NormalBakeResult& partial) {
    record(region, partial);
    if (regions.size() == 2) {
      throw Cancelled();
    }
  };
  EXPECT_THROW(resolve_normals(prep, high, tracer, s, options, pool, cancel_second), Cancelled);
  EXPECT_EQ(regions.size(), 2u);
}

// ---- determinism ---------------------------------------------------------------------

void expect_same(const NormalBakeResult& a, const NormalBakeResult& b, const char* what) {
  EXPECT_EQ(a.normal, b.normal) << what;
  EXPECT_EQ(a.opacity, b.opacity) << what;
  EXPECT_EQ(a.normal_valid, b.normal_valid) << what;
  EXPECT_EQ(a.outside, b.outside) << what;
  EXPECT_EQ(a.centre_covered, b.centre_covered) << what;
  EXPECT_EQ(a.counters.rays, b.counters.rays) << what;
  EXPECT_EQ(a.counters.hits, b.counters.hits) << what;
  EXPECT_EQ(a.counters.degenerate_frames, b.counters.degenerate_frames) << what;
  EXPECT_EQ(a.counters.stacked_skipped, b.counters.stacked_skipped) << what;
  EXPECT_EQ(a.counters.texels_valid, b.counters.texels_valid) << what;
}

using test::ScopedEnv;

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
    if (reference.normal_valid[i] && reference.normal[i * 3 + 2] < 65400) {
      ++bent;
    }
  }
  EXPECT_GT(bent, 100u);

  expect_same(reference, bake(low, high, s, 2), "two threads");
  expect_same(reference, bake(low, high, s, 2, 1), "bands of one row");
  expect_same(reference, bake(low, high, s, 1, 7), "bands of seven rows");
  expect_same(reference, bake(low, high, s, 2, 40), "one band");
  {
    ScopedEnv off("KV_TRACE_REFINE_CACHE", "off");
    expect_same(reference, bake(low, high, s, 2), "refine cache off");
  }
}

}  // namespace
}  // namespace kv
