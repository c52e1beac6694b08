#include "service/mesh_transform.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "core/error.h"
#include "mesh/mesh_test_util.h"

namespace {

using kv::Corner;
using kv::Mesh;
using kv::Triangle;

Triangle triangle(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t object,
                  std::int32_t uv = -1, std::int32_t normal = -1) {
  Triangle t;
  t.corners = {Corner{a, uv, normal}, Corner{b, uv < 0 ? -1 : uv + 1, normal},
               Corner{c, uv < 0 ? -1 : uv + 2, normal}};
  t.object = object;
  return t;
}

// Two triangles with a normal each, and per-corner colours.
Mesh two_triangles() {
  Mesh m;
  m.positions = {{1, 2, 3}, {4, 5, 6}, {-1, 0, 0.5f}, {0, 0, 0}};
  m.normals = {{0, 0, 1}, {0.6f, 0.8f, 0}};
  m.triangles = {triangle(0, 1, 2, 0, -1, 0), triangle(1, 3, 2, 0, -1, 1)};
  m.objects = {"A"};
  for (int i = 0; i < 6; ++i) {
    m.colors.push_back({static_cast<float>(i), 0, 0});
  }
  return m;
}

using Vec = std::array<float, 3>;

TEST(MeshTransform, UpAxisYIsAQuarterTurnAboutX) {
  Mesh m = two_triangles();
  kv::service::apply_up_axis_y(m);
  EXPECT_EQ(m.positions[0], (Vec{1, -3, 2}));
  EXPECT_EQ(m.positions[2], (Vec{-1, -0.5f, 0}));
  EXPECT_EQ(m.normals[0], (Vec{0, -1, 0}));
  EXPECT_EQ(m.normals[1], (Vec{0.6f, 0, 0.8f}));
  // A rotation: the winding stays.
  EXPECT_EQ(m.triangles[0].corners[1].position, 1u);
  EXPECT_EQ(m.triangles[0].corners[2].position, 2u);
}

std::array<double, 16> matrix(std::initializer_list<double> rows) {
  std::array<double, 16> m{};
  std::copy(rows.begin(), rows.end(), m.begin());
  return m;
}

TEST(MeshTransform, MatrixMovesPointsAndTurnsNormalsByTheInverseTranspose) {
  Mesh m = two_triangles();
  // Scale x by 2, then move by (10, 20, 30).
  kv::service::apply_matrix(m, matrix({2, 0, 0, 10, 0, 1, 0, 20, 0, 0, 1, 30, 0, 0, 0, 1}));
  EXPECT_EQ(m.positions[0], (Vec{12, 22, 33}));
  EXPECT_EQ(m.positions[2], (Vec{8, 20, 30.5f}));
  EXPECT_EQ(m.normals[0], (Vec{0, 0, 1}));
  // (0.6, 0.8, 0) through diag(1/2, 1, 1): (0.3, 0.8, 0) / |.|.
  const double length = std::sqrt(0.3 * 0.3 + 0.8 * 0.8);
  EXPECT_NEAR(m.normals[1][0], 0.3 / length, 1e-6);
  EXPECT_NEAR(m.normals[1][1], 0.8 / length, 1e-6);
  EXPECT_EQ(m.normals[1][2], 0.0f);
  EXPECT_EQ(m.triangles[0].corners[1].position, 1u);

  // A mirror in x turns the winding around so that the front stays the front;
  // corner 0 and the per-corner data stay with their corners.
  Mesh mirrored = two_triangles();
  kv::service::apply_matrix(mirrored, matrix({-1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1}));
  EXPECT_EQ(mirrored.positions[1], (Vec{-4, 5, 6}));
  EXPECT_EQ(mirrored.normals[1], (Vec{-0.6f, 0.8f, 0}));
  const Triangle& t = mirrored.triangles[1];
  EXPECT_EQ(t.corners[0].position, 1u);
  EXPECT_EQ(t.corners[1].position, 2u);
  EXPECT_EQ(t.corners[2].position, 3u);
  EXPECT_EQ(mirrored.colors[4][0], 5.0f);
  EXPECT_EQ(mirrored.colors[5][0], 4.0f);
}

TEST(MeshTransform, RefusedMatrixLeavesTheMeshAsItWas) {
  const Mesh original = two_triangles();
  Mesh m = two_triangles();
  // Flattening z leaves normals in the xy plane without a direction.
  EXPECT_EQ(
      kv::test::error_of([&] {
        kv::service::apply_matrix(m, matrix({1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}));
      }),
      "the matrix leaves normal 1 without a direction");
  EXPECT_EQ(
      kv::test::error_of([&] {
        kv::service::apply_matrix(m, matrix({1e38, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1}));
      }),
      "the matrix takes vertex 1 beyond the float range");
  kv::test::expect_same_mesh(m, original);
}

// Objects A, B, C with their own positions, UVs and normals.
Mesh three_objects() {
  Mesh m;
  for (int i = 0; i < 9; ++i) {
    m.positions.push_back({static_cast<float>(i), 0, 0});
    m.uvs.push_back({i / 10.0, 0});
  }
  m.normals = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
  m.triangles = {triangle(0, 1, 2, 0, 0, 0), triangle(3, 4, 5, 1, 3, 1), triangle(6, 7, 8, 2, 6, 2),
                 triangle(8, 7, 0, 0)};
  m.objects = {"A", "B", "C"};
  m.object_alt_names = {"a", "b", "c"};
  m.materials = {"default", "metal"};
  m.triangle_materials = {0, 1, 1, 0};
  return m;
}

TEST(MeshTransform, FilterKeepsNamedObjectsInMeshOrder) {
  const Mesh m = kv::service::filter_objects(three_objects(), {"C", "A"});
  EXPECT_EQ(m.objects, (std::vector<std::string>{"A", "C"}));
  EXPECT_EQ(m.object_alt_names, (std::vector<std::string>{"a", "c"}));
  ASSERT_EQ(m.triangles.size(), 3u);
  EXPECT_EQ(m.triangles[0].object, 0u);
  EXPECT_EQ(m.triangles[1].object, 1u);
  EXPECT_EQ(m.triangles[2].object, 0u);
  // B's positions 3..5, its UVs and its normal are gone; the rest keep their
  // order and the corners follow them.
  ASSERT_EQ(m.positions.size(), 6u);
  EXPECT_EQ(m.positions[3][0], 6.0f);
  EXPECT_EQ(m.triangles[1].corners[0].position, 3u);
  EXPECT_EQ(m.triangles[2].corners[2].position, 0u);
  ASSERT_EQ(m.uvs.size(), 6u);
  EXPECT_EQ(m.triangles[1].corners[2].uv, 5);
  EXPECT_EQ(m.uvs[5][0], 0.8);
  EXPECT_EQ(m.triangles[2].corners[0].uv, -1);
  ASSERT_EQ(m.normals.size(), 2u);
  EXPECT_EQ(m.triangles[1].corners[0].normal, 1);
  EXPECT_EQ(m.normals[1], (Vec{0, 0, 1}));
  EXPECT_EQ(m.triangle_materials, (kv::LargeArray<std::uint32_t>{0, 1, 0}));

  EXPECT_EQ(kv::service::filter_objects(three_objects(), {}).triangles.size(), 4u);
}

TEST(MeshTransform, FilterNamesTheFirstAbsentObject) {
  EXPECT_EQ(kv::test::error_of([] {
              kv::service::filter_objects(three_objects(), {"A", "Z", "Y"});
            }),
            "the mesh has no object \"Z\"");
  Mesh m = three_objects();
  m.objects.push_back("Empty");
  m.object_alt_names.push_back("e");
  EXPECT_EQ(kv::test::error_of([&] { kv::service::filter_objects(std::move(m), {"Empty"}); }),
            "the named objects hold no triangles");
}

}  // namespace
