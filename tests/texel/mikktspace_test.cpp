#include "texel/mikktspace.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <string>
#include <utility>
#include <vector>

#include "core/error.h"

namespace kv {
namespace {

using Vec = std::array<float, 3>;
using Uv = std::array<float, 2>;

constexpr Vec kUp = {0.0f, 0.0f, 1.0f};

void add(std::vector<MikkCorner>& out, Vec p, Vec n, Uv uv) {
  out.push_back({p, n, uv});
}

void expect_tangent(const CornerTangent& t, Vec expected, float sign, const std::string& what,
                    double tolerance = 1e-6) {
  for (std::size_t k = 0; k < 3; ++k) {
    EXPECT_NEAR(t.tangent[k], expected[k], tolerance) << what;
  }
  EXPECT_EQ(t.sign, sign) << what;
}

// The rectangle [x0, x1] x [0, 1] in z = 0 as two triangles, UVs from `map`.
void add_quad(std::vector<MikkCorner>& c, Uv (*map)(float, float), float x0 = 0, float x1 = 1) {
  const Vec p[4] = {{x0, 0, 0}, {x1, 0, 0}, {x1, 1, 0}, {x0, 1, 0}};
  for (int i : {0, 1, 2, 0, 2, 3}) {
    add(c, p[i], kUp, map(p[i][0], p[i][1]));
  }
}

TEST(MikkTSpacePlanar, TangentFollowsTheUDirection) {
  // u = x; u along y with v along -x (still right-handed); a stretched and
  // sheared u = 2x + y, v = y, where moving along +x changes u alone.
  const struct {
    Uv (*map)(float, float);
    Vec tangent;
  } cases[] = {{[](float x, float y) {
                  return Uv{x, y};
                },
                {1, 0, 0}},
               {[](float x, float y) {
                  return Uv{y, -x};
                },
                {0, 1, 0}},
               {[](float x, float y) {
                  return Uv{2 * x + y, y};
                },
                {1, 0, 0}}};
  for (const auto& k : cases) {
    std::vector<MikkCorner> c;
    add_quad(c, k.map);
    for (const CornerTangent& t : mikktspace_tangents(c)) {
      expect_tangent(t, k.tangent, 1.0f, "planar");
    }
  }
}

TEST(MikkTSpaceMirror, MirroredHalfGetsNegativeSignAndItsOwnGroup) {
  // A strip x in [-1, 1]; the left half mirrors the right (u = |x|), so the
  // seam corners at x = 0 are identical in position, normal and UV.
  std::vector<MikkCorner> c;
  const auto mirrored = [](float x, float y) { return Uv{std::fabs(x), y}; };
  add_quad(c, mirrored, -1, 0);
  add_quad(c, mirrored, 0, 1);
  const auto tangents = mikktspace_tangents(c);
  ASSERT_EQ(tangents.size(), 12u);
  for (std::size_t k = 0; k < 12; ++k) {
    // Mirrored: u grows towards -x, and the frame is left-handed.
    const float side = k < 6 ? -1.0f : 1.0f;
    expect_tangent(tangents[k], {side, 0, 0}, side, std::to_string(k));
  }
}

// An open cylinder of radius 1 around z, u = angle / (2 pi), v = z, with the
// UV seam at angle 0 (the corners there differ in u: 0 and 1).
std::vector<MikkCorner> cylinder(int segments, const std::vector<float>& angles) {
  std::vector<MikkCorner> c;
  for (int i = 0; i < segments; ++i) {
    const float a0 = angles[static_cast<std::size_t>(i)];
    const float a1 = angles[static_cast<std::size_t>(i + 1)];
    const float u0 = a0 / (2 * std::numbers::pi_v<float>);
    const float u1 = a1 / (2 * std::numbers::pi_v<float>);
    // The last angle is 2 pi: its position must equal angle 0 exactly.
    const Vec n0 = {std::cos(a0), std::sin(a0), 0};
    const Vec n1 = i + 1 == segments ? Vec{1, 0, 0} : Vec{std::cos(a1), std::sin(a1), 0};
    const Vec p[4] = {n0, n1, {n1[0], n1[1], 1}, {n0[0], n0[1], 1}};
    const Vec n[4] = {n0, n1, n1, n0};
    const Uv uv[4] = {{u0, 0}, {u1, 0}, {u1, 1}, {u0, 1}};
    for (const int k : {0, 1, 2, 0, 2, 3}) {
      add(c, p[k], n[k], uv[k]);
    }
  }
  return c;
}

TEST(MikkTSpaceCylinder, TangentsFollowTheCircleAcrossTheSeam) {
  // Uneven segments: a welded seam would average faces of different widths,
  // but every corner's tangent is still the circle's direction there.
  const std::vector<float> angles = {
      0.0f, 0.4f, 1.1f, 2.0f, 2.9f, 3.7f, 4.6f, 5.5f, 2 * std::numbers::pi_v<float>};
  const int segments = 8;
  const auto corners = cylinder(segments, angles);
  const auto tangents = mikktspace_tangents(corners);
  for (std::size_t k = 0; k < corners.size(); ++k) {
    const Vec& n = corners[k].normal;
    // Circle direction at the corner's angle, counter-clockwise.
    expect_tangent(tangents[k], {-n[1], n[0], 0}, 1.0f, "cylinder", 2e-6);
  }
}

TEST(MikkTSpaceWeld, OnlyIdenticalCornersShareATangent) {
  // Two triangles meeting at the edge (0,0,0)-(0,1,0), folded, each with a
  // different u direction. With one normal for the shared corners the
  // tangent there is shared; with each triangle's own normal it is not.
  const Vec a = {0, 0, 0}, b = {0, 1, 0}, c1 = {1, 0, 0}, c2 = {-1, 0, 1};
  const auto build = [&](Vec shared_normal_1, Vec shared_normal_2) {
    std::vector<MikkCorner> c;
    add(c, a, shared_normal_1, {0.5f, 0});
    add(c, c1, kUp, {1.0f, 0});
    add(c, b, shared_normal_1, {0.5f, 1});
    add(c, a, shared_normal_2, {0.5f, 0});
    add(c, b, shared_normal_2, {0.5f, 1});
    add(c, c2, {0.70710677f, 0, 0.70710677f}, {0.0f, 0.2f});
    return c;
  };
  const Vec mid = {0.38268343f, 0, 0.92387953f};
  const auto welded = mikktspace_tangents(build(mid, mid));
  for (int k : {0, 2}) {
    EXPECT_EQ(welded[static_cast<std::size_t>(k)].tangent,
              welded[static_cast<std::size_t>(k == 0 ? 3 : 4)].tangent);
  }
  // The corner at c1 belongs to the first triangle alone: its u direction is +x.
  expect_tangent(welded[1], {1, 0, 0}, 1.0f, "lone corner");

  const auto split = mikktspace_tangents(build(kUp, {0.70710677f, 0, 0.70710677f}));
  // Unwelded, the first triangle's corners keep its own +x direction.
  expect_tangent(split[0], {1, 0, 0}, 1.0f, "split first");
  expect_tangent(split[2], {1, 0, 0}, 1.0f, "split first");
  EXPECT_NE(split[0].tangent, split[3].tangent);
}

TEST(MikkTSpaceWeighting, CornerAnglesWeighTheFaceTangents) {
  // Two triangles around the centre c: the first spans 90 degrees there with
  // u along +x, the second 45 degrees with u along (1, 1)/sqrt(2).
  const Vec c = {0, 0, 0}, a = {1, 0, 0}, b = {0, 1, 0}, d = {-1, 1, 0};
  std::vector<MikkCorner> corners;
  add(corners, c, kUp, {0, 0});
  add(corners, a, kUp, {1, 0});
  add(corners, b, kUp, {0, 1});
  add(corners, c, kUp, {0, 0});
  add(corners, b, kUp, {0, 1});
  add(corners, d, kUp, {-1, 2});
  const auto t = mikktspace_tangents(corners);
  // The first face's tangent (1, 0, 0) weighs `first`, the second's (r, r, 0)
  // weighs `second`.
  const double r = std::sqrt(0.5), pi = std::numbers::pi;
  const auto blend = [&](double first, double second) {
    const double x = first + second * r, y = second * r, len = std::hypot(x, y);
    return Vec{static_cast<float>(x / len), static_cast<float>(y / len), 0};
  };
  expect_tangent(t[0], blend(pi / 2, pi / 4), 1.0f, "centre, first triangle");
  expect_tangent(t[3], blend(pi / 2, pi / 4), 1.0f, "centre, second triangle");
  expect_tangent(t[1], {1, 0, 0}, 1.0f, "a");
  expect_tangent(t[5], {static_cast<float>(r), static_cast<float>(r), 0}, 1.0f, "d");
  // At b the angles are 45 (first) and 90 degrees (second): the weights swap.
  expect_tangent(t[2], blend(pi / 4, pi / 2), 1.0f, "b");
}

// A flat mesh (z = 0, normal +z everywhere) on which the order-dependent
// paths decide the tangents. Edge P-Q is shared by three triangles: A runs
// P to Q, the flaps B and C run Q to P, so A is paired with one flap only; D
// shares A's edge Q-RA. UVs are the xy position (u along +x) except at RC,
// which turns C's u direction to (1, 1) / sqrt(2). Every triangle's UVs run
// clockwise, so every sign is -1.
enum Point { P, Q, RA, RB, RC, RD };
constexpr Vec kPoints[] = {{0, 0, 0},     {0, 1, 0},        {1, 0.5f, 0},
                           {-1, 0.5f, 0}, {-0.5f, 0.3f, 0}, {1, 1.5f, 0}};
constexpr Uv kUvs[] = {{0, 0}, {0, 1}, {1, 0.5f}, {-1, 0.5f}, {-0.4f, 0.8f}, {1, 1.5f}};

struct NamedTriangle {
  char name;
  Point corners[3];
};

// The triangles' corners in input order.
std::vector<MikkCorner> flat_corners(const std::vector<NamedTriangle>& triangles) {
  std::vector<MikkCorner> c;
  for (const NamedTriangle& t : triangles) {
    for (Point p : t.corners) {
      add(c, kPoints[p], kUp, kUvs[p]);
    }
  }
  return c;
}

// The direction of growing u across a flat triangle, in double.
std::array<double, 2> u_direction(const NamedTriangle& t) {
  const auto d = [&](int k, int axis) {
    return static_cast<double>(kPoints[t.corners[k]][axis]) - kPoints[t.corners[0]][axis];
  };
  const auto duv = [&](int k, int axis) {
    return static_cast<double>(kUvs[t.corners[k]][axis]) - kUvs[t.corners[0]][axis];
  };
  // The edge combination a * e1 + b * e2 along which v stays and u grows.
  const double a = duv(2, 1), b = -duv(1, 1);
  const double x = a * d(1, 0) + b * d(2, 0), y = a * d(1, 1) + b * d(2, 1);
  const double sign = duv(1, 0) * duv(2, 1) - duv(2, 0) * duv(1, 1) > 0 ? 1.0 : -1.0;
  return {sign * x / std::hypot(x, y), sign * y / std::hypot(x, y)};
}

// The angle of the triangle at its corner k.
double corner_angle(const NamedTriangle& t, int k) {
  const Vec& o = kPoints[t.corners[k]];
  const Vec& a = kPoints[t.corners[(k + 1) % 3]];
  const Vec& b = kPoints[t.corners[(k + 2) % 3]];
  const double ax = a[0] - o[0], ay = a[1] - o[1], bx = b[0] - o[0], by = b[1] - o[1];
  return std::acos((ax * bx + ay * by) / (std::hypot(ax, ay) * std::hypot(bx, by)));
}

// Expects each corner's tangent to be the corner-angle weighted mean of the u
// directions of the triangles in its group: `groups` names them per point
// ("AC" at P), and a triangle missing there is alone at that point.
void expect_groups(const std::vector<NamedTriangle>& triangles,
                   const std::vector<std::pair<Point, std::string>>& groups,
                   const std::string& what) {
  const auto tangents = mikktspace_tangents(flat_corners(triangles));
  ASSERT_EQ(tangents.size(), 3 * triangles.size());
  for (std::size_t t = 0; t < triangles.size(); ++t) {
    for (int k = 0; k < 3; ++k) {
      const Point point = triangles[t].corners[k];
      std::string members(1, triangles[t].name);
      for (const auto& [at, names] : groups) {
        if (at == point && names.find(triangles[t].name) != std::string::npos) {
          members = names;
        }
      }
      double x = 0, y = 0;
      for (const NamedTriangle& m : triangles) {
        if (members.find(m.name) == std::string::npos) {
          continue;
        }
        const int corner = m.corners[0] == point ? 0 : (m.corners[1] == point ? 1 : 2);
        const auto u = u_direction(m);
        x += corner_angle(m, corner) * u[0];
        y += corner_angle(m, corner) * u[1];
      }
      const Vec expected = {static_cast<float>(x / std::hypot(x, y)),
                            static_cast<float>(y / std::hypot(x, y)), 0};
      expect_tangent(tangents[3 * t + static_cast<std::size_t>(k)], expected, -1.0f,
                     what + ", " + triangles[t].name + " at point " + std::to_string(point));
    }
  }
}

TEST(MikkTSpaceOrder, WeldAndEdgeSortDecideTheGroups) {
  // Slots D, B, C, A: P is corner 4, 8 or 10, Q corner 1, 3, 7 or 11. The
  // corners at x = 0 share one weld bucket, in corner order; the weld's split
  // at y = 0.5 swaps them into 10, 8, 4 (P) and 7, 3, 1, 11 (Q), so P becomes
  // vertex 10 and Q vertex 7, not 4 and 1. Edge P-Q has the largest first
  // vertex, so its run comes last and keeps the order the seeded quicksort
  // left: A, the slot 2 flap, the slot 1 flap. A pairs with the first flap
  // after it, here C, and P and Q average A with C (Q with D as well). With a
  // weld to the first corners, a full sort or another seed, A pairs with B.
  const NamedTriangle a = {'A', {RA, P, Q}}, d = {'D', {RA, Q, RD}};
  expect_groups({d, {'B', {Q, P, RB}}, {'C', {RC, Q, P}}, a}, {{P, "AC"}, {Q, "ACD"}, {RA, "AD"}},
                "C in slot 2");
  // The same input with the flaps traded: vertices and edge order are as
  // above, so A now pairs with B, and C stays alone with its own direction.
  expect_groups({d, {'C', {Q, P, RC}}, {'B', {RB, Q, P}}, a}, {{P, "AB"}, {Q, "ABD"}, {RA, "AD"}},
                "B in slot 2");

  // Slots C, D, B, A. The weld makes Q vertex 6 (not corner 2) and RA vertex
  // 11 (not 5), so the edges starting at Q come last in the sort: Q-RA of A,
  // Q-RB of B, Q-RA of D, in the quicksort's order, as the last run is not
  // sorted by its second vertex. A's and D's edges Q-RA are not adjacent and
  // are never paired: at RA, A and D stay apart, and at Q, A and C average
  // without D. Edge P-Q is sorted by slot: C comes before B and pairs with A.
  expect_groups({{'C', {P, RC, Q}}, {'D', {Q, RD, RA}}, {'B', {Q, P, RB}}, {'A', {P, Q, RA}}},
                {{P, "AC"}, {Q, "AC"}}, "the last run unsorted");
}

TEST(MikkTSpaceDegenerate, DegenerateAndZeroUvTrianglesBorrowOrDefault) {
  std::vector<MikkCorner> c;
  // A healthy quad with u along +y (tangent (0, 1, 0)).
  add_quad(c, [](float x, float y) { return Uv{y, -x}; });
  const Vec p[3] = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}};
  // A positional degenerate triangle: two corners at p0 (identical to the
  // quad's corner there) and one at a point no good triangle uses.
  add(c, p[0], kUp, {0, 0});
  add(c, p[0], kUp, {0, 0});
  add(c, {5, 5, 0}, kUp, {3, 3});
  // A triangle with zero UV area joined to the quad's edge p1-p2.
  add(c, p[2], kUp, {1, -1});
  add(c, p[1], kUp, {0, -1});
  add(c, {2, 0.5f, 0}, kUp, {0.5f, -1});
  const auto t = mikktspace_tangents(c);
  ASSERT_EQ(t.size(), 12u);
  for (std::size_t k = 0; k < 12; ++k) {
    // Both triangles' corners on the quad's vertices join its group. The
    // degenerate one's lone corner (8) shares no vertex with a good corner
    // and the zero-UV-area one's (11) cannot start a group: both keep the
    // untouched default frame.
    const bool lone = k == 8 || k == 11;
    expect_tangent(t[k], lone ? Vec{1, 0, 0} : Vec{0, 1, 0}, lone ? -1.0f : 1.0f,
                   std::to_string(k));
  }
}

TEST(MikkTSpaceInput, EmptyAndMeshForms) {
  EXPECT_TRUE(mikktspace_tangents(std::span<const MikkCorner>()).empty());
  Mesh mesh;
  mesh.positions = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}};
  mesh.uvs = {{0, 0}, {0, 1}, {-1, 0}};
  Triangle tri;
  for (std::uint32_t i = 0; i < 3; ++i) {
    tri.corners[i] = {i, static_cast<std::int32_t>(i), -1};
  }
  mesh.triangles.push_back(tri);
  const std::vector<std::array<float, 3>> normals(3, kUp);
  const auto t = mikktspace_tangents(mesh, normals);
  // u falls from 0 to -1 along +y and v grows along +x: tangent -y.
  for (const CornerTangent& c : t) {
    expect_tangent(c, {0, -1, 0}, 1.0f, "mesh form");
  }
  EXPECT_THROW(mikktspace_tangents(mesh, std::vector<std::array<float, 3>>(2, kUp)), Error);
}

}  // namespace
}  // namespace kv
