#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "bake/cpu_tracer.h"
#include "tracer_test_mesh.h"

namespace kv {
namespace {

using test::add_square;
using test::add_triangle;
using test::down_query;

RayQuery generic_query(std::array<float, 3> origin, std::array<float, 3> direction,
                       std::array<float, 3> point, std::array<float, 3> axis, float front,
                       float rear, float t_max) {
  RayQuery q;
  q.origin = origin;
  q.direction = direction;
  q.surface_point = point;
  q.surface_normal = axis;
  q.front = front;
  q.rear = rear;
  q.t_max = t_max;
  return q;
}

TEST(TracerHits, PlaneAtTheRightDistanceAndTriangle) {
  Mesh mesh;
  const auto lower = add_square(mesh, -0.002f, 1.0f, true);  // triangles 0, 1
  const auto upper = add_square(mesh, 0.003f, 1.0f, true);   // triangles 2, 3
  CpuTracer tracer(mesh, {}, {}, 1);

  // (0.25, -0.5) lies in the half y < x: corners (-1,-1), (1,-1), (1,1).
  const RayHit hit = tracer.trace(down_query(0.25f, -0.5f, 0.01f, 0.01f));
  EXPECT_EQ(hit.triangle, static_cast<std::int32_t>(upper));
  EXPECT_EQ(hit.u, 0.375f);
  EXPECT_EQ(hit.v, 0.25f);
  EXPECT_EQ(hit.t, static_cast<float>(double{0.01f} - double{0.003f}));

  // The other half of the same square.
  const RayHit other = tracer.trace(down_query(-0.5f, 0.25f, 0.01f, 0.01f));
  EXPECT_EQ(other.triangle, static_cast<std::int32_t>(upper + 1));

  // Beside the squares, beyond t_max, and with an empty window: misses.
  for (const RayQuery& q :
       {down_query(1.5f, 0.0f, 0.01f, 0.01f), down_query(0.1f, 0.0f, 0.001f, 0.001f),
        down_query(0.1f, 0.0f, 0.0f, 0.0f)}) {
    const RayHit miss = tracer.trace(q);
    EXPECT_EQ(miss.triangle, -1);
    EXPECT_EQ(miss.u, 0.0f);
    EXPECT_EQ(miss.v, 0.0f);
    EXPECT_EQ(miss.t, 0.0f);
  }
  // A window reaching 0.001 up and 0.0025 down holds only the lower square.
  RayQuery below = down_query(0.25f, -0.5f, 0.001f, 0.0025f);
  EXPECT_EQ(tracer.trace(below).triangle, static_cast<std::int32_t>(lower));
  below = down_query(0.25f, -0.5f, 0.004f, 0.0025f);
  EXPECT_EQ(tracer.trace(below).triangle, static_cast<std::int32_t>(upper));
}

TEST(TracerHits, DescriptionNamesTheEmbreeVersion) {
  Mesh mesh;
  add_square(mesh, 0.0f, 1.0f, true);
  CpuTracer tracer(mesh, {}, {}, 1);
  const std::string text = tracer.description();
  ASSERT_EQ(text.rfind("embree ", 0), 0u) << text;
  int dots = 0;
  for (char c : text.substr(7)) {
    if (c == '.') {
      ++dots;
    } else {
      EXPECT_TRUE(c >= '0' && c <= '9') << text;
    }
  }
  EXPECT_EQ(dots, 2) << text;
  EXPECT_FALSE(tracer.runs_on_gpu());
  EXPECT_EQ(tracer.gpu_statistics(), (GpuTraceStatistics{0, 0, 0, 0, 0}));
}

// Triangle (0,0,z) (1,0,z) (0,1,z); at (0.25, 0.25) every product of the hit
// point is exact, so the distance along the axis is exactly z.
Mesh corner_triangles(std::initializer_list<float> heights) {
  Mesh mesh;
  for (float z : heights) {
    add_triangle(mesh, {0, 0, z}, {1, 0, z}, {0, 1, z});
  }
  return mesh;
}

TEST(TracerWindow, OpenAtBothEnds) {
  const float step = 1.0f / 1024.0f;
  // Origin far above, so only the window along the axis decides.
  const RayQuery q = generic_query({0.25f, 0.25f, 1.0f}, {0, 0, -1}, {0.25f, 0.25f, 0.0f},
                                   {0, 0, 1}, 0.25f, 0.25f, 2.0f);
  {
    const Mesh at_front = corner_triangles({0.25f});
    EXPECT_EQ(CpuTracer(at_front, {}, {}, 1).trace(q).triangle, -1);
    const Mesh inside_front = corner_triangles({0.25f - step});
    const RayHit hit = CpuTracer(inside_front, {}, {}, 1).trace(q);
    EXPECT_EQ(hit.triangle, 0);
    EXPECT_EQ(hit.t, 0.75f + step);
  }
  {
    const Mesh at_rear = corner_triangles({-0.25f});
    EXPECT_EQ(CpuTracer(at_rear, {}, {}, 1).trace(q).triangle, -1);
    const Mesh inside_rear = corner_triangles({-0.25f + step});
    EXPECT_EQ(CpuTracer(inside_rear, {}, {}, 1).trace(q).triangle, 0);
  }
  {
    // A refused candidate does not end the search: the one behind is hit.
    const Mesh both = corner_triangles({0.25f, 0.0f});
    const RayHit hit = CpuTracer(both, {}, {}, 1).trace(q);
    EXPECT_EQ(hit.triangle, 1);
    EXPECT_EQ(hit.t, 1.0f);
  }
  {
    // As the bakes build it: a triangle exactly front away is refused (t = 0),
    // one a little nearer the surface is accepted.
    const RayQuery bake = down_query(0.25f, 0.25f, 0.25f, 0.25f);
    EXPECT_EQ(CpuTracer(corner_triangles({0.25f}), {}, {}, 1).trace(bake).triangle, -1);
    const RayHit hit = CpuTracer(corner_triangles({0.25f - step}), {}, {}, 1).trace(bake);
    EXPECT_EQ(hit.triangle, 0);
    EXPECT_EQ(hit.t, step);
    // At exactly rear behind, t equals t_max: refused as well.
    EXPECT_EQ(CpuTracer(corner_triangles({-0.25f}), {}, {}, 1).trace(bake).triangle, -1);
  }
}

TEST(TracerWindow, MeasuredAlongTheAxisNotTheRay) {
  // A slanted ray reaches z = 0.2 at t = 0.5 and z = -0.2 at t = 1.
  const std::array<float, 3> origin = {0.7f, 0.25f, 0.6f};
  const std::array<float, 3> slant = {-0.6f, 0.0f, -0.8f};
  const Mesh above = corner_triangles({0.2f});
  const Mesh below = corner_triangles({-0.2f});
  CpuTracer up(above, {}, {}, 1);
  CpuTracer down(below, {}, {}, 1);
  const std::array<float, 3> point = {0.25f, 0.25f, 0.0f};
  EXPECT_EQ(up.trace(generic_query(origin, slant, point, {0, 0, 1}, 0.25f, 0.1f, 2.0f)).triangle,
            0);
  EXPECT_EQ(up.trace(generic_query(origin, slant, point, {0, 0, 1}, 0.15f, 0.1f, 2.0f)).triangle,
            -1);
  EXPECT_EQ(down.trace(generic_query(origin, slant, point, {0, 0, 1}, 0.1f, 0.25f, 2.0f)).triangle,
            0);
  EXPECT_EQ(down.trace(generic_query(origin, slant, point, {0, 0, 1}, 0.1f, 0.15f, 2.0f)).triangle,
            -1);
  // A tilted axis counts the x offset too: hit point (0.4, 0.25, 0.2) from
  // (0, 0, 0) along (0.6, 0, 0.8) is 0.24 + 0.16 = 0.4 away.
  const std::array<float, 3> tilted = {0.6f, 0.0f, 0.8f};
  EXPECT_EQ(up.trace(generic_query(origin, slant, {0, 0, 0}, tilted, 0.45f, 0.1f, 2.0f)).triangle,
            0);
  EXPECT_EQ(up.trace(generic_query(origin, slant, {0, 0, 0}, tilted, 0.35f, 0.1f, 2.0f)).triangle,
            -1);
  // t_max still bounds the ray.
  EXPECT_EQ(up.trace(generic_query(origin, slant, point, {0, 0, 1}, 0.25f, 0.1f, 0.5f)).triangle,
            -1);
}

TEST(TracerBackface, RejectionOnAndOff) {
  Mesh mesh;
  add_square(mesh, 0.004f, 1.0f, false);                     // clockwise from above
  const auto lower = add_square(mesh, -0.004f, 1.0f, true);  // counter-clockwise
  CpuTracer tracer(mesh, {}, {}, 1);

  const RayHit rejecting = tracer.trace(down_query(0.3f, 0.1f, 0.01f, 0.01f, -1, 1));
  EXPECT_EQ(rejecting.triangle, static_cast<std::int32_t>(lower));
  EXPECT_EQ(rejecting.t, static_cast<float>(double{0.01f} + double{0.004f}));

  const RayHit accepting = tracer.trace(down_query(0.3f, 0.1f, 0.01f, 0.01f, -1, 0));
  EXPECT_EQ(accepting.triangle, 0);
  EXPECT_EQ(accepting.t, static_cast<float>(double{0.01f} - double{0.004f}));

  // Seen from below, the first square is the front face.
  RayQuery up = down_query(0.3f, 0.1f, 0.01f, 0.01f, -1, 1);
  up.origin[2] = -0.002f;
  up.direction = {0, 0, 1};
  up.surface_normal = {0, 0, -1};
  up.surface_point = {0.3f, 0.1f, 0.008f};
  EXPECT_EQ(tracer.trace(up).triangle, 0);
}

TEST(TracerGroups, RaysSeeOnlyTheirGroup) {
  Mesh mesh;
  add_square(mesh, 0.004f, 1.0f, true, 0);   // triangles 0, 1: group 7
  add_square(mesh, -0.004f, 1.0f, true, 1);  // triangles 2, 3: group 3
  CpuTracer grouped(mesh, {7, 7, 3, 3}, {}, 1);
  CpuTracer plain(mesh, {}, {}, 1);
  EXPECT_TRUE(grouped.has_name_groups());
  EXPECT_FALSE(plain.has_name_groups());

  auto at = [](std::int32_t group) { return down_query(0.3f, 0.1f, 0.01f, 0.01f, group); };
  EXPECT_EQ(grouped.trace(at(7)).triangle, 0);
  EXPECT_EQ(grouped.trace(at(3)).triangle, 2);  // passes through group 7
  EXPECT_EQ(grouped.trace(at(-1)).triangle, 0);
  EXPECT_EQ(grouped.trace(at(5)).triangle, -1);
  // A grouped query on a tracer without groups finds nothing.
  EXPECT_EQ(plain.trace(at(3)).triangle, -1);
  EXPECT_EQ(plain.trace(at(-1)).triangle, 0);
}

TEST(TracerExclusion, ExcludedTriangleIsPassedThrough) {
  Mesh mesh;
  add_square(mesh, 0.004f, 1.0f, true);
  add_square(mesh, -0.004f, 1.0f, true);
  CpuTracer tracer(mesh, {}, {}, 1);
  const RayQuery q = down_query(0.3f, 0.1f, 0.01f, 0.01f);
  EXPECT_EQ(tracer.trace_excluding(q, 0).triangle, 2);
  EXPECT_EQ(tracer.trace_excluding(q, 1).triangle, 0);  // not on the ray's path
  EXPECT_EQ(tracer.trace_excluding(q, -1).triangle, 0);
}

TEST(TracerRefine, MoellerTrumboreIn64Bit) {
  Mesh mesh;
  add_triangle(mesh, {0, 0, 0}, {1, 0, 0}, {0, 1, 0});
  RayQuery q;
  q.direction = {0, 0, -1};

  // Inside: the exact barycentrics.
  q.origin = {0.25f, 0.5f, 2.0f};
  RefinedHit r = refine_hit(mesh, q, 0, 9.0f, 9.0f, 9.0f);
  EXPECT_EQ(r.u, 0.25f);
  EXPECT_EQ(r.v, 0.5f);
  EXPECT_EQ(r.t, 2.0f);

  // Beyond the hypotenuse: both divided by their sum, in 64-bit.
  q.origin = {0.8f, 0.6f, 1.0f};
  r = refine_hit(mesh, q, 0, 0, 0, 0);
  const double su = double{0.8f}, sv = double{0.6f};
  EXPECT_EQ(r.u, static_cast<float>(su / (su + sv)));
  EXPECT_EQ(r.v, static_cast<float>(sv / (su + sv)));
  EXPECT_EQ(r.t, 1.0f);

  // Outside an edge: clamped to [0, 1].
  q.origin = {-0.2f, 0.5f, 1.0f};
  r = refine_hit(mesh, q, 0, 0, 0, 0);
  EXPECT_EQ(r.u, 0.0f);
  EXPECT_EQ(r.v, 0.5f);
  q.origin = {0.5f, 1.5f, 1.0f};
  r = refine_hit(mesh, q, 0, 0, 0, 0);
  EXPECT_EQ(r.u, static_cast<float>(0.5 / 1.5));
  EXPECT_EQ(r.v, static_cast<float>(1.0 / 1.5));

  // Behind the origin: t comes out negative and the window refuses it.
  q.origin = {0.2f, 0.2f, -1.0f};
  q.t_max = 5.0f;
  q.front = q.rear = 5.0f;
  q.surface_normal = {0, 0, 1};
  r = refine_hit(mesh, q, 0, 0, 0, 0);
  EXPECT_EQ(r.t, -1.0f);
  EXPECT_FALSE(refined_hit_in_window(mesh, q, 0, r));

  // Parallel to the plane: the determinant is 0, the given values stay.
  q.origin = {0.2f, 0.2f, 0.0f};
  q.direction = {1, 0, 0};
  r = refine_hit(mesh, q, 0, 0.125f, 0.375f, 0.5f);
  EXPECT_EQ(r.u, 0.125f);
  EXPECT_EQ(r.v, 0.375f);
  EXPECT_EQ(r.t, 0.5f);
}

// Moeller-Trumbore in extended precision, the reference for the tracer.
struct Exact {
  long double u, v, t;
};
Exact exact_hit(const Mesh& mesh, const RayQuery& q) {
  using L = long double;
  const Triangle& tri = mesh.triangles[0];
  L p[3][3];
  for (int c = 0; c < 3; ++c) {
    for (int k = 0; k < 3; ++k) {
      p[c][k] = mesh.positions[tri.corners[c].position][k];
    }
  }
  L e1[3], e2[3], s[3], d[3];
  for (int k = 0; k < 3; ++k) {
    e1[k] = p[1][k] - p[0][k];
    e2[k] = p[2][k] - p[0][k];
    s[k] = L{q.origin[k]} - p[0][k];
    d[k] = q.direction[k];
  }
  auto cross = [](const L* a, const L* b, L* out) {
    out[0] = a[1] * b[2] - a[2] * b[1];
    out[1] = a[2] * b[0] - a[0] * b[2];
    out[2] = a[0] * b[1] - a[1] * b[0];
  };
  auto dot = [](const L* a, const L* b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; };
  L qv[3], r[3];
  cross(d, e2, qv);
  cross(s, e1, r);
  const L det = dot(e1, qv);
  return {dot(s, qv) / det, dot(d, r) / det, dot(e2, r) / det};
}

TEST(TracerRefine, TracedHitsAreRefinedFromEmbreesCandidates) {
  // A small triangle far from the origin, where single-precision hits drift.
  Mesh mesh;
  add_triangle(mesh, {1000.1f, 2000.3f, 500.7f}, {1000.47f, 2000.31f, 500.72f},
               {1000.15f, 2000.71f, 500.67f});
  CpuTracer tracer(mesh, {}, {}, 1);
  LowMeshScene raw(mesh);  // Embree's own answers for the same rays

  std::uint64_t state = 99;
  auto next = [&] {
    state = state * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<double>((state >> 11) & ((1ull << 53) - 1)) / 9007199254740992.0;
  };
  int traced = 0, bit_exact = 0, embree_differs = 0;
  for (int i = 0; i < 400; ++i) {
    const double b1 = 0.05 + 0.4 * next(), b2 = 0.05 + 0.4 * next();
    const double b0 = 1.0 - b1 - b2;
    double target[3], dir[3] = {next() - 0.5, next() - 0.5, 1.0};
    const double len = std::sqrt(dir[0] * dir[0] + dir[1] * dir[1] + dir[2] * dir[2]);
    RayQuery q;
    for (int k = 0; k < 3; ++k) {
      target[k] = b0 * mesh.positions[0][k] + b1 * mesh.positions[1][k] + b2 * mesh.positions[2][k];
      dir[k] /= len;
      q.origin[k] = static_cast<float>(target[k] + 3.7 * dir[k]);
      q.direction[k] = static_cast<float>(-dir[k]);
      q.surface_point[k] = q.origin[k];
      q.surface_normal[k] = static_cast<float>(dir[k]);
    }
    q.front = q.rear = q.t_max = 10.0f;
    const RayHit hit = tracer.trace(q);
    ASSERT_EQ(hit.triangle, 0) << i;
    ++traced;
    const Exact e = exact_hit(mesh, q);
    const float fu = static_cast<float>(e.u), fv = static_cast<float>(e.v),
                fx = static_cast<float>(e.t);
    // Within one unit in the last place of the exact result, and almost
    // always its correct rounding.
    EXPECT_LE(std::fabs(hit.u - fu), std::nextafter(fu, 2.0f) - fu) << i;
    EXPECT_LE(std::fabs(hit.v - fv), std::nextafter(fv, 2.0f) - fv) << i;
    EXPECT_LE(std::fabs(hit.t - fx), std::nextafter(fx, 20.0f) - fx) << i;
    bit_exact += (hit.u == fu && hit.v == fv && hit.t == fx) ? 1 : 0;
    const RayHit plain = raw.intersect(q.origin, q.direction, 0.0f, q.t_max);
    ASSERT_EQ(plain.triangle, 0);
    embree_differs += (plain.u != hit.u || plain.v != hit.v || plain.t != hit.t) ? 1 : 0;
  }
  EXPECT_GE(bit_exact, traced * 95 / 100);
  EXPECT_GT(embree_differs, traced / 10);  // the refinement did change results
}

TEST(TracerKnownHit, ChecksWithTheSameRules) {
  Mesh mesh;
  add_square(mesh, 0.004f, 1.0f, true, 0);
  add_square(mesh, -0.004f, 1.0f, true, 1);
  CpuTracer tracer(mesh, {7, 7, 3, 3}, {}, 1);
  const RayQuery q = down_query(0.3f, 0.1f, 0.01f, 0.01f, 3);
  const RayHit traced = tracer.trace(q);
  ASSERT_EQ(traced.triangle, 2);

  // An approximate hit on the same triangle is refined to the traced one.
  RayHit known = {2, 0.5f, 0.1f, 0.02f};
  EXPECT_TRUE(tracer.check_known_hit(q, known));
  EXPECT_EQ(known.u, traced.u);
  EXPECT_EQ(known.v, traced.v);
  EXPECT_EQ(known.t, traced.t);

  // Wrong group, outside the window, no such triangle: refused, untouched.
  for (RayHit bad : {RayHit{0, 0.5f, 0.1f, 0.006f}, RayHit{-1, 0, 0, 0}, RayHit{4, 0, 0, 0}}) {
    const RayHit before = bad;
    EXPECT_FALSE(tracer.check_known_hit(q, bad));
    EXPECT_EQ(bad.u, before.u);
    EXPECT_EQ(bad.t, before.t);
  }
  RayHit far = {2, 0.5f, 0.1f, 0.014f};
  EXPECT_FALSE(tracer.check_known_hit(down_query(0.3f, 0.1f, 0.01f, 0.003f, 3), far));
  // The backface rule is not part of the check.
  Mesh flipped;
  add_square(flipped, -0.004f, 1.0f, false);
  CpuTracer back(flipped, {}, {}, 1);
  const RayQuery facing_away = down_query(0.3f, 0.1f, 0.01f, 0.01f, -1, 1);
  EXPECT_EQ(back.trace(facing_away).triangle, -1);
  RayHit backface = {0, 0.5f, 0.1f, 0.014f};
  EXPECT_TRUE(back.check_known_hit(facing_away, backface));
  EXPECT_EQ(backface.t, static_cast<float>(double{0.01f} + double{0.004f}));
}

}  // namespace
}  // namespace kv
