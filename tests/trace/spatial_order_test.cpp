#include "trace/spatial_order.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <numeric>

#include "support/bake_test_meshes.h"

namespace kv {
namespace {

// Each axis takes every third bit, x lowest; the cube's ends and anything
// outside (NaN included) fall into the end cells.
TEST(SpatialOrder, MortonCodeInterleavesTheAxes) {
  EXPECT_EQ(morton_code(0, 0, 0), 0u);
  EXPECT_EQ(morton_code(1, 0, 0), 0x09249249u);
  EXPECT_EQ(morton_code(0, 1, 0), 0x12492492u);
  EXPECT_EQ(morton_code(0, 0, 1), 0x24924924u);
  EXPECT_EQ(morton_code(1, 1, 1), 0x3FFFFFFFu);
  // 0.5 is cell 512: the top bit of x, moved to bit 27.
  EXPECT_EQ(morton_code(0.5, 0, 0), 1u << 27);
  // Cell 1 begins at exactly 1/1024; just below it is still cell 0.
  EXPECT_EQ(morton_code(0, 1.0 / 1024, 0), 2u);
  EXPECT_EQ(morton_code(0, std::nextafter(1.0 / 1024, 0.0), 0), 0u);
  const double nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(morton_code(nan, -3, 7), 0x24924924u);
}

// A row of triangles along x, stored in reverse, comes out in increasing x;
// triangles with the same centre keep their index order; the result is a
// permutation that does not depend on the thread count.
TEST(SpatialOrder, SortsBySpaceAndKeepsTiesInIndexOrder) {
  Mesh row;
  for (int i = 9; i >= 0; --i) {
    const float x = static_cast<float>(i);
    test::add_triangle(row, {{{x, 0, 0}, {x + 0.5f, 0, 0}, {x, 0.5f, 0}}});
  }
  // Two copies of the triangle at x = 3 (index 6): indices 10 and 11.
  test::add_triangle(row, {{{3, 0, 0}, {3.5f, 0, 0}, {3, 0.5f, 0}}});
  test::add_triangle(row, {{{3, 0, 0}, {3.5f, 0, 0}, {3, 0.5f, 0}}});
  const WorkerPool one(1);
  EXPECT_EQ(spatial_order(row, one),
            (LargeArray<std::uint32_t>{9, 8, 7, 6, 10, 11, 5, 4, 3, 2, 1, 0}));

  const Mesh field = test::bumpy_field(200);  // 80,000 triangles, several chunks
  const LargeArray<std::uint32_t> order = spatial_order(field, one);
  EXPECT_EQ(order, spatial_order(field, WorkerPool(2)));
  LargeArray<std::uint32_t> sorted = order;
  std::sort(sorted.begin(), sorted.end());
  LargeArray<std::uint32_t> all(field.triangles.size());
  std::iota(all.begin(), all.end(), 0u);
  EXPECT_EQ(sorted, all);
  // Row-major cells are not space order: the field's order is changed.
  EXPECT_NE(order, all);

  EXPECT_TRUE(spatial_order(Mesh{}, one).empty());
}

}  // namespace
}  // namespace kv
