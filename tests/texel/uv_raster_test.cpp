#include "texel/uv_raster.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <tuple>

#include "core/error.h"
#include "support/bake_test_meshes.h"

namespace kv {
namespace {

using test::add_uv_triangle;
using test::message_of;
using Box = std::array<std::int32_t, 4>;
using Bary = std::tuple<std::int32_t, double, double>;

Bary fields(const RasterHit& h) {
  return {h.triangle, h.b1, h.b2};
}

// Triangles `left` and `right` share the vertical edge u = 0.25 from v = 0 to
// v = 1; every other index is a filler far outside the image.
Mesh shared_edge_mesh(std::uint32_t left, std::uint32_t right) {
  Mesh mesh;
  for (std::uint32_t t = 0; t <= std::max(left, right); ++t) {
    if (t == left) {
      add_uv_triangle(mesh, {{{0, 0}, {0.25, 0}, {0.25, 1}}});
    } else if (t == right) {
      add_uv_triangle(mesh, {{{0.25, 0}, {1, 0}, {0.25, 1}}});
    } else {
      add_uv_triangle(mesh, {{{10, 10}, {11, 10}, {10, 11}}});
    }
  }
  return mesh;
}

TEST(UvRasterTieBreak, SharedEdgeGoesToTheHigherIndexAndMasksApply) {
  // W = 1 with a = 2 puts the sample centres at u, v in {0.25, 0.75}, so
  // sample (0, 0) lies exactly on the shared edge at (0.25, 0.75).
  for (const auto& [left, right] : {std::pair{3u, 7u}, std::pair{7u, 3u}}) {
    const Mesh mesh = shared_edge_mesh(left, right);
    for (const int bits : {-1, 8, 16}) {
      EXPECT_EQ(UvRaster(mesh, 1, 1, 0, 0, bits, false).lookup(0, 0, 2).triangle, 7)
          << "left " << left << " bits " << bits;
    }
    const UvRaster raster(mesh, 1, 1, 0, 0, -1, false);
    std::vector<std::int32_t> all = {42};
    raster.lookup_all(0, 0, 2, all);
    EXPECT_EQ(all, (std::vector<std::int32_t>{7, 3}));
    // Away from the edge only one of them covers the sample.
    raster.lookup_all(1, 1, 2, all);
    EXPECT_EQ(all, (std::vector<std::int32_t>{static_cast<std::int32_t>(right)}));
  }
  // A masked triangle owns no texels but keeps its index.
  const Mesh mesh = shared_edge_mesh(3, 7);
  std::vector<std::uint8_t> mask(mesh.triangles.size(), 1);
  mask[7] = 0;
  const UvRaster masked(mesh, 1, 1, 0, 0, -1, false, mask);
  EXPECT_EQ(std::pair(masked.lookup(0, 0, 2).triangle, masked.lookup(1, 1, 2).triangle),
            std::pair(3, -1));
}

TEST(UvRasterCoverage, EdgesAndCornersAreInclusive) {
  // Corners exactly on three sample centres; the fourth sample lies outside.
  for (const bool clockwise : {false, true}) {
    Mesh mesh;
    const double a = clockwise ? 0.25 : 0.75, b = clockwise ? 0.75 : 0.25;
    add_uv_triangle(mesh, {{{0.25, 0.25}, {a, b}, {b, a}}});
    for (const int bits : {-1, 8}) {
      const UvRaster raster(mesh, 1, 1, 0, 0, bits, false);
      // Sample (sx, sy) = (0, 1) is at (0.25, 0.25), corner 0.
      EXPECT_EQ(fields(raster.lookup(0, 1, 2)), Bary(0, 0.0, 0.0));
      // (1, 1) is at (0.75, 0.25): corner 1 (or 2 when wound the other way).
      EXPECT_EQ(fields(raster.lookup(1, 1, 2)), Bary(0, !clockwise, clockwise));
      // (0, 0) is at (0.25, 0.75).
      const RasterHit hit = raster.lookup(0, 0, 2);
      EXPECT_EQ(std::pair(hit.triangle, hit.b1 + hit.b2), std::pair(0, 1.0));
      // (1, 0) is at (0.75, 0.75): beyond the long edge.
      EXPECT_EQ(raster.lookup(1, 0, 2).triangle, -1);
    }
    // A point of the long edge at a = 4: sample (1, 1) is (0.375, 0.625).
    const RasterHit mid = UvRaster(mesh, 1, 1, 0, 0, -1, false).lookup(1, 1, 4);
    EXPECT_EQ(std::pair(mid.triangle, mid.b1 + mid.b2), std::pair(0, 1.0));
  }
}

TEST(UvRasterDegenerate, TinyOrInvalidUvAreasAreCountedAndOwnNothing) {
  Mesh mesh;
  add_uv_triangle(mesh, {{{0.1, 0.1}, {0.5, 0.1}, {0.9, 0.1}}});                  // collinear
  add_uv_triangle(mesh, {{{0.5, 0.5}, {0.5 + 7e-11, 0.5}, {0.5, 0.5 + 7e-11}}});  // A = 4.9e-21
  add_uv_triangle(mesh, {{{0.5, 0.5}, {0.5 + 2e-10, 0.5}, {0.5, 0.5 + 2e-10}}});  // A = 4e-20
  const double nan = std::numeric_limits<double>::quiet_NaN();
  add_uv_triangle(mesh, {{{nan, 0.1}, {0.5, 0.1}, {0.9, 0.8}}});
  add_uv_triangle(mesh, {{{0.1, 0.1}, {std::numeric_limits<double>::infinity(), 0.1}, {0.9, 0.8}}});
  const UvRaster raster(mesh, 8, 8, 0, 0, -1, false);
  EXPECT_EQ(raster.degenerate_count(), 4u);
  const Box empty = {0, -1, 0, -1};
  for (const std::size_t t : {0, 1, 3, 4}) {
    EXPECT_EQ(raster.cell_boxes()[t], empty) << t;
  }
  EXPECT_NE(raster.cell_boxes()[2], empty);
  EXPECT_EQ(raster.areas()[0], 0.0);
  EXPECT_GT(raster.areas()[2], 0.0);
  EXPECT_EQ(raster.cell_triangles().size(), 1u);
}

TEST(UvRasterUdim, TileOffsetShiftsUvsIntoTheImage) {
  Mesh mesh;
  // Covers the left half of tile 1002 (u 1..1.5) and a triangle in tile 1011.
  add_uv_triangle(mesh, {{{1.0, 0.0}, {1.5, 0.0}, {1.0, 1.0}}});
  add_uv_triangle(mesh, {{{0.5, 1.0}, {1.0, 1.0}, {1.0, 2.0}}});
  for (const int bits : {-1, 8}) {  // snapped lookups apply the same shift
    // Texel centres (0.125, 0.125) and (0.875, 0.125), plus U0.
    const UvRaster tile1002(mesh, 4, 4, 1, 0, bits, false);
    EXPECT_EQ(std::pair(tile1002.lookup(0, 3, 1).triangle, tile1002.lookup(3, 3, 1).triangle),
              std::pair(0, -1));
  }
  const UvRaster tile1001(mesh, 4, 4, 0, 0, -1, false);
  EXPECT_EQ(tile1001.lookup(0, 3, 1).triangle, -1);
  // Both touch the image only through their box widened by one texel.
  EXPECT_EQ(tile1001.cell_triangles().size(), 2u);
  const UvRaster tile1011(mesh, 4, 4, 0, 1, -1, false);  // (0.875, 1.125) and (0.125, 1.875)
  EXPECT_EQ(std::pair(tile1011.lookup(3, 3, 1).triangle, tile1011.lookup(0, 0, 1).triangle),
            std::pair(1, -1));
}

TEST(UvRasterSnap, CornersSnapToTexelsOrSubSampleFractions) {
  // 0 bits, unit texel: whole texels, whatever the anti-aliasing.
  for (const int a : {1, 2, 4, 8}) {  // 0.3 * 8 and (1 - 0.7) * 8 = 2.4 texels
    EXPECT_EQ(snap_corner({0.3, 0.7}, 8, 8, 0, 0, a, 0, true), (std::array{2.0 * a, 2.0 * a}));
  }
  // 0 bits, unit sample: whole samples (ties to even: see below).
  EXPECT_EQ(snap_corner({0.6, 1.0}, 4, 4, 0, 0, 4, 0, false)[0], 10.0);  // 9.6
  // 16 bits, unit sample: 1/65536 of a sample.
  const double u = 0.123456789;
  const double x16 = snap_corner({u, 0.0}, 4, 4, 0, 0, 2, 16, false)[0];
  EXPECT_EQ(x16 * 65536.0, std::nearbyint(u * 8 * 65536.0));
  // 16 bits, unit texel with a = 4: 1/65536 of a texel = 4/65536 of a sample.
  const double t16 = snap_corner({u, 0.0}, 4, 4, 0, 0, 4, 16, true)[0];
  EXPECT_EQ(t16 / 4 * 65536.0, std::nearbyint(u * 4 * 65536.0));
  // Against the library's ties-to-even rounding, negative coordinates included.
  std::mt19937 rng(3);
  std::uniform_int_distribution<int> halves(-4000, 4000);
  std::uniform_real_distribution<double> any(-3.0, 3.0);
  for (int i = 0; i < 1000; ++i) {
    const double tie = halves(rng) / 8.0;  // x = tie * 4 is a multiple of 0.5
    EXPECT_EQ(snap_corner({tie, 1.0}, 4, 4, 0, 0, 1, 0, false)[0], std::nearbyint(tie * 4));
    const double w = any(rng);
    EXPECT_EQ(snap_corner({w, 1.0}, 7, 4, 0, 0, 2, 5, false)[0],
              std::nearbyint(32.0 * w * 7 * 2) / 32.0);
  }
  // UDIM offsets are removed before snapping; v counts down from the top.
  EXPECT_EQ(snap_corner({1.25, 1.25}, 4, 4, 1, 1, 1, 0, false), (std::array<double, 2>{1.0, 3.0}));
}

TEST(UvRasterSnap, SnappingDecidesCoverageAtTheSnappedCorners) {
  // The triangle's right edge sits just left of the sample centre u = 0.625
  // (sample 2 of 4); snapped to half samples it passes exactly through it.
  Mesh mesh;
  add_uv_triangle(mesh, {{{0.0, 0.0}, {0.6249, 0.0}, {0.6249, 1.0}}});
  for (const int bits : {-1, 16}) {
    EXPECT_EQ(UvRaster(mesh, 4, 4, 0, 0, bits, false).lookup(2, 3, 1).triangle, -1);
  }
  // With 1 bit the corners snap to x = 2.5: sample (2.5, 3.5) against
  // snapped corners (0, 4), (2.5, 4), (2.5, 0) lies on the edge.
  const RasterHit hit = UvRaster(mesh, 4, 4, 0, 0, 1, false).lookup(2, 3, 1);
  EXPECT_EQ(std::pair(hit.triangle, hit.b1 + hit.b2), std::pair(0, 1.0));
  // With 0 bits unit texel at a = 2 the corners snap to x = 2 texels = 4
  // samples; sample column 4 (centre 4.5) is then outside.
  const UvRaster texel(mesh, 4, 4, 0, 0, 0, true);
  EXPECT_EQ(std::pair(texel.lookup(3, 7, 2).triangle, texel.lookup(4, 7, 2).triangle),
            std::pair(0, -1));
}

TEST(UvRasterBuild, ErrorsAndTheirMessages) {
  Mesh mesh;
  add_uv_triangle(mesh, {{{0, 0}, {1, 0}, {0, 1}}});
  EXPECT_EQ(message_of([&] { UvRaster(mesh, 0, 4, 0, 0, -1, false); }),
            "raster size must be positive");
  EXPECT_EQ(message_of([&] { UvRaster(mesh, 4, -1, 0, 0, -1, false); }),
            "raster size must be positive");
  const std::vector<std::uint8_t> mask = {1, 1};
  EXPECT_EQ(message_of([&] { UvRaster(mesh, 4, 4, 0, 0, -1, false, mask); }),
            "the raster filter does not match the low mesh's triangles");
  EXPECT_EQ(message_of([&] { UvRaster(mesh, 4, 4, 0, 0, 17, false); }),
            "UV snap bits must be 16 or fewer");
  EXPECT_EQ(message_of([&] { UvRaster(mesh, 4, 4, 0, 0, 16, false); }), "(no error)");
  EXPECT_EQ(message_of([&] { (void)UvRaster(mesh, 4, 4, 0, 0, 3, true).snapped_corners(0, 1); }),
            "snapped_corners needs a scale of at least 1");
  add_uv_triangle(mesh, {{{0, 0}, {1, 0}, {0, 1}}});
  mesh.triangles[1].corners[2].uv = -1;
  EXPECT_EQ(message_of([&] { UvRaster(mesh, 4, 4, 0, 0, -1, false); }),
            "low mesh triangle 1 has no UV coordinates");

  // 16384 x 16384 texels make 2048 x 2048 cells; every full-image triangle
  // touches all of them, so the 257th passes 2^30 references.
  Mesh stacked;
  for (int i = 0; i < 257; ++i) {
    add_uv_triangle(stacked, {{{0, 0}, {2, 0}, {0, 2}}});
  }
  EXPECT_EQ(message_of([&] { UvRaster(stacked, 16384, 16384, 0, 0, -1, false); }),
            "the low mesh UVs need more than 1073741824 triangle references in the UV raster "
            "grid; check for very large, stacked or scattered UV triangles");
}

TEST(UvRasterGrid, GridSizeFollowsEightTexelCells) {
  Mesh mesh;
  add_uv_triangle(mesh, {{{0, 0}, {1, 0}, {0, 1}}});
  const struct {
    int w, h, gw, gh;
  } cases[] = {{1, 1, 1, 1}, {8, 9, 1, 2}, {9, 1, 2, 1}, {16, 17, 2, 3}, {17, 64, 3, 8}};
  for (const auto& c : cases) {
    const UvRaster raster(mesh, c.w, c.h, 0, 0, -1, false);
    EXPECT_EQ(raster.grid_width(), c.gw) << c.w;
    EXPECT_EQ(raster.grid_height(), c.gh) << c.h;
    EXPECT_EQ(raster.cell_offsets().size(), static_cast<std::size_t>(c.gw * c.gh + 1));
    // The plain-memory form shows the same arrays.
    const UvRasterDescriptor d = raster.descriptor();
    EXPECT_EQ(std::tuple(d.grid_width, d.cell_size, d.cell_offset_count, d.cell_offsets,
                         d.cell_triangle_count, d.area_count, d.areas[0]),
              std::tuple(c.gw, 8, raster.cell_offsets().size(), raster.cell_offsets().data(),
                         raster.cell_triangles().size(), std::size_t{1}, raster.areas()[0]));
  }
  // Out-of-image samples find nothing.
  const UvRaster raster(mesh, 9, 9, 0, 0, -1, false);
  EXPECT_EQ(raster.lookup(-1, 0, 1).triangle, -1);
  EXPECT_EQ(raster.lookup(0, -1, 1).triangle, -1);
  EXPECT_EQ(raster.lookup(0, 18, 2).triangle, -1);
  EXPECT_EQ(raster.lookup(0, 17, 2).triangle, 0);
}

TEST(UvRasterGrid, CellBoxesWidenByOneTexel) {
  Mesh mesh;
  // Texels 8..9 (u 0.5..0.5625 at W = 16) widen to 7..10: cells 0 and 1.
  add_uv_triangle(mesh, {{{0.5, 0.5}, {0.5625, 0.5}, {0.5, 0.5625}}});
  // Texels 8..12 widen to 7..13, texels 4..8 to 3..9: cells 0..1 both.
  add_uv_triangle(mesh, {{{0.5, 0.5}, {0.75, 0.5}, {0.5, 0.75}}});
  add_uv_triangle(mesh, {{{0.25, 0.25}, {0.5, 0.25}, {0.25, 0.5}}});
  // Triangles half outside are clamped to the image.
  add_uv_triangle(mesh, {{{-0.5, -0.5}, {0.03, -0.5}, {-0.5, 0.03}}});
  const UvRaster raster(mesh, 16, 16, 0, 0, -1, false);
  for (const std::size_t t : {0, 1, 2}) {
    EXPECT_EQ(raster.cell_boxes()[t], (Box{0, 1, 0, 1})) << t;
  }
  EXPECT_EQ(raster.cell_boxes()[3], (Box{0, 0, 1, 1}));
}

// Every lookup equals a brute-force search over all triangles, highest index
// first, and its barycentrics interpolate the sample point: the grid must
// never lose a covering triangle.
TEST(UvRasterGrid, LookupMatchesBruteForceOnRandomTriangles) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> coord(-0.1, 1.1);
  std::uniform_real_distribution<double> size(-0.15, 0.15);
  Mesh mesh;
  for (int i = 0; i < 200; ++i) {
    const double u = coord(rng);
    const double v = coord(rng);
    add_uv_triangle(mesh,
                    {{{u, v}, {u + size(rng), v + size(rng)}, {u + size(rng), v + size(rng)}}});
  }
  const int w = 23, h = 17, a = 2;
  const UvRaster raster(mesh, w, h, 0, 0, -1, false);
  // Lists are in increasing triangle order.
  const auto offsets = raster.cell_offsets();
  const auto list = raster.cell_triangles();
  for (std::size_t c = 0; c + 1 < offsets.size(); ++c) {
    for (std::uint64_t k = offsets[c] + 1; k < offsets[c + 1]; ++k) {
      EXPECT_LT(list[k - 1], list[k]);
    }
  }
  const auto uv = [&](int t, int corner) {
    return mesh.uvs[mesh.triangles[static_cast<std::size_t>(t)].corners[corner].uv];
  };
  std::vector<std::int32_t> all;
  int hits = 0;
  for (int sy = 0; sy < h * a; ++sy) {
    for (int sx = 0; sx < w * a; ++sx) {
      const double u = (sx + 0.5) / (w * a);
      const double v = 1.0 - (sy + 0.5) / (h * a);
      std::vector<std::int32_t> expected;
      for (int t = static_cast<int>(mesh.triangles.size()) - 1; t >= 0; --t) {
        const auto p0 = uv(t, 0), p1 = uv(t, 1), p2 = uv(t, 2);
        const double area = (p2[1] - p0[1]) * (p1[0] - p0[0]) - (p1[1] - p0[1]) * (p2[0] - p0[0]);
        if (std::fabs(area) < 1e-20) {
          continue;
        }
        const double b1 = ((p2[1] - p0[1]) * (u - p0[0]) - (p2[0] - p0[0]) * (v - p0[1])) / area;
        const double b2 = ((p1[0] - p0[0]) * (v - p0[1]) - (p1[1] - p0[1]) * (u - p0[0])) / area;
        if (b1 >= 0 && b2 >= 0 && b1 + b2 <= 1) {
          expected.push_back(t);
        }
      }
      const RasterHit hit = raster.lookup(sx, sy, a);
      EXPECT_EQ(hit.triangle, expected.empty() ? -1 : expected[0]) << sx << "," << sy;
      raster.lookup_all(sx, sy, a, all);
      EXPECT_EQ(all, expected);
      if (hit.triangle >= 0) {
        ++hits;
        const double b0 = 1 - hit.b1 - hit.b2;
        const auto p0 = uv(hit.triangle, 0), p1 = uv(hit.triangle, 1), p2 = uv(hit.triangle, 2);
        EXPECT_NEAR(b0 * p0[0] + hit.b1 * p1[0] + hit.b2 * p2[0], u, 1e-12);
        EXPECT_NEAR(b0 * p0[1] + hit.b1 * p1[1] + hit.b2 * p2[1], v, 1e-12);
      }
    }
  }
  EXPECT_GT(hits, 100);
}

TEST(UvRasterSnappedCorners, ScalesThreadsAndKeptCorners) {
  const Mesh sphere = test::uv_sphere(48, 49, 1.0f, 0.0f);  // 4608 triangles: two tasks of 4096
  const UvRaster raster(sphere, 37, 29, 0, 0, 3, true);
  const std::vector<double> one = raster.snapped_corners(4, 1);
  ASSERT_EQ(one.size(), sphere.triangles.size() * 6);
  EXPECT_EQ(one, raster.snapped_corners(4, 2));
  for (const std::size_t t : {0, 4095, 4096, 4607}) {
    for (std::size_t i = 0; i < 3; ++i) {
      const auto q =
          snap_corner(sphere.uvs[sphere.triangles[t].corners[i].uv], 37, 29, 0, 0, 4, 3, true);
      EXPECT_EQ(one[t * 6 + i * 2], q[0]);
      EXPECT_EQ(one[t * 6 + i * 2 + 1], q[1]);
    }
  }
  EXPECT_TRUE(UvRaster(sphere, 37, 29, 0, 0, -1, false).snapped_corners(4, 2).empty());

  // Lookups through kept snapped corners equal lookups that snap every
  // candidate on the fly, at the kept scale and at others.
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> coord(0.0, 1.0);
  Mesh mesh;
  for (int i = 0; i < 120; ++i) {
    const double u = coord(rng);
    const double v = coord(rng);
    add_uv_triangle(mesh, {{{u, v}, {u + 0.2 * coord(rng), v}, {u, v + 0.2 * coord(rng)}}});
  }
  for (const bool texel : {false, true}) {
    const UvRaster plain(mesh, 13, 11, 0, 0, 2, texel);
    UvRaster kept(mesh, 13, 11, 0, 0, 2, texel);
    const auto corners = kept.keep_snapped_corners(4, 2);
    EXPECT_EQ(std::vector<double>(corners.begin(), corners.end()), plain.snapped_corners(4, 1));
    (void)kept.keep_snapped_corners(1, 1);
    EXPECT_EQ(kept.keep_snapped_corners(4, 1).data(), corners.data());  // kept once
    for (const int a : {1, 2, 4}) {
      int hits = 0;
      for (int sy = 0; sy < 11 * a; ++sy) {
        for (int sx = 0; sx < 13 * a; ++sx) {
          const RasterHit p = plain.lookup(sx, sy, a);
          ASSERT_EQ(fields(p), fields(kept.lookup(sx, sy, a))) << sx << "," << sy << " a " << a;
          hits += p.triangle >= 0 ? 1 : 0;
        }
      }
      EXPECT_GT(hits, 0);
    }
  }
  EXPECT_TRUE(UvRaster(mesh, 13, 11, 0, 0, -1, false).keep_snapped_corners(4, 1).empty());
}

// Every sample of a row looked up in runs of any start and length, against
// the same samples looked up one by one: the same triangle and the same
// bits of both weights, with corners kept or snapped on the fly, snapping
// off, stacked and shared edges, a degenerate triangle, a cell listing more
// candidates than a row sets up at once, and samples outside the image.
TEST(UvRasterRow, RunsGiveEverySampleTheBitsOfItsOwnLookup) {
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> coord(-0.1, 1.1);
  std::uniform_real_distribution<double> size(-0.3, 0.3);
  Mesh mesh;
  for (int i = 0; i < 150; ++i) {
    const double u = coord(rng);
    const double v = coord(rng);
    add_uv_triangle(mesh,
                    {{{u, v}, {u + size(rng), v + size(rng)}, {u + size(rng), v + size(rng)}}});
  }
  add_uv_triangle(mesh, {{{0.2, 0.2}, {0.9, 0.3}, {0.4, 0.8}}});
  add_uv_triangle(mesh, {{{0.2, 0.2}, {0.9, 0.3}, {0.4, 0.8}}});  // stacked on the one before
  add_uv_triangle(mesh, {{{0.3, 0.3}, {0.3, 0.3}, {0.6, 0.6}}});  // no area
  // Forty small triangles in the cell at the image's top left.
  std::uniform_real_distribution<double> corner(0.0, 0.12);
  for (int i = 0; i < 40; ++i) {
    add_uv_triangle(mesh, {{{corner(rng), 1.0 - corner(rng)},
                            {corner(rng), 1.0 - corner(rng)},
                            {corner(rng), 1.0 - corner(rng)}}});
  }
  const int w = 61, h = 37;
  std::uniform_int_distribution<int> piece(1, 40);
  const auto bits = [](const RasterHit& hit) {
    return std::tuple(hit.triangle, std::bit_cast<std::uint64_t>(hit.b1),
                      std::bit_cast<std::uint64_t>(hit.b2));
  };
  for (const auto& [snap, texel, keep] :
       {std::tuple(8, false, true), std::tuple(0, true, true), std::tuple(8, false, false),
        std::tuple(-1, false, false)}) {
    UvRaster raster(mesh, w, h, 0, 0, snap, texel);
    ASSERT_GT(raster.cell_candidates(0, 0, 1).size(), 32u);
    for (const int a : {1, 2, 3}) {
      if (keep) {
        (void)raster.keep_snapped_corners(a, 1);
      }
      std::uint64_t covered = 0;
      std::vector<RasterHit> row(static_cast<std::size_t>(w * a + 10));
      for (std::int64_t sy = -1; sy <= h * a; ++sy) {
        // From three samples left of the image to three right of it.
        std::int64_t sx = -3;
        while (sx < w * a + 3) {
          const int count = static_cast<int>(std::min<std::int64_t>(piece(rng), w * a + 3 - sx));
          raster.lookup_row(sx, sy, a, count, row.data());
          for (int i = 0; i < count; ++i) {
            const RasterHit one = raster.lookup(sx + i, sy, a);
            ASSERT_EQ(bits(row[static_cast<std::size_t>(i)]), bits(one))
                << "sample " << sx + i << "," << sy << " a " << a << " snap " << snap;
            covered += one.triangle >= 0 ? 1 : 0;
          }
          sx += count;
        }
      }
      EXPECT_GT(covered, static_cast<std::uint64_t>(w * h * a * a / 2)) << "a " << a;
    }
  }
}

}  // namespace
}  // namespace kv
