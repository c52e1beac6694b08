#include "texel/mikktspace.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <string>

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
