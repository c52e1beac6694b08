#include "sampling/ray_setup.h"

#include <gtest/gtest.h>

#include <array>
#include <tuple>
#include <vector>

#include "support/bake_test_meshes.h"

namespace kv {
namespace {

using test::add_plane;
using test::PlaneSpec;

TEST(RaySetup, DistancesAndTheQueryFromTheLowSurface) {
  Mesh high;
  high.positions = {{-1.0f, 0.0f, 0.0f}, {2.0f, 0.5f, 0.25f}};
  EXPECT_EQ(mesh_extent(high), 3.0);
  using Distances = std::array<float, 4>;
  const auto fields = [](const RayDistances& d) {
    return Distances{d.scale, d.front, d.rear, d.t_max};
  };
  EXPECT_EQ(fields(ray_distances(high, 0.01f, 0.02f, true)),
            (Distances{3.0f, 0.01f * 3.0f, 0.02f * 3.0f, 0.02f * 3.0f + 0.01f * 3.0f}));
  EXPECT_EQ(fields(ray_distances(high, 0.01f, 0.02f, false)),
            (Distances{1.0f, 0.01f, 0.02f, 0.02f + 0.01f}));
  EXPECT_EQ(ray_distances(Mesh{}, 0.01f, 0.02f, true).t_max, 0.0f);

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
  using V = std::array<float, 3>;
  EXPECT_EQ(std::tuple(q.surface_point, q.surface_normal, q.origin, q.direction),
            std::tuple(V{0.75f, 0.25f, 2.0f}, V{0, 0, 1}, V{0.75f, 0.25f, 2.5f}, V{0, 0, -1}));
  EXPECT_EQ(std::tuple(q.t_max, q.front, q.rear, q.group, q.ignore_backface),
            std::tuple(0.75f, 0.5f, 0.25f, 9, std::uint8_t{0}));

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

TEST(RaySetup, BlendedHighNormalsFallBackToFaceNormals) {
  // Corner normals (1, 0, 0), (0, 1, 0) and none: the third corner takes the
  // face normal, +z, and the blend at (0.25, 0.25) weighs them 0.5, 0.25, 0.25.
  Mesh mesh;
  test::add_triangle(mesh, {{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}}, {}, 0,
                     test::Corners3{{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}});
  mesh.triangles[0].corners[2].normal = -1;
  Vec3f n{};
  ASSERT_TRUE(blended_normal(mesh, 0, 0.25f, 0.25f, n));
  const float inv = 1.0f / std::sqrt(0.375f);
  EXPECT_EQ(n, (Vec3f{0.5f * inv, 0.25f * inv, 0.25f * inv}));
  // A corner without a normal on a triangle without area has none at all.
  Mesh flat;
  test::add_triangle(flat, {{{0, 0, 0}, {1, 0, 0}, {2, 0, 0}}});
  EXPECT_FALSE(blended_normal(flat, 0, 0.25f, 0.25f, n));
  // Opposite corner normals that cancel out leave no usable length.
  Mesh cancel;
  test::add_triangle(cancel, {{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}}, {}, 0,
                     test::Corners3{{{0, 0, 1}, {0, 0, -1}, {0, 0, 1}}});
  EXPECT_FALSE(blended_normal(cancel, 0, 0.5f, 0.0f, n));
}

}  // namespace
}  // namespace kv
