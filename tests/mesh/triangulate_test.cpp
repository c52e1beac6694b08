#include "mesh/triangulate.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <numbers>
#include <set>

#include "core/parallel.h"
#include "mesh/mesh_test_util.h"

namespace kv {
namespace {

using Points = std::vector<std::array<float, 3>>;

// Twice the signed area of a triangle in the xy plane, in double.
double area2(const Points& p, const LocalTriangle& t) {
  const auto& a = p[t[0]];
  const auto& b = p[t[1]];
  const auto& c = p[t[2]];
  return (double{b[0]} - a[0]) * (double{c[1]} - a[1]) -
         (double{b[1]} - a[1]) * (double{c[0]} - a[0]);
}

double polygon_area2(const Points& p) {
  double sum = 0.0;
  for (std::size_t i = 0; i < p.size(); ++i) {
    const auto& a = p[i];
    const auto& b = p[(i + 1) % p.size()];
    sum += double{a[0]} * b[1] - double{b[0]} * a[1];
  }
  return sum;
}

// A valid triangulation of a planar xy polygon: n - 2 triangles of the
// polygon's own orientation, none degenerate, covering exactly its area,
// every corner used.
void expect_valid_triangulation(const Points& p, const std::vector<LocalTriangle>& triangles) {
  ASSERT_EQ(triangles.size(), p.size() - 2);
  const double total = polygon_area2(p);
  double sum = 0.0;
  std::set<std::uint32_t> used;
  for (const LocalTriangle& t : triangles) {
    const double a = area2(p, t);
    EXPECT_GT(a * total, 0.0) << "triangle " << t[0] << " " << t[1] << " " << t[2];
    sum += a;
    used.insert(t.begin(), t.end());
  }
  EXPECT_NEAR(sum, total, 1e-9 * std::fabs(total));
  EXPECT_EQ(used.size(), p.size());
}

// A comb of unit teeth above a bar, counter-clockwise: 4 * teeth + 4 corners.
Points comb(std::size_t teeth) {
  Points p = {{0, 0, 0}};
  for (std::size_t i = 0; i < teeth; ++i) {
    const float x = static_cast<float>(2 * i);
    p.insert(p.end(), {{x + 1, 0, 0}, {x + 1, 1, 0}, {x + 2, 1, 0}, {x + 2, 0, 0}});
  }
  const float end = static_cast<float>(2 * teeth + 1);
  p.insert(p.end(), {{end, 0, 0}, {end, -1, 0}, {0, -1, 0}});
  return p;
}

// n corners on the unit circle, each `step` n-ths of a turn after the last.
Points ring(std::size_t n, std::size_t step = 1) {
  Points p;
  for (std::size_t i = 0; i < n; ++i) {
    const double angle =
        2.0 * std::numbers::pi * static_cast<double>(i * step) / static_cast<double>(n);
    p.push_back({static_cast<float>(std::cos(angle)), static_cast<float>(std::sin(angle)), 0.5f});
  }
  return p;
}

// A pentagram: every turn has the same sign, yet its edges cross.
Points star() {
  return ring(5, 2);
}

TEST(FaceRule, RefusalsAndTheSplitOfQuadsAndPolygons) {
  const FacePolicy split_accept{};
  const FacePolicy reject_all{QuadPolicy::reject, PolygonPolicy::reject};
  for (std::size_t n : {0, 1, 2}) {
    EXPECT_EQ(face_refusal(n, split_accept).value_or(""), "face with fewer than three corners");
  }
  for (std::size_t n : {3, 4, 9}) {
    EXPECT_FALSE(face_refusal(n, split_accept)) << n;
  }
  EXPECT_FALSE(face_refusal(3, reject_all));
  EXPECT_EQ(face_refusal(4, reject_all).value_or(""),
            "quad face, but quads are set to be rejected; triangulate the mesh before export");
  for (std::size_t n : {5, 12}) {
    EXPECT_EQ(face_refusal(n, reject_all).value_or(""),
              "face with " + std::to_string(n) +
                  " corners, but polygons are set to be rejected; triangulate the mesh before "
                  "export");
  }
  // Each policy governs only its own face size.
  EXPECT_FALSE(face_refusal(4, FacePolicy{QuadPolicy::split, PolygonPolicy::reject}));
  EXPECT_FALSE(face_refusal(5, FacePolicy{QuadPolicy::reject, PolygonPolicy::accept}));

  EXPECT_EQ(test::error_of([&] { check_face(2, split_accept, "m.obj: "); }),
            "m.obj: face with fewer than three corners");
  EXPECT_EQ(test::error_of([&] { check_face(4, split_accept, "m.obj: "); }), "");

  // Corners a b c d give (a, b, d) and (b, c, d); larger faces fan from a.
  const std::vector<std::pair<std::size_t, std::vector<LocalTriangle>>> cases = {
      {3, {{0, 1, 2}}},
      {4, {{0, 1, 3}, {1, 2, 3}}},
      {5, {{0, 1, 2}, {0, 2, 3}, {0, 3, 4}}},
      {7, {{0, 1, 2}, {0, 2, 3}, {0, 3, 4}, {0, 4, 5}, {0, 5, 6}}}};
  for (const auto& [n, triangles] : cases) {
    ASSERT_EQ(face_triangle_count(n), triangles.size()) << n;
    for (std::size_t t = 0; t < triangles.size(); ++t) {
      EXPECT_EQ(face_triangle(n, t), triangles[t]) << n;
    }
  }
}

TEST(ExactTriangulation, ConvexPolygonsKeepTheirFan) {
  for (std::size_t n : {3u, 5u, 6u, 64u, 6000u}) {
    std::vector<LocalTriangle> out;
    ASSERT_TRUE(triangulate_polygon_exact(ring(n), out)) << n;
    ASSERT_EQ(out.size(), n - 2);
    for (std::size_t t = 0; t < out.size(); ++t) {
      ASSERT_EQ(out[t], face_triangle(n, t)) << n;
    }
  }
}

TEST(ExactTriangulation, ConcavePolygonsAreClippedWithoutDegenerateTriangles) {
  // A chevron whose fan from corner 0 has a zero-area triangle (corners 0, 2
  // and 3 lie on one line).
  const Points chevron = {{0, 0, 0}, {2, 0, 0}, {2, 2, 0}, {1, 1, 0}, {0, 2, 0}};
  std::vector<LocalTriangle> out;
  ASSERT_TRUE(triangulate_polygon_exact(chevron, out));
  expect_valid_triangulation(chevron, out);
  // Ears are taken from corner 1 onwards in polygon order.
  EXPECT_EQ(out, (std::vector<LocalTriangle>{{1, 2, 3}, {3, 4, 0}, {3, 0, 1}}));

  // An L shape, clockwise: the winding of the polygon is kept.
  const Points ell = {{0, 0, 0}, {0, 3, 0}, {1, 3, 0}, {1, 1, 0}, {3, 1, 0}, {3, 0, 0}};
  ASSERT_TRUE(triangulate_polygon_exact(ell, out));
  expect_valid_triangulation(ell, out);
  EXPECT_LT(polygon_area2(ell), 0.0);

  // A comb with many reflex corners; beyond the corner limit the same
  // shape is left to its fan.
  ASSERT_TRUE(triangulate_polygon_exact(comb(10), out));
  expect_valid_triangulation(comb(10), out);
  const std::size_t teeth = (kExactPolygonCornerLimit - 4) / 4;
  ASSERT_EQ(comb(teeth).size(), kExactPolygonCornerLimit);
  ASSERT_TRUE(triangulate_polygon_exact(comb(teeth), out));
  expect_valid_triangulation(comb(teeth), out);
  EXPECT_FALSE(triangulate_polygon_exact(comb(teeth + 1), out));

  // A square with a corner in the middle of one side: that corner is flat
  // and never the tip of an ear.
  const Points t_junction = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0.5f, 1, 0}, {0, 1, 0}};
  ASSERT_TRUE(triangulate_polygon_exact(t_junction, out));
  expect_valid_triangulation(t_junction, out);

  // The chevron drawn in the yz plane, facing -x: seen along x (the dominant
  // axis) its triangles keep the polygon's orientation and cover it.
  Points side, seen;
  for (const auto& p : chevron) {
    side.push_back({5, p[1], p[0]});
    seen.push_back({p[1], p[0], 0});
  }
  ASSERT_TRUE(triangulate_polygon_exact(side, out));
  expect_valid_triangulation(seen, out);
}

TEST(ExactTriangulation, SelfIntersectingAndDegeneratePolygonsHaveNone) {
  Points infinite = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0.5f, 2, 0}, {0, 1, 0}};
  infinite[3][0] = INFINITY;
  const std::vector<Points> refused = {
      star(),
      {{0, 0, 0}, {2, 2, 0}, {2, 0, 0}, {0, 2, 0}, {-1, 1, 0}},  // a bow tie with a fifth corner
      {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {1, 1, 0}, {0, 1, 0}},   // two corners at one place
      {{0, 0, 0}, {2, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}},   // an edge folding back
      {{0, 0, 0}, {1, 1, 1}, {2, 2, 2}, {3, 3, 3}, {4, 4, 4}},   // all corners on one line
      infinite,
      {{0, 0, 0}, {4, 0, 0}, {4, 4, 0}, {2, 0, 0}, {0, 4, 0}},  // touching a non-adjacent edge
      {{0, 0, 0}, {1, 0, 0}},
  };
  for (std::size_t i = 0; i < refused.size(); ++i) {
    std::vector<LocalTriangle> out;
    EXPECT_FALSE(triangulate_polygon_exact(refused[i], out)) << i;
  }
}

TEST(ExactTriangulation, TurnsOfOneFloatStepCount) {
  // Corner 1 turns by the smallest step float allows at 2^24: strictly
  // convex, so the polygon keeps its fan.
  const float big = 16777216.0f;
  const Points off_line = {
      {0, 0, 0}, {big, 0, 0}, {2 * big, 2.0f, 0}, {2 * big, big, 0}, {0, big, 0}};
  std::vector<LocalTriangle> out;
  ASSERT_TRUE(triangulate_polygon_exact(off_line, out));
  expect_valid_triangulation(off_line, out);
  EXPECT_EQ(out[0], (LocalTriangle{0, 1, 2}));

  // Corner 4 dents inward by one float step below 1: the polygon is concave
  // and corner 4 must not become the tip of an ear.
  const float below_one = std::nextafter(1.0f, 0.0f);
  const Points dent = {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {2, 1, 0}, {1, below_one, 0}, {0, 1, 0}};
  ASSERT_TRUE(triangulate_polygon_exact(dent, out));
  expect_valid_triangulation(dent, out);
  for (const LocalTriangle& t : out) {
    EXPECT_FALSE(t[1] == 4 && t[0] == 3 && t[2] == 5) << "the reflex corner was clipped";
  }
}

Mesh polygon_mesh(const std::vector<Points>& polygons, std::vector<PolygonRecord>& records) {
  Mesh mesh;
  mesh.objects = {"o"};
  for (const Points& polygon : polygons) {
    const auto base = static_cast<std::uint32_t>(mesh.positions.size());
    mesh.positions.insert(mesh.positions.end(), polygon.begin(), polygon.end());
    records.push_back(
        PolygonRecord{mesh.triangles.size(), static_cast<std::uint32_t>(polygon.size())});
    for (std::size_t t = 0; t < face_triangle_count(polygon.size()); ++t) {
      const LocalTriangle local = face_triangle(polygon.size(), t);
      Triangle triangle;
      for (std::size_t k = 0; k < 3; ++k) {
        // UV and normal indices ride along with their corner.
        triangle.corners[k] =
            Corner{base + local[k], static_cast<std::int32_t>(base + local[k]) + 1000,
                   static_cast<std::int32_t>(base + local[k]) + 2000};
      }
      triangle.object = 0;
      mesh.triangles.push_back(triangle);
    }
  }
  return mesh;
}

TEST(ExactTriangulation, RecordedFansAreReplacedInPlace) {
  const Points convex = {{0, 0, 0}, {2, 0, 0}, {3, 1, 0}, {2, 2, 0}, {0, 2, 0}};
  const Points chevron = {{0, 0, 0}, {2, 0, 0}, {2, 2, 0}, {1, 1, 0}, {0, 2, 0}};
  std::vector<PolygonRecord> records;
  Mesh mesh = polygon_mesh({convex, chevron, star()}, records);
  const Mesh before = mesh;
  EXPECT_EQ(retriangulate_polygons(mesh, records, nullptr), 1u);
  ASSERT_EQ(mesh.triangles.size(), 9u);
  // Convex: the fan stays; star: inexact, the fan stays.
  for (std::size_t t : {0u, 1u, 2u, 6u, 7u, 8u}) {
    EXPECT_EQ(std::memcmp(&mesh.triangles[t], &before.triangles[t], sizeof(Triangle)), 0) << t;
  }
  // Chevron (positions 5..9): the clipped ears, whole corners carried.
  const std::vector<LocalTriangle> expected = {{1, 2, 3}, {3, 4, 0}, {3, 0, 1}};
  for (std::size_t t = 0; t < 3; ++t) {
    for (std::size_t k = 0; k < 3; ++k) {
      const Corner& corner = mesh.triangles[3 + t].corners[k];
      EXPECT_EQ(corner.position, 5 + expected[t][k]);
      EXPECT_EQ(corner.uv, static_cast<std::int32_t>(corner.position) + 1000);
      EXPECT_EQ(corner.normal, static_cast<std::int32_t>(corner.position) + 2000);
    }
  }

  // Many polygons over several tasks: one and two threads agree.
  std::vector<Points> many;
  for (int i = 0; i < 40000; ++i) {
    many.push_back(i % 3 == 0 ? star() : (i % 3 == 1 ? chevron : convex));
  }
  std::vector<PolygonRecord> many_records;
  Mesh one = polygon_mesh(many, many_records);
  Mesh two = one;
  WorkerPool pool_one(1);
  WorkerPool pool_two(2);
  EXPECT_EQ(retriangulate_polygons(one, many_records, &pool_one), 13334u);
  EXPECT_EQ(retriangulate_polygons(two, many_records, &pool_two), 13334u);
  ASSERT_EQ(one.triangles.size(), two.triangles.size());
  EXPECT_EQ(std::memcmp(one.triangles.data(), two.triangles.data(),
                        one.triangles.size() * sizeof(Triangle)),
            0);
}

}  // namespace
}  // namespace kv
