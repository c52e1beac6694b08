#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "core/error.h"
#include "support/bake_test_meshes.h"
#include "support/test_support.h"
#include "trace/cpu_tracer.h"

namespace kv {
namespace {

using test::add_plane;
using test::down_query;
using test::message_of;
using test::ScopedEnv;
using test::square;
using Hit = std::tuple<std::int32_t, float, float, float>;

Hit fields(const RayHit& h) {
  return {h.triangle, h.u, h.v, h.t};
}
std::tuple<float, float, float> fields(const RefinedHit& r) {
  return {r.u, r.v, r.t};
}

// Triangle (0,0,z) (1,0,z) (0,1,z) at every height; at (0.25, 0.25) every
// product of the hit point is exact, so the distance along the axis is z.
Mesh corner_triangles(std::initializer_list<float> heights) {
  Mesh mesh;
  for (const float z : heights) {
    test::add_triangle(mesh, {{{0, 0, z}, {1, 0, z}, {0, 1, z}}});
  }
  return mesh;
}

RayHit trace_once(std::initializer_list<float> heights, const RayQuery& q) {
  return CpuTracer(corner_triangles(heights), {}, {}, 1).trace(q);
}

TEST(TracerHits, PlaneAtTheRightDistanceAndTriangle) {
  Mesh mesh;
  add_plane(mesh, square(-0.002f));  // triangles 0, 1
  add_plane(mesh, square(0.003f));   // triangles 2, 3
  CpuTracer tracer(mesh, {}, {}, 1);

  // (0.25, -0.5) lies in the half y < x: corners (-1,-1), (1,-1), (1,1).
  EXPECT_EQ(fields(tracer.trace(down_query(0.25f, -0.5f, 0.01f, 0.01f))),
            Hit(2, 0.375f, 0.25f, static_cast<float>(double{0.01f} - double{0.003f})));
  EXPECT_EQ(tracer.trace(down_query(-0.5f, 0.25f, 0.01f, 0.01f)).triangle, 3);

  // Beside the squares, beyond t_max, and with an empty window: cleared misses.
  for (const RayQuery& q :
       {down_query(1.5f, 0.0f, 0.01f, 0.01f), down_query(0.1f, 0.0f, 0.001f, 0.001f),
        down_query(0.1f, 0.0f, 0.0f, 0.0f)}) {
    EXPECT_EQ(fields(tracer.trace(q)), Hit(-1, 0, 0, 0));
  }

  // The description names the Embree version as "embree X.Y.Z", nothing more.
  int version[3];
  char tail;
  EXPECT_EQ(std::sscanf(tracer.description().c_str(), "embree %d.%d.%d%c", &version[0], &version[1],
                        &version[2], &tail),
            3)
      << tracer.description();
  EXPECT_FALSE(tracer.runs_on_gpu());
  EXPECT_EQ(tracer.gpu_statistics(), (GpuTraceStatistics{0, 0, 0, 0, 0}));
}

TEST(TracerWindow, OpenAtBothEndsAndMeasuredAlongTheAxis) {
  const float step = 1.0f / 1024.0f;
  // Origin far above, so only the window along the axis decides.
  RayQuery q = down_query(0.25f, 0.25f, 0.25f, 0.25f);
  q.origin[2] = 1.0f;
  q.t_max = 2.0f;
  EXPECT_EQ(trace_once({0.25f}, q).triangle, -1);
  EXPECT_EQ(fields(trace_once({0.25f - step}, q)), Hit(0, 0.25f, 0.25f, 0.75f + step));
  EXPECT_EQ(trace_once({-0.25f}, q).triangle, -1);
  EXPECT_EQ(trace_once({-0.25f + step}, q).triangle, 0);
  // A refused candidate does not end the search: the one behind is hit.
  EXPECT_EQ(fields(trace_once({0.25f, 0.0f}, q)), Hit(1, 0.25f, 0.25f, 1.0f));
  // As the bakes build it: exactly front away is refused (t = 0), a little
  // nearer accepted; exactly rear behind (t = t_max) refused as well.
  const RayQuery bake = down_query(0.25f, 0.25f, 0.25f, 0.25f);
  EXPECT_EQ(trace_once({0.25f}, bake).triangle, -1);
  EXPECT_EQ(trace_once({0.25f - step}, bake).t, step);
  EXPECT_EQ(trace_once({-0.25f}, bake).triangle, -1);

  // A slanted ray reaches z = 0.2 at t = 0.5 and z = -0.2 at t = 1; the
  // window is measured along the axis, not the ray.
  const auto slanted = [](std::array<float, 3> point, std::array<float, 3> axis, float front,
                          float rear, float t_max) {
    RayQuery s = down_query(0, 0, front, rear);
    s.origin = {0.7f, 0.25f, 0.6f};
    s.direction = {-0.6f, 0.0f, -0.8f};
    s.surface_point = point;
    s.surface_normal = axis;
    s.t_max = t_max;
    return s;
  };
  const std::array<float, 3> point = {0.25f, 0.25f, 0.0f}, up = {0, 0, 1};
  EXPECT_EQ(trace_once({0.2f}, slanted(point, up, 0.25f, 0.1f, 2.0f)).triangle, 0);
  EXPECT_EQ(trace_once({0.2f}, slanted(point, up, 0.15f, 0.1f, 2.0f)).triangle, -1);
  EXPECT_EQ(trace_once({-0.2f}, slanted(point, up, 0.1f, 0.25f, 2.0f)).triangle, 0);
  EXPECT_EQ(trace_once({-0.2f}, slanted(point, up, 0.1f, 0.15f, 2.0f)).triangle, -1);
  // A tilted axis counts the x offset too: hit point (0.4, 0.25, 0.2) from
  // (0, 0, 0) along (0.6, 0, 0.8) is 0.24 + 0.16 = 0.4 away.
  EXPECT_EQ(trace_once({0.2f}, slanted({0, 0, 0}, {0.6f, 0, 0.8f}, 0.45f, 0.1f, 2)).triangle, 0);
  EXPECT_EQ(trace_once({0.2f}, slanted({0, 0, 0}, {0.6f, 0, 0.8f}, 0.35f, 0.1f, 2)).triangle, -1);
  // t_max still bounds the ray.
  EXPECT_EQ(trace_once({0.2f}, slanted(point, up, 0.25f, 0.1f, 0.5f)).triangle, -1);
}

TEST(TracerFilters, BackfaceGroupsAndExclusion) {
  Mesh mesh;
  add_plane(mesh, square(0.004f, 1.0f, false, 0));  // clockwise from above, group 7
  add_plane(mesh, square(-0.004f, 1.0f, true, 1));  // counter-clockwise, group 3
  CpuTracer tracer(mesh, {}, {}, 1);

  const RayHit rejecting = tracer.trace(down_query(0.3f, 0.1f, 0.01f, 0.01f, -1, 1));
  EXPECT_EQ(std::pair(rejecting.triangle, rejecting.t),
            std::pair(2, static_cast<float>(double{0.01f} + double{0.004f})));
  const RayHit accepting = tracer.trace(down_query(0.3f, 0.1f, 0.01f, 0.01f, -1, 0));
  EXPECT_EQ(std::pair(accepting.triangle, accepting.t),
            std::pair(0, static_cast<float>(double{0.01f} - double{0.004f})));
  // Seen from below, the first square is the front face.
  RayQuery up = down_query(0.3f, 0.1f, 0.01f, 0.01f, -1, 1);
  up.origin[2] = -0.002f;
  up.direction = {0, 0, 1};
  up.surface_normal = {0, 0, -1};
  up.surface_point = {0.3f, 0.1f, 0.008f};
  EXPECT_EQ(tracer.trace(up).triangle, 0);

  // Exclusion passes one triangle; one off the ray's path changes nothing.
  const RayQuery q = down_query(0.3f, 0.1f, 0.01f, 0.01f, -1, 0);
  EXPECT_EQ(tracer.trace_excluding(q, 0).triangle, 2);
  EXPECT_EQ(tracer.trace_excluding(q, 1).triangle, 0);
  EXPECT_EQ(tracer.trace_excluding(q, -1).triangle, 0);

  // Name groups: a ray sees only its own group; -1 sees every group.
  CpuTracer grouped(mesh, {7, 7, 3, 3}, {}, 1);
  EXPECT_TRUE(grouped.has_name_groups());
  EXPECT_FALSE(tracer.has_name_groups());
  const auto at = [](std::int32_t group) { return down_query(0.3f, 0.1f, 0.01f, 0.01f, group, 0); };
  EXPECT_EQ(grouped.trace(at(7)).triangle, 0);
  EXPECT_EQ(grouped.trace(at(3)).triangle, 2);
  EXPECT_EQ(grouped.trace(at(-1)).triangle, 0);
  EXPECT_EQ(grouped.trace(at(5)).triangle, -1);
  // A grouped query on a tracer without groups finds nothing.
  EXPECT_EQ(tracer.trace(at(3)).triangle, -1);
}

TEST(TracerRefine, MoellerTrumboreIn64Bit) {
  const Mesh mesh = corner_triangles({0.0f});
  RayQuery q;
  q.direction = {0, 0, -1};
  const auto refine = [&](std::array<float, 3> origin, RefinedHit given = {}) {
    q.origin = origin;
    return refine_hit(mesh, q, 0, given.u, given.v, given.t);
  };
  using Uvt = std::tuple<float, float, float>;
  EXPECT_EQ(fields(refine({0.25f, 0.5f, 2.0f}, {9.0f, 9.0f, 9.0f})), Uvt(0.25f, 0.5f, 2.0f));
  // Beyond the hypotenuse: both divided by their sum, in 64-bit.
  const double su = double{0.8f}, sv = double{0.6f};
  EXPECT_EQ(fields(refine({0.8f, 0.6f, 1.0f})),
            Uvt(static_cast<float>(su / (su + sv)), static_cast<float>(sv / (su + sv)), 1.0f));
  // Outside an edge: clamped to [0, 1].
  EXPECT_EQ(fields(refine({-0.2f, 0.5f, 1.0f})), Uvt(0.0f, 0.5f, 1.0f));
  EXPECT_EQ(fields(refine({0.5f, 1.5f, 1.0f})),
            Uvt(static_cast<float>(0.5 / 1.5), static_cast<float>(1.0 / 1.5), 1.0f));
  // Behind the origin: t comes out negative and the window refuses it.
  q.t_max = q.front = q.rear = 5.0f;
  q.surface_normal = {0, 0, 1};
  const RefinedHit behind = refine({0.2f, 0.2f, -1.0f});
  EXPECT_EQ(behind.t, -1.0f);
  EXPECT_FALSE(refined_hit_in_window(mesh, q, 0, behind));
  // Parallel to the plane: the determinant is 0, the given values stay.
  q.direction = {1, 0, 0};
  EXPECT_EQ(fields(refine({0.2f, 0.2f, 0.0f}, {0.125f, 0.375f, 0.5f})), Uvt(0.125f, 0.375f, 0.5f));
}

// Moeller-Trumbore in extended precision, the reference for the tracer.
std::array<long double, 3> exact_hit(const Mesh& mesh, const RayQuery& q) {
  using L = long double;
  L e1[3], e2[3], s[3], d[3];
  for (int k = 0; k < 3; ++k) {
    const L p0 = mesh.positions[0][k];
    e1[k] = mesh.positions[1][k] - p0;
    e2[k] = mesh.positions[2][k] - p0;
    s[k] = L{q.origin[k]} - p0;
    d[k] = q.direction[k];
  }
  const auto cross = [](const L* a, const L* b, L* out) {
    out[0] = a[1] * b[2] - a[2] * b[1];
    out[1] = a[2] * b[0] - a[0] * b[2];
    out[2] = a[0] * b[1] - a[1] * b[0];
  };
  const auto dot = [](const L* a, const L* b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; };
  L qv[3], r[3];
  cross(d, e2, qv);
  cross(s, e1, r);
  const L det = dot(e1, qv);
  return {dot(s, qv) / det, dot(d, r) / det, dot(e2, r) / det};
}

TEST(TracerRefine, TracedHitsAreRefinedFromEmbreesCandidates) {
  // A small triangle far from the origin, where single-precision hits drift.
  Mesh mesh;
  test::add_triangle(
      mesh,
      {{{1000.1f, 2000.3f, 500.7f}, {1000.47f, 2000.31f, 500.72f}, {1000.15f, 2000.71f, 500.67f}}});
  CpuTracer tracer(mesh, {}, {}, 1);
  LowMeshScene raw(mesh);  // Embree's own answers for the same rays

  std::uint64_t state = 99;
  auto next = [&] {
    state = state * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<double>((state >> 11) & ((1ull << 53) - 1)) / 9007199254740992.0;
  };
  const int rays = 400;
  int bit_exact = 0, embree_differs = 0;
  for (int i = 0; i < rays; ++i) {
    const double b1 = 0.05 + 0.4 * next(), b2 = 0.05 + 0.4 * next();
    double dir[3] = {next() - 0.5, next() - 0.5, 1.0};
    const double len = std::sqrt(dir[0] * dir[0] + dir[1] * dir[1] + dir[2] * dir[2]);
    RayQuery q;
    for (int k = 0; k < 3; ++k) {
      const double target = (1.0 - b1 - b2) * mesh.positions[0][k] + b1 * mesh.positions[1][k] +
                            b2 * mesh.positions[2][k];
      dir[k] /= len;
      q.origin[k] = static_cast<float>(target + 3.7 * dir[k]);
      q.direction[k] = static_cast<float>(-dir[k]);
      q.surface_point[k] = q.origin[k];
      q.surface_normal[k] = static_cast<float>(dir[k]);
    }
    q.front = q.rear = q.t_max = 10.0f;
    const RayHit hit = tracer.trace(q);
    ASSERT_EQ(hit.triangle, 0) << i;
    const auto e = exact_hit(mesh, q);
    const float fu = static_cast<float>(e[0]), fv = static_cast<float>(e[1]),
                ft = static_cast<float>(e[2]);
    // Within one unit in the last place of the exact result, and almost
    // always its correct rounding.
    EXPECT_LE(std::fabs(hit.u - fu), std::nextafter(fu, 2.0f) - fu) << i;
    EXPECT_LE(std::fabs(hit.v - fv), std::nextafter(fv, 2.0f) - fv) << i;
    EXPECT_LE(std::fabs(hit.t - ft), std::nextafter(ft, 20.0f) - ft) << i;
    bit_exact += (hit.u == fu && hit.v == fv && hit.t == ft) ? 1 : 0;
    const RayHit plain = raw.intersect(q.origin, q.direction, 0.0f, q.t_max);
    ASSERT_EQ(plain.triangle, 0);
    embree_differs += (plain.u != hit.u || plain.v != hit.v || plain.t != hit.t) ? 1 : 0;
  }
  EXPECT_GE(bit_exact, rays * 95 / 100);
  EXPECT_GT(embree_differs, rays / 10);  // the refinement did change results
}

TEST(TracerKnownHit, ChecksWithTheSameRules) {
  Mesh mesh;
  add_plane(mesh, square(0.004f, 1.0f, true, 0));
  add_plane(mesh, square(-0.004f, 1.0f, true, 1));
  CpuTracer tracer(mesh, {7, 7, 3, 3}, {}, 1);
  const RayQuery q = down_query(0.3f, 0.1f, 0.01f, 0.01f, 3);
  const RayHit traced = tracer.trace(q);
  ASSERT_EQ(traced.triangle, 2);

  // An approximate hit on the same triangle is refined to the traced one.
  RayHit known = {2, 0.5f, 0.1f, 0.02f};
  EXPECT_TRUE(tracer.check_known_hit(q, known));
  EXPECT_EQ(fields(known), fields(traced));

  // Wrong group, no triangle, no such triangle, outside the window: refused,
  // untouched.
  const RayQuery near_rear = down_query(0.3f, 0.1f, 0.01f, 0.003f, 3);
  for (const auto& [ray, hit] :
       {std::pair{q, RayHit{0, 0.5f, 0.1f, 0.006f}}, std::pair{q, RayHit{-1, 0, 0, 0}},
        std::pair{q, RayHit{4, 0, 0, 0}}, std::pair{near_rear, RayHit{2, 0.5f, 0.1f, 0.014f}}}) {
    RayHit bad = hit;
    EXPECT_FALSE(tracer.check_known_hit(ray, bad));
    EXPECT_EQ(fields(bad), fields(hit));
  }
  // The backface rule is not part of the check.
  Mesh flipped;
  add_plane(flipped, square(-0.004f, 1.0f, false));
  CpuTracer back(flipped, {}, {}, 1);
  const RayQuery facing_away = down_query(0.3f, 0.1f, 0.01f, 0.01f, -1, 1);
  EXPECT_EQ(back.trace(facing_away).triangle, -1);
  RayHit backface = {0, 0.5f, 0.1f, 0.014f};
  EXPECT_TRUE(back.check_known_hit(facing_away, backface));
  EXPECT_EQ(backface.t, static_cast<float>(double{0.01f} + double{0.004f}));
}

// ---- batches, determinism, build options and errors ---------------------------

bool same_bits(const std::vector<RayHit>& a, const std::vector<RayHit>& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(RayHit)) == 0;
}

std::vector<RayHit> trace_all(const CpuTracer& tracer, const std::vector<RayQuery>& queries,
                              int threads) {
  std::vector<RayHit> hits(queries.size(), RayHit{7, 1, 1, 1});
  tracer.trace_batch(queries.data(), hits.data(), hits.size(), WorkerPool(threads));
  return hits;
}

TEST(TracerBatch, SameBitsOnOneAndTwoThreadsAndAsSingleRays) {
  // More than a few tasks of 1024 rays and a short last task.
  constexpr std::size_t kRays = 9 * 1024 + 37;
  const Mesh field = test::bumpy_field(120);
  const std::vector<RayQuery> queries = test::field_queries(kRays, 0.02f, 0.02f);
  CpuTracer tracer(field, {}, {}, 2);
  const std::vector<RayHit> one = trace_all(tracer, queries, 1);
  EXPECT_TRUE(same_bits(one, trace_all(tracer, queries, 2)));

  std::size_t hits = 0;
  for (std::size_t i = 0; i < kRays; ++i) {
    const RayHit single = tracer.trace(queries[i]);
    ASSERT_EQ(std::memcmp(&single, &one[i], sizeof(RayHit)), 0) << i;
    hits += one[i].triangle >= 0 ? 1 : 0;
    if (one[i].triangle < 0) {  // every miss slot is reset
      EXPECT_EQ(fields(one[i]), Hit(-1, 0, 0, 0));
    } else if (i % 4 == 0) {  // the known-hit check agrees with tracing
      RayHit again = one[i];
      ASSERT_TRUE(tracer.check_known_hit(queries[i], again)) << i;
      ASSERT_EQ(fields(again), fields(one[i])) << i;
    }
  }
  EXPECT_GT(hits, kRays * 9 / 10);
  EXPECT_LT(hits, kRays);  // some rays leave the field or its window

  // Queries without a distance window take no lane of their packet: they
  // miss, and the rays beside them answer as before.
  std::vector<RayQuery> holed = queries;
  for (std::size_t i = 3; i < kRays; i += 5) {
    holed[i].t_max = 0.0f;
  }
  const std::vector<RayHit> with_holes = trace_all(tracer, holed, 2);
  for (std::size_t i = 0; i < kRays; ++i) {
    const RayHit want = i % 5 == 3 ? RayHit{} : one[i];
    ASSERT_EQ(std::memcmp(&with_holes[i], &want, sizeof(RayHit)), 0) << i;
  }

  // Scene flags and build quality change no answer; compact scenes are smaller.
  CpuTracerOptions compact_options, low_options;
  compact_options.compact = true;
  low_options.low_build_quality = true;
  const CpuTracer compact(field, {}, compact_options, 2), low(field, {}, low_options, 1);
  EXPECT_TRUE(same_bits(one, trace_all(compact, queries, 2)));
  EXPECT_TRUE(same_bits(one, trace_all(low, queries, 1)));
  EXPECT_GE(tracer.peak_memory_bytes(), tracer.memory_bytes());
  EXPECT_LT(compact.peak_memory_bytes(), tracer.peak_memory_bytes());
  // A corner record and an order entry per triangle.
  EXPECT_EQ(tracer.table_bytes(), field.triangles.size() * (36 + 4));
  // An empty high mesh misses everything.
  const Mesh empty;
  const CpuTracer none(empty, {}, {}, 1);
  EXPECT_TRUE(same_bits(trace_all(none, queries, 2), std::vector<RayHit>(kRays)));
  RayHit known = {0, 0, 0, 0.01f};
  EXPECT_FALSE(none.check_known_hit(queries[0], known));

  // A batch that starts inside the array writes only its own slots.
  std::vector<RayHit> part(kRays, RayHit{7, 1, 1, 1});
  tracer.trace_batch(queries.data() + 1000, part.data() + 1000, 1500, WorkerPool(2));
  EXPECT_EQ(std::pair(part[999].triangle, part[2500].triangle), std::pair(7, 7));
  EXPECT_EQ(std::memcmp(part.data() + 1000, one.data() + 1000, 1500 * sizeof(RayHit)), 0);
  tracer.trace_batch(queries.data(), part.data(), 0, WorkerPool(2));  // nothing to do
}

TEST(TracerRefineCache, SwitchAndIdenticalResults) {
  EXPECT_TRUE(refine_cache_enabled(std::nullopt));
  for (const std::string value : {"0", "off", "false", "00", "OFF", "", "1"}) {
    EXPECT_EQ(refine_cache_enabled(value), value != "0" && value != "off") << value;  // only these
  }

  const Mesh field = test::bumpy_field(80);
  const std::vector<RayQuery> queries = test::field_queries(4000, 0.02f, 0.02f);
  struct Run {
    std::vector<RayHit> hits;
    CpuTraceStatistics stats;
    bool on;
  };
  const auto run = [&](const char* env) {
    ScopedEnv scoped("KV_TRACE_REFINE_CACHE", env);
    CpuTracer tracer(field, {}, {}, 2);
    std::vector<RayHit> hits = trace_all(tracer, queries, 2);
    return Run{hits, tracer.statistics(), tracer.refine_cache_on()};
  };
  const Run with = run(nullptr), without = run("off");
  EXPECT_TRUE(with.on);
  EXPECT_FALSE(without.on);
  EXPECT_TRUE(same_bits(with.hits, without.hits));

  std::uint64_t hits = 0;
  for (const RayHit& h : with.hits) {
    hits += h.triangle >= 0 ? 1 : 0;
  }
  // With the cache every traced hit is found again; without, each winner is
  // refined a second time after the search.
  const CpuTraceStatistics &a = with.stats, &b = without.stats;
  EXPECT_EQ((std::array{a.refine_cache_hits, a.refine_cache_misses, b.refine_cache_hits,
                        b.refine_cache_misses, b.filter_calls, b.refines}),
            (std::array{hits, 0ul, 0ul, 0ul, a.filter_calls, a.refines + hits}));
  EXPECT_GE(a.filter_calls, hits);
}

OcclusionQuery segment(std::array<float, 3> origin, std::array<float, 3> direction, float t_near,
                       float t_far) {
  return {origin, direction, t_near, t_far};
}

std::vector<std::uint8_t> occluded_all(const Tracer& tracer,
                                       const std::vector<OcclusionQuery>& queries, int threads) {
  std::vector<std::uint8_t> occluded(queries.size(), 7);
  tracer.occluded_batch(queries.data(), occluded.data(), queries.size(), WorkerPool(threads));
  return occluded;
}

TEST(TracerOcclusion, AnyTriangleAlongTheSegmentWithoutTheBakesRules) {
  Mesh mesh;
  add_plane(mesh, square(-0.002f));
  add_plane(mesh, square(0.003f, 1.0f, true, 1));
  // Name groups and the backface rule belong to the primary rays only.
  const CpuTracer tracer(mesh, {0, 0, 1, 1}, {}, 1);
  const std::array<float, 3> down = {0, 0, -1}, up = {0, 0, 1};
  const std::vector<OcclusionQuery> queries = {
      segment({0.25f, -0.5f, 1.0f}, down, 0.0f, 2.0f),      // both planes
      segment({0.25f, -0.5f, 1.0f}, down, 0.0f, 0.5f),      // ends above them
      segment({0.25f, -0.5f, 1.0f}, down, 0.998f, 1.001f),  // between the planes
      segment({0.25f, -0.5f, 1.0f}, down, 0.998f, 1.003f),  // reaches the lower one
      segment({0.25f, -0.5f, -1.0f}, up, 0.0f, 2.0f),       // from below: back faces count
      segment({1.5f, 0.0f, 1.0f}, down, 0.0f, 2.0f),        // beside the squares
      segment({0.25f, -0.5f, 1.0f}, down, 1.5f, 0.5f),      // t_near beyond t_far
      segment({0.25f, -0.5f, 1.0f}, down, -1.0f, 2.0f),     // t_near below 0
  };
  EXPECT_EQ(occluded_all(tracer, queries, 1), (std::vector<std::uint8_t>{1, 0, 0, 1, 1, 0, 0, 0}));

  // Many segments over a bumpy field: the same answers on one and two
  // threads, some blocked and some free.
  const Mesh field = test::bumpy_field(60);
  const CpuTracer bumps(field, {}, {}, 2);
  std::vector<OcclusionQuery> many;
  for (const RayQuery& q : test::field_queries(5 * 1024 + 11, 0.02f, 0.02f)) {
    many.push_back(segment(q.origin, q.direction, 0.0f, q.front));
  }
  const std::vector<std::uint8_t> one = occluded_all(bumps, many, 1);
  EXPECT_EQ(occluded_all(bumps, many, 2), one);
  const auto blocked = static_cast<std::size_t>(std::count(one.begin(), one.end(), 1));
  EXPECT_GT(blocked, 0u);
  EXPECT_LT(blocked, many.size());
  EXPECT_EQ(blocked + static_cast<std::size_t>(std::count(one.begin(), one.end(), 0)), many.size());
}

// Rays fanned out from points of the bumpy field, as secondary rays are:
// aimed exactly at grid corners and edge midpoints (where neighbouring
// triangles meet), grazing along the surface, and scattered over the
// hemisphere; a fixed sequence makes them the same every run.
std::vector<std::pair<std::array<float, 3>, std::array<float, 3>>> fanned_rays(const Mesh& field,
                                                                               std::size_t count) {
  std::uint64_t state = 977;
  auto next = [&] {
    state = state * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<float>((state >> 40) & 0xFFFFFF) / 16777216.0f;  // [0, 1)
  };
  auto vertex = [&] {
    const auto& t = field.triangles[static_cast<std::size_t>(
        next() * 0.999f * static_cast<float>(field.triangles.size()))];
    return std::pair(field.positions[t.corners[0].position],
                     field.positions[t.corners[1].position]);
  };
  std::vector<std::pair<std::array<float, 3>, std::array<float, 3>>> rays;
  while (rays.size() < count) {
    const auto [a, b] = vertex();
    const auto [c, d] = vertex();
    const std::array<float, 3> origin = {a[0], a[1], a[2] + 0.002f * next()};
    // Targets: another corner, the middle of an edge, or a random direction.
    std::array<float, 3> target = c;
    switch (rays.size() % 4) {
      case 1:
        target = {(c[0] + d[0]) * 0.5f, (c[1] + d[1]) * 0.5f, (c[2] + d[2]) * 0.5f};
        break;
      case 2:
        target = {origin[0] + next() - 0.5f, origin[1] + next() - 0.5f, origin[2] + 0.01f * next()};
        break;
      case 3:
        target = {origin[0] + next() - 0.5f, origin[1] + next() - 0.5f, origin[2] + next() - 0.5f};
        break;
      default:
        break;
    }
    std::array<float, 3> dir = {target[0] - origin[0], target[1] - origin[1],
                                target[2] - origin[2]};
    const float length = std::sqrt(dir[0] * dir[0] + dir[1] * dir[1] + dir[2] * dir[2]);
    if (!(length > 0.0f)) {
      continue;
    }
    for (float& x : dir) {
      x /= length;
    }
    rays.emplace_back(origin, dir);
  }
  return rays;
}

TEST(TracerFanned, PacketsAnswerAsSingleRays) {
  const Mesh field = test::bumpy_field(40);
  const CpuTracer tracer(field, {}, {}, 2);
  constexpr std::size_t kRays = 4 * 1024 + 5;
  const auto rays = fanned_rays(field, kRays);
  std::vector<OcclusionQuery> segments;
  std::vector<RayQuery> nearest;
  for (std::size_t i = 0; i < rays.size(); ++i) {
    const auto& [origin, dir] = rays[i];
    const float far = i % 3 == 0 ? 3.0f : 0.05f + 0.5f * static_cast<float>(i % 7) / 7.0f;
    segments.push_back(segment(origin, dir, i % 5 == 0 ? 0.0f : 1e-5f, far));
    RayQuery q;
    q.origin = origin;
    q.direction = dir;
    q.t_max = far;
    q.surface_point = origin;
    q.surface_normal = dir;
    q.front = far * 2.0f + 1.0f;
    q.rear = 1.0f;
    q.ignore_backface = 0;
    nearest.push_back(q);
  }
  // Occlusion: packets give every single ray's answer, whichever rays share
  // them (a batch from the third query has other neighbours).
  const std::vector<std::uint8_t> packed = occluded_all(tracer, segments, 2);
  std::vector<std::uint8_t> shifted(kRays, 7);
  tracer.occluded_batch(segments.data() + 3, shifted.data() + 3, kRays - 3, WorkerPool(1));
  std::size_t blocked = 0;
  for (std::size_t i = 0; i < kRays; ++i) {
    const std::uint8_t single = tracer.occluded(segments[i]) ? 1 : 0;
    ASSERT_EQ(packed[i], single) << i;
    if (i >= 3) {
      ASSERT_EQ(shifted[i], single) << i;
    }
    blocked += single;
  }
  EXPECT_EQ(shifted[0], 7);  // a batch writes only its own slots
  EXPECT_GT(blocked, kRays / 10);
  EXPECT_LT(blocked, kRays * 9 / 10);

  // Nearest hits: fanned packets give the single rays' very bits, on one and
  // two threads. (Coherent packets may break exact ties between triangles
  // that share the aimed-at corner another way.)
  std::vector<RayHit> fanned(kRays, RayHit{7, 1, 1, 1});
  tracer.trace_fanned_batch(nearest.data(), fanned.data(), kRays, WorkerPool(2));
  std::vector<RayHit> fanned_one(kRays, RayHit{7, 1, 1, 1});
  tracer.trace_fanned_batch(nearest.data(), fanned_one.data(), kRays, WorkerPool(1));
  EXPECT_TRUE(same_bits(fanned, fanned_one));
  std::size_t hits = 0;
  for (std::size_t i = 0; i < kRays; ++i) {
    const RayHit single = tracer.trace(nearest[i]);
    ASSERT_EQ(std::memcmp(&single, &fanned[i], sizeof(RayHit)), 0) << i;
    hits += single.triangle >= 0 ? 1 : 0;
  }
  EXPECT_GT(hits, kRays / 10);
  EXPECT_LT(hits, kRays * 9 / 10);
}

// A tracer that keeps the interface's defaults for exclusion and occlusion.
class NoExclusionTracer final : public Tracer {
 public:
  std::string description() const override { return "none"; }
  RayHit trace(const RayQuery&) const override { return {}; }
  bool runs_on_gpu() const override { return true; }
  void trace_batch(const RayQuery*, RayHit*, std::uint64_t, const WorkerPool&) const override {}
  bool check_known_hit(const RayQuery&, RayHit&) const override { return false; }
  bool has_name_groups() const override { return false; }
  GpuTraceStatistics gpu_statistics() const override { return {}; }
};

TEST(TracerErrors, MessagesByCase) {
  Mesh mesh;
  test::add_plane(mesh, test::square(0.0f));  // four positions
  for (const std::vector<std::uint32_t>& groups : {std::vector<std::uint32_t>{1, 2, 3}, {1}}) {
    EXPECT_EQ(message_of<Error>([&] { CpuTracer(mesh, groups, {}, 1); }),
              "name groups do not match the high mesh");
  }
  EXPECT_EQ(message_of<Error>([] { NoExclusionTracer().trace_excluding(RayQuery{}, 3); }),
            "tracer does not support secondary self exclusion");
  EXPECT_EQ(message_of<Error>([] {
              const OcclusionQuery q;
              std::uint8_t occluded = 0;
              NoExclusionTracer().occluded_batch(&q, &occluded, 1, WorkerPool::serial());
            }),
            "tracer does not support occlusion queries");
  Mesh broken = mesh;
  broken.triangles[1].corners[2].position = 4;
  EXPECT_EQ(message_of<Error>([&] { CpuTracer(broken, {}, {}, 1); }),
            "high mesh triangle 1 refers to position 4 of 4");
  EXPECT_EQ(message_of<Error>([&] { LowMeshScene scene(broken); }),
            "low mesh triangle 1 refers to position 4 of 4");
}

TEST(TracerErrors, MemoryLimitRaisesOutOfMemory) {
  const Mesh field = test::bumpy_field(100);
  const std::uint64_t buffers = 12 * (field.positions.size() + field.triangles.size());
  // Too small for the geometry buffers; then room for them but not the tree.
  const std::pair<std::uint64_t, std::string> cases[] = {
      {1, "Embree buffer allocation failed: "}, {buffers + 40000, "Embree scene build failed: "}};
  for (const auto& [limit, prefix] : cases) {
    CpuTracerOptions options;
    options.memory_limit = limit;
    const std::string text = message_of<OutOfMemory>([&] { CpuTracer(field, {}, options, 1); });
    EXPECT_EQ(text.rfind(prefix, 0), 0u) << text;
    EXPECT_GT(text.size(), prefix.size()) << text;  // the device's own text follows
  }
  // A limit that fits changes nothing.
  CpuTracerOptions roomy;
  roomy.memory_limit = 1ull << 34;
  CpuTracer tracer(field, {}, roomy, 1);
  EXPECT_LE(tracer.peak_memory_bytes(), roomy.memory_limit);
  EXPECT_GE(tracer.trace(test::down_query(0.1f, 0.2f, 0.02f, 0.02f)).triangle, 0);
}

TEST(TracerErrors, OutOfMemoryRetriesOnceInCompactMode) {
  const Mesh field = test::bumpy_field(40);
  std::vector<std::string> events;
  const auto trace = [&](std::string_view event) { events.emplace_back(event); };

  // The first build runs out of memory for real, the second builds as asked.
  std::vector<CpuTracerOptions> seen;
  bool retried = false;
  auto tracer = build_with_compact_retry(
      [&](const CpuTracerOptions& options) {
        seen.push_back(options);
        CpuTracerOptions used = options;
        used.memory_limit = seen.size() == 1 ? 1 : options.memory_limit;
        return std::make_unique<CpuTracer>(field, std::vector<std::uint32_t>{}, used, 1);
      },
      &retried, trace);
  ASSERT_NE(tracer, nullptr);
  EXPECT_TRUE(retried);
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(std::tuple(seen[0].compact, seen[1].compact, seen[1].low_build_quality),
            std::tuple(false, true, false));
  EXPECT_EQ(seen[1].memory_limit, 0u);
  EXPECT_EQ(events, std::vector<std::string>{"embree.retry_compact"});
  EXPECT_GE(tracer->trace(test::down_query(0.1f, 0.2f, 0.02f, 0.02f)).triangle, 0);

  // A second failure propagates; other errors are not retried.
  // The message, the number of builds and the retry flag.
  const auto failing = [&](auto error) {
    int calls = 0;
    retried = false;
    const std::string text = message_of<decltype(error)>([&] {
      build_with_compact_retry(
          [&](const CpuTracerOptions&) -> std::unique_ptr<CpuTracer> {
            ++calls;
            throw decltype(error)(error.what() + std::to_string(calls));
          },
          &retried, trace);
    });
    return std::tuple(text, calls, retried);
  };
  EXPECT_EQ(failing(OutOfMemory("again ")), std::tuple("again 2", 2, true));
  EXPECT_EQ(failing(Error("broken ")), std::tuple("broken 1", 1, false));

  // The real entry builds without a retry when memory suffices.
  bool fresh = false;
  EXPECT_NE(build_cpu_tracer_with_retry(field, {}, 1, &fresh), nullptr);
  EXPECT_FALSE(fresh);
}

TEST(TracerLowScene, PlainClosestHits) {
  Mesh low;
  test::add_plane(low, test::square(0.5f, 1.0f, false));  // facing down: no backface rule here
  test::add_plane(low, test::square(-0.5f));
  LowMeshScene scene(low);
  RayHit hit = scene.intersect({0.3f, 0.1f, 2.0f}, {0, 0, -1}, 0.0f, 10.0f);
  EXPECT_EQ(std::pair(hit.triangle, hit.t), std::pair(0, 1.5f));
  hit = scene.intersect({0.3f, 0.1f, 2.0f}, {0, 0, -1}, 1.6f, 10.0f);
  EXPECT_EQ(std::pair(hit.triangle, hit.t), std::pair(2, 2.5f));
  EXPECT_EQ(scene.intersect({3.0f, 0.1f, 2.0f}, {0, 0, -1}, 0.0f, 10.0f).triangle, -1);
  EXPECT_EQ(scene.intersect({0.3f, 0.1f, 2.0f}, {0, 0, -1}, 0.0f, 1.0f).triangle, -1);
  EXPECT_EQ(LowMeshScene(Mesh{}).intersect({0, 0, 1}, {0, 0, -1}, 0.0f, 10.0f).triangle, -1);
}

}  // namespace
}  // namespace kv
