// Known answers of every map on generated planes, slabs and caps, and the
// maps' independence of threads and bands.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <functional>
#include <numbers>
#include <set>
#include <string>
#include <vector>

#include "image/unorm16.h"
#include "meshmaps/id_colors.h"
#include "meshmaps/map_ranges.h"
#include "meshmaps/meshmaps_bake.h"
#include "meshmaps/meshmaps_options.h"
#include "support/bake_test_meshes.h"
#include "trace/cpu_tracer.h"

namespace kv::meshmaps {
namespace {

using test::add_plane;
using test::add_triangle;
using test::PlaneSpec;

// Settings of a size x size bake asking for `maps` (file names are never
// written here), with more options after them.
MeshMapsSettings settings_for(int size, const std::vector<std::string>& maps,
                              std::vector<std::string> extra = {}) {
  std::vector<std::string> args = {"korvane", "meshmaps", "--low",  "l.obj",
                                   "--high",  "h.obj",    "--size", std::to_string(size)};
  for (const std::string& map : maps) {
    std::string option = "--out-" + map;
    for (char& c : option) {
      c = c == '_' ? '-' : c;
    }
    args.push_back(option);
    args.push_back(map + ".exr");
  }
  args.insert(args.end(), extra.begin(), extra.end());
  MeshMapsSettings s = parse_meshmaps_options(args);
  check_meshmaps_settings(s);
  return s;
}

MeshMapsRun bake(const Mesh& low, const Mesh& high, const MeshMapsSettings& s, int threads = 1) {
  return bake_mesh_maps(low, high, s, MeshMapsEnvironment{}, BakeExtras{}, threads);
}

// A wide floor at z under the unit low plane, so every primary ray hits.
Mesh floor_at(float z, float half = 1.5f) {
  Mesh high;
  PlaneSpec p = test::square(z, half);
  p.x0 += 0.5f;
  p.x1 += 0.5f;
  p.y0 += 0.5f;
  p.y1 += 0.5f;
  add_plane(high, p);
  return high;
}

// The texel centre's coordinate along one side of a size-texel map.
double centre(int i, int size) {
  return (static_cast<double>(i) + 0.5) / size;
}

TEST(MeshMapsPlane, UnoccludedPlaneIsExactInEveryPrimaryMap) {
  const Mesh low = test::unit_low_plane();
  const Mesh high = floor_at(0.0f);
  const int n = 16;
  const MeshMapsRun run = bake(
      low, high,
      settings_for(n, {"ao", "world_normal", "position", "height", "opacity", "bent_normals"}));
  const MeshMapsBuffers& b = run.buffers;
  EXPECT_EQ(b.counters.texels_hit, static_cast<std::uint64_t>(n * n));
  for (int y = 0; y < n; ++y) {
    for (int x = 0; x < n; ++x) {
      const std::size_t t = static_cast<std::size_t>(y * n + x);
      ASSERT_EQ(b.hit[t], 1);
      EXPECT_EQ(b.ao[t], 1.0f);  // every ray escapes: exactly 1
      EXPECT_EQ(b.opacity[t], 65535);
      EXPECT_EQ(b.world_normal[t * 3 + 0], 32768);
      EXPECT_EQ(b.world_normal[t * 3 + 1], 32768);
      EXPECT_EQ(b.world_normal[t * 3 + 2], 65535);
      EXPECT_EQ(b.height_map[t], 0.0f);
      // Low box [0,1]^2: position x maps onto u itself, row 0 at the top.
      EXPECT_NEAR(b.position[t * 3 + 0], encode_unorm16(centre(x, n)), 1);
      EXPECT_NEAR(b.position[t * 3 + 1], encode_unorm16(1.0 - centre(y, n)), 1);
      EXPECT_EQ(b.position[t * 3 + 2], 32768);
      // The mean escaping direction of a free hemisphere is the normal, up
      // to the sampling of 64 rays.
      EXPECT_NEAR(b.bent_normals[t * 3 + 0], 32768, 800);
      EXPECT_NEAR(b.bent_normals[t * 3 + 1], 32768, 800);
      EXPECT_GE(b.bent_normals[t * 3 + 2], 65000);
    }
  }
  const auto ao = ao_codes(b.ao, b.hit);
  EXPECT_EQ(ao[0], 65535);
}

TEST(MeshMapsPlane, WorldNormalYUpAndPositionModes) {
  const Mesh low = test::unit_low_plane();
  Mesh high;
  PlaneSpec tilted = test::square(0.0f, 1.5f);
  tilted.x0 += 0.5f;
  tilted.x1 += 0.5f;
  tilted.y0 += 0.5f;
  tilted.y1 += 0.5f;
  const float c = std::sqrt(0.5f);
  tilted.normal = std::array<float, 3>{0.0f, c, c};  // shading normal leaning to +y
  add_plane(high, tilted);
  const MeshMapsRun z_up = bake(low, high, settings_for(4, {"world_normal"}));
  const MeshMapsRun y_up =
      bake(low, high, settings_for(4, {"world_normal"}, {"--world-normal-up", "y"}));
  const std::uint16_t half = encode_unorm16(0.5 + 0.5 * static_cast<double>(c));
  EXPECT_EQ(z_up.buffers.world_normal[0], 32768);
  EXPECT_EQ(z_up.buffers.world_normal[1], half);
  EXPECT_EQ(z_up.buffers.world_normal[2], half);
  // (x, z, -y)
  EXPECT_EQ(y_up.buffers.world_normal[0], 32768);
  EXPECT_EQ(y_up.buffers.world_normal[1], half);
  EXPECT_EQ(y_up.buffers.world_normal[2], 65535 - half);

  const int n = 8;
  const Mesh floor = floor_at(0.0f);
  const MeshMapsRun x_only =
      bake(low, floor, settings_for(n, {"position"}, {"--position-mode", "x"}));
  for (int x = 0; x < n; ++x) {
    const std::size_t t = static_cast<std::size_t>(3 * n + x) * 3;
    EXPECT_NEAR(x_only.buffers.position[t], encode_unorm16(centre(x, n)), 1);
    EXPECT_EQ(x_only.buffers.position[t + 1], x_only.buffers.position[t]);
    EXPECT_EQ(x_only.buffers.position[t + 2], x_only.buffers.position[t]);
  }
}

TEST(MeshMapsPlane, PositionBboxScalesEachAxis) {
  Mesh low;
  PlaneSpec wide;  // a 4 x 1 low plane: bsphere squeezes y, bbox does not
  wide.x1 = 4.0f;
  add_plane(low, wide);
  Mesh high;
  PlaneSpec under = test::square(0.0f, 3.0f);
  under.x0 += 2.0f;
  under.x1 += 2.0f;
  add_plane(high, under);
  const int n = 8;
  const MeshMapsRun sphere = bake(low, high, settings_for(n, {"position"}));
  const MeshMapsRun box =
      bake(low, high, settings_for(n, {"position"}, {"--position-normalization", "bbox"}));
  const std::size_t top_left = 0;
  EXPECT_NEAR(sphere.buffers.position[top_left + 1],
              encode_unorm16(0.5 + 0.5 * (1.0 - centre(0, n) - 0.5) / 2.0), 2);
  EXPECT_NEAR(box.buffers.position[top_left + 1], encode_unorm16(1.0 - centre(0, n)), 2);
  EXPECT_EQ(sphere.buffers.position[top_left], box.buffers.position[top_left]);
}

// The view factor of a parallel rectangle from a point below one of its
// corners, at height 1 over sides x and y: the cosine-weighted share of the
// hemisphere it covers.
double corner_view_factor(double x, double y) {
  const double a = std::sqrt(1.0 + x * x);
  const double b = std::sqrt(1.0 + y * y);
  return (x / a * std::atan(y / a) + y / b * std::atan(x / b)) / (2.0 * std::numbers::pi);
}

TEST(MeshMapsAo, CeilingMatchesTheCosineEscapeFraction) {
  const Mesh low = test::unit_low_plane();
  Mesh high = floor_at(0.0f);
  const double h = 0.5;
  const double half = 0.5;  // ceiling [0,1]^2 at height h, over the low plane
  PlaneSpec ceiling;
  ceiling.z = static_cast<float>(h);
  ceiling.facing_up = false;
  ceiling.with_uvs = false;
  ceiling.object = 0;
  add_plane(high, ceiling);
  const int n = 8;
  const MeshMapsRun run =
      bake(low, high,
           settings_for(n, {"ao"},
                        {"--ao-rays", "400", "--ao-attenuation", "none", "--ao-max", "100",
                         "--ao-absolute", "--antialias", "2"}));
  double total_error = 0.0;
  for (int y = 0; y < n; ++y) {
    for (int x = 0; x < n; ++x) {
      const double px = centre(x, n);
      const double py = 1.0 - centre(y, n);
      const double lx = px - (0.5 - half);
      const double hx = (0.5 + half) - px;
      const double ly = py - (0.5 - half);
      const double hy = (0.5 + half) - py;
      const double f = corner_view_factor(lx / h, ly / h) + corner_view_factor(hx / h, ly / h) +
                       corner_view_factor(lx / h, hy / h) + corner_view_factor(hx / h, hy / h);
      const double ao = static_cast<double>(run.buffers.ao[static_cast<std::size_t>(y * n + x)]);
      // 1600 stratified rays per texel: far inside 0.04 of the exact share.
      EXPECT_NEAR(ao, 1.0 - f, 0.04) << x << "," << y;
      total_error += ao - (1.0 - f);
    }
  }
  EXPECT_LT(std::fabs(total_error / (n * n)), 0.01);

  // The noise falls as the rays grow.
  auto mean_error = [&](const char* rays) {
    const MeshMapsRun r = bake(low, high,
                               settings_for(n, {"ao"},
                                            {"--ao-rays", rays, "--ao-attenuation", "none",
                                             "--ao-max", "100", "--ao-absolute"}));
    double error = 0.0;
    for (int y = 0; y < n; ++y) {
      for (int x = 0; x < n; ++x) {
        const double px = centre(x, n);
        const double py = 1.0 - centre(y, n);
        const double f = corner_view_factor(px / h, py / h) +
                         corner_view_factor((1.0 - px) / h, py / h) +
                         corner_view_factor(px / h, (1.0 - py) / h) +
                         corner_view_factor((1.0 - px) / h, (1.0 - py) / h);
        error += std::fabs(static_cast<double>(r.buffers.ao[static_cast<std::size_t>(y * n + x)]) -
                           (1.0 - f));
      }
    }
    return error / (n * n);
  };
  EXPECT_LT(mean_error("256"), mean_error("8"));

  // Linear attenuation counts far hits as partly open: never darker.
  const MeshMapsRun linear = bake(
      low, high, settings_for(n, {"ao"}, {"--ao-rays", "64", "--ao-max", "100", "--ao-absolute"}));
  const MeshMapsRun none = bake(low, high,
                                settings_for(n, {"ao"},
                                             {"--ao-rays", "64", "--ao-max", "100", "--ao-absolute",
                                              "--ao-attenuation", "none"}));
  for (std::size_t t = 0; t < linear.buffers.ao.size(); ++t) {
    EXPECT_GE(linear.buffers.ao[t], none.buffers.ao[t]);
  }
}

TEST(MeshMapsAo, GroundPlaneOccludesOnlyWhenOn) {
  // A steep wall: rays leaving it sideways reach the ground plane below.
  Mesh low;
  PlaneSpec wall;
  add_plane(low, wall);
  Mesh high = floor_at(0.0f);
  const int n = 4;
  const auto s_off = settings_for(n, {"ao"}, {"--ao-max", "100", "--ao-absolute"});
  const auto s_on = settings_for(
      n, {"ao"},
      {"--ao-max", "100", "--ao-absolute", "--ao-ground-plane", "on", "--ao-ground-offset", "0"});
  // A plane facing up sees nothing of a ground below it.
  const MeshMapsRun off = bake(low, high, s_off);
  const MeshMapsRun on = bake(low, high, s_on);
  EXPECT_EQ(off.buffers.ao, on.buffers.ao);
  // Turned face down (normals downward), the same plane looks at the ground.
  Mesh down_high;
  PlaneSpec facing_down = test::square(0.2f, 1.5f, false);
  facing_down.x0 += 0.5f;
  facing_down.x1 += 0.5f;
  facing_down.y0 += 0.5f;
  facing_down.y1 += 0.5f;
  add_plane(down_high, facing_down);
  Mesh below = floor_at(-5.0f, 0.01f);  // a speck that sets the box's bottom
  for (const auto& p : below.positions) {
    down_high.positions.push_back(p);
  }
  for (Triangle t : below.triangles) {
    for (Corner& c : t.corners) {
      c.position += static_cast<std::uint32_t>(down_high.positions.size() - below.positions.size());
    }
    down_high.triangles.push_back(t);
  }
  const auto keep = std::vector<std::string>{"--keep-backface", "--front", "0.5", "--rear", "0.5"};
  auto with = [&](std::vector<std::string> base) {
    base.insert(base.end(), keep.begin(), keep.end());
    return base;
  };
  const MeshMapsRun sky =
      bake(low, down_high,
           settings_for(n, {"ao"},
                        with({"--ao-max", "100", "--ao-absolute", "--ao-attenuation", "none"})));
  const MeshMapsRun ground =
      bake(low, down_high,
           settings_for(n, {"ao"},
                        with({"--ao-max", "100", "--ao-absolute", "--ao-attenuation", "none",
                              "--ao-ground-plane", "on"})));
  ASSERT_EQ(sky.buffers.counters.texels_hit, static_cast<std::uint64_t>(n * n));
  EXPECT_EQ(sky.buffers.ao[5], 1.0f);
  EXPECT_EQ(ground.buffers.ao[5], 0.0f);  // every ray meets the ground plane
}

TEST(MeshMapsHeight, SymmetricAboutOneHalfInEveryRange) {
  const Mesh low = test::unit_low_plane();
  const Mesh above = floor_at(0.01f);
  const Mesh below = floor_at(-0.01f);
  for (const char* range : {"lowmesh", "ray", "minmax", "manual"}) {
    const auto s =
        settings_for(4, {"height"}, {"--height-range", range, "--height-divisor", "0.05"});
    MeshMapsRun up = bake(low, above, s);
    MeshMapsRun down = bake(low, below, s);
    RangeDistances d{up.front, up.rear, 1.0f};
    const auto cu = height_codes(up.buffers.height_map, up.buffers.hit, s.height_range, d,
                                 s.height_divisor, false);
    const auto cd = height_codes(down.buffers.height_map, down.buffers.hit, s.height_range, d,
                                 s.height_divisor, false);
    EXPECT_GT(cu[0], 32768) << range;
    EXPECT_NEAR(static_cast<int>(cu[0]) + static_cast<int>(cd[0]), 65535, 2) << range;
  }
  // lowmesh: the larger window distance maps onto the edge.
  const MeshMapsRun up = bake(low, above, settings_for(4, {"height"}));
  EXPECT_NEAR(up.buffers.height_map[0], 0.01f, 1e-5f);
  EXPECT_NEAR(height_codes(up.buffers.height_map, up.buffers.hit, HeightRange::lowmesh,
                           {up.front, up.rear, 1.0f}, 1.0f, false)[0],
              encode_unorm16(0.5 + 0.5 * 0.01 / static_cast<double>(up.front)), 3);
  // The low surface itself: every covered texel neutral.
  EXPECT_EQ(height_codes(up.buffers.height_map, up.buffers.hit, HeightRange::lowmesh,
                         {up.front, up.rear, 1.0f}, 1.0f, true)[0],
            32768);
}

// A closed slab of thickness `t` under z = 0, wide enough that rays into it
// meet its bottom.
Mesh slab(float t) {
  Mesh high = floor_at(0.0f, 4.0f);
  Mesh bottom = floor_at(-t, 4.0f);
  const auto base = static_cast<std::uint32_t>(high.positions.size());
  for (const auto& p : bottom.positions) {
    high.positions.push_back(p);
  }
  for (Triangle tri : bottom.triangles) {
    std::swap(tri.corners[1], tri.corners[2]);  // facing down
    for (Corner& c : tri.corners) {
      c.position += base;
    }
    high.triangles.push_back(tri);
  }
  return high;
}

TEST(MeshMapsThickness, ThinSlabIsThinnerThanThickOne) {
  const Mesh low = test::unit_low_plane();
  const auto s =
      settings_for(4, {"thickness"},
                   {"--thickness-max", "1", "--thickness-absolute", "--thickness-range", "none",
                    "--thickness-distribution", "uniform", "--thickness-spread", "1"});
  const MeshMapsRun thin = bake(low, slab(0.05f), s);
  const MeshMapsRun thick = bake(low, slab(0.2f), s);
  // A narrow cone straight down measures the slab itself.
  EXPECT_NEAR(thin.buffers.thickness[5], 0.05f, 1e-3f);
  EXPECT_NEAR(thick.buffers.thickness[5], 0.2f, 1e-3f);
  const auto thin_codes =
      thickness_codes(thin.buffers.thickness, thin.buffers.hit, ThicknessRange::none, 1.0f);
  const auto thick_codes =
      thickness_codes(thick.buffers.thickness, thick.buffers.hit, ThicknessRange::none, 1.0f);
  EXPECT_LT(thin_codes[5], thick_codes[5]);
  // Escaping rays count as the longest ray.
  const MeshMapsRun open = bake(low, floor_at(0.0f), s);
  EXPECT_EQ(open.buffers.thickness[5], 1.0f);
  // minmax: the texels' own range spreads onto the whole code range.
  const auto spread =
      thickness_codes(thick.buffers.thickness, thick.buffers.hit, ThicknessRange::minmax, 1.0f);
  EXPECT_EQ(*std::min_element(spread.begin(), spread.end()), 0);
  EXPECT_EQ(*std::max_element(spread.begin(), spread.end()), 65535);
}

// A height field z = f(x, y) of cells x cells over [-1, 2]^2.
Mesh height_field(int cells, const std::function<float(float, float)>& f) {
  Mesh mesh;
  auto point = [&](int i, int j) {
    const float x = -1.0f + 3.0f * static_cast<float>(i) / static_cast<float>(cells);
    const float y = -1.0f + 3.0f * static_cast<float>(j) / static_cast<float>(cells);
    return std::array<float, 3>{x, y, f(x, y)};
  };
  for (int j = 0; j < cells; ++j) {
    for (int i = 0; i < cells; ++i) {
      add_triangle(mesh, {point(i, j), point(i + 1, j), point(i + 1, j + 1)});
      add_triangle(mesh, {point(i, j), point(i + 1, j + 1), point(i, j + 1)});
    }
  }
  return mesh;
}

TEST(MeshMapsCurvature, FlatHalfConvexAboveConcaveBelow) {
  const Mesh low = test::unit_low_plane();
  const auto s = settings_for(4, {"curvature"},
                              {"--curvature-radius", "0.1", "--curvature-absolute", "--front",
                               "0.5", "--rear", "0.5", "--absolute-distances"});
  const float r = 4.0f;
  auto cap = [r](float x, float y) {
    const float dx = x - 0.5f;
    const float dy = y - 0.5f;
    return std::sqrt(r * r - dx * dx - dy * dy) - r;
  };
  const MeshMapsRun flat = bake(low, floor_at(0.0f), s);
  const MeshMapsRun sphere = bake(low, height_field(150, cap), s);
  const MeshMapsRun bowl =
      bake(low, height_field(150, [&](float x, float y) { return -cap(x, y); }), s);
  const auto flat_codes = curvature_codes(flat.buffers.curvature, flat.buffers.hit, s);
  MeshMapsSettings manual = s;
  manual.curvature_range = CurvatureRange::manual;
  manual.curvature_min = -0.05f;
  manual.curvature_max = 0.05f;
  const auto sphere_codes = curvature_codes(sphere.buffers.curvature, sphere.buffers.hit, manual);
  const auto bowl_codes = curvature_codes(bowl.buffers.curvature, bowl.buffers.hit, manual);
  for (std::size_t t = 0; t < flat_codes.size(); ++t) {
    EXPECT_EQ(flat_codes[t], 32768);
    EXPECT_GT(sphere_codes[t], 32768 + 1000);
    EXPECT_LT(bowl_codes[t], 32768 - 1000);
    // The drop of a sphere over radius 0.1 is about 0.1 / (2 R).
    EXPECT_NEAR(sphere.buffers.curvature[t], 0.1f / (2.0f * r), 0.004f);
  }
}

TEST(MeshMapsId, TwoObjectsTwoConstantColours) {
  const Mesh low = test::unit_low_plane();
  Mesh high;
  PlaneSpec left = test::square(0.0f, 1.0f);
  left.x0 = -1.0f;
  left.x1 = 0.5f;
  left.y0 = -1.0f;
  left.y1 = 2.0f;
  PlaneSpec right = left;
  right.x0 = 0.5f;
  right.x1 = 2.0f;
  right.object = 1;
  add_plane(high, left);
  add_plane(high, right);
  const int n = 16;
  for (const char* generator : {"hue", "random", "gray"}) {
    const MeshMapsRun run = bake(
        low, high, settings_for(n, {"id"}, {"--id-source", "object", "--id-generator", generator}));
    std::set<std::array<std::uint16_t, 3>> left_colours;
    std::set<std::array<std::uint16_t, 3>> right_colours;
    for (int y = 0; y < n; ++y) {
      for (int x = 0; x < n; ++x) {
        const std::size_t t = static_cast<std::size_t>(y * n + x) * 3;
        const std::array<std::uint16_t, 3> c = {run.buffers.id[t], run.buffers.id[t + 1],
                                                run.buffers.id[t + 2]};
        (x < n / 2 ? left_colours : right_colours).insert(c);
      }
    }
    ASSERT_EQ(left_colours.size(), 1u) << generator;
    ASSERT_EQ(right_colours.size(), 1u) << generator;
    EXPECT_NE(*left_colours.begin(), *right_colours.begin()) << generator;
  }
  // The seed changes the colours, not their being distinct.
  EXPECT_NE(id_colour(0, 2, IdGenerator::hue, 0), id_colour(0, 2, IdGenerator::hue, 7));
  std::set<std::array<double, 3>> greys;
  for (std::uint32_t i = 0; i < 300; ++i) {
    greys.insert(id_colour(i, 300, IdGenerator::gray, 5));
  }
  EXPECT_EQ(greys.size(), 300u);
}

TEST(MeshMapsId, IslandsAreConnectedTriangles) {
  Mesh mesh;
  add_plane(mesh, test::square(0.0f));                      // triangles 0, 1 share corners
  add_triangle(mesh, {{{5, 0, 0}, {6, 0, 0}, {5, 1, 0}}});  // apart
  add_plane(mesh, test::square(3.0f));
  EXPECT_EQ(mesh_islands(mesh), (std::vector<std::uint32_t>{0, 0, 1, 2, 2}));
  const TriangleIds ids = triangle_ids(mesh, IdSource::mesh_island, IdGenerator::hue, 0);
  EXPECT_EQ(ids.colours.size(), 3u);
  // Without materials every triangle shares one ID.
  EXPECT_EQ(triangle_ids(mesh, IdSource::material, IdGenerator::hue, 0).colours.size(), 1u);
}

TEST(MeshMapsBent, SameMapWithOrWithoutTheOcclusionBeside) {
  Mesh low;
  PlaneSpec p = test::square(0.0f);
  p.with_uvs = true;
  add_plane(low, p);
  const Mesh high = test::bumpy_field(16);
  for (const char* attenuation : {"linear", "none"}) {
    const std::vector<std::string> extra = {"--ao-attenuation", attenuation, "--ao-max", "0.2",
                                            "--bent-max",       "0.2"};
    const MeshMapsRun alone = bake(low, high, settings_for(16, {"bent_normals"}, extra));
    const MeshMapsRun both = bake(low, high, settings_for(16, {"ao", "bent_normals"}, extra));
    EXPECT_EQ(alone.buffers.bent_normals, both.buffers.bent_normals) << attenuation;
    // One set of rays served both maps.
    EXPECT_EQ(both.buffers.counters.secondary_rays, alone.buffers.counters.secondary_rays);
    // Occluded texels lean away from the bumps: not every texel is straight up.
    std::size_t leaning = 0;
    for (std::size_t t = 0; t < alone.buffers.hit.size(); ++t) {
      leaning += alone.buffers.bent_normals[t * 3 + 2] < 65000 ? 1 : 0;
    }
    EXPECT_GT(leaning, 0u) << attenuation;
  }
  // Other settings cast rays of their own.
  const MeshMapsRun apart =
      bake(low, high, settings_for(16, {"ao", "bent_normals"}, {"--bent-rays", "32"}));
  const MeshMapsRun ao_only = bake(low, high, settings_for(16, {"ao"}));
  EXPECT_GT(apart.buffers.counters.secondary_rays, ao_only.buffers.counters.secondary_rays);
}

void expect_same_buffers(const MeshMapsBuffers& a, const MeshMapsBuffers& b) {
  EXPECT_EQ(a.hit, b.hit);
  EXPECT_EQ(a.opacity, b.opacity);
  EXPECT_EQ(a.ao, b.ao);
  EXPECT_EQ(a.thickness, b.thickness);
  EXPECT_EQ(a.curvature, b.curvature);
  EXPECT_EQ(a.height_map, b.height_map);
  EXPECT_EQ(a.world_normal, b.world_normal);
  EXPECT_EQ(a.position, b.position);
  EXPECT_EQ(a.id, b.id);
  EXPECT_EQ(a.bent_normals, b.bent_normals);
  EXPECT_EQ(a.counters.secondary_rays, b.counters.secondary_rays);
}

TEST(MeshMapsDeterminism, SameMapsOnAnyThreadCountBandAndBudget) {
  Mesh low;
  PlaneSpec p = test::square(0.0f);
  p.with_uvs = true;
  add_plane(low, p);
  const Mesh high = test::bumpy_field(24);
  const std::vector<std::string> all = {"opacity",   "ao",     "thickness",
                                        "curvature", "height", "world_normal",
                                        "position",  "id",     "bent_normals"};
  MeshMapsSettings s =
      settings_for(48, all,
                   {"--antialias", "2", "--ao-rays", "16", "--bent-rays", "8", "--thickness-rays",
                    "8", "--curvature-rays", "8", "--curvature-radius", "0.02", "--id-source",
                    "object", "--ao-self-occlusion", "same-name"});
  const MeshMapsRun one = bake(low, high, s, 1);
  const MeshMapsRun two = bake(low, high, s, 2);
  EXPECT_GT(one.buffers.counters.texels_hit, 1500u);
  expect_same_buffers(one.buffers, two.buffers);

  // However large the band size, a bake takes at least sixteen bands.
  EXPECT_EQ(one.memory.band_rows, 3u);
  MeshMapsSettings banded = s;
  banded.bake.band_samples = 48 * 4 * 2 - 1;  // one row a band
  const MeshMapsRun bands = bake(low, high, banded, 2);
  EXPECT_EQ(bands.memory.band_rows, 1u);
  expect_same_buffers(one.buffers, bands.buffers);

  // A budget below what the maps themselves hold leaves one row a band,
  // and the bake says so.
  MeshMapsSettings roomy = settings_for(256, {"world_normal", "position", "id"});
  MeshMapsSettings tight = roomy;
  tight.bake.memory_budget_mb = 1;
  const MeshMapsRun budget = bake(low, high, tight, 2);
  EXPECT_EQ(budget.memory.band_rows, 1u);
  EXPECT_FALSE(budget.memory.notices.empty());
  const MeshMapsRun sixteen = bake(low, high, roomy, 2);
  EXPECT_EQ(sixteen.memory.band_rows, 16u);
  expect_same_buffers(sixteen.buffers, budget.buffers);
}

// The bake's tracer with every secondary ray cast alone: nearest hits one
// by one, occlusion one ray at a time. Primary rays keep their packets.
class SingleRayTracer final : public Tracer {
 public:
  explicit SingleRayTracer(const CpuTracer& inner) : inner_(inner) {}
  std::string description() const override { return inner_.description(); }
  RayHit trace(const RayQuery& q) const override { return inner_.trace(q); }
  bool runs_on_gpu() const override { return false; }
  void trace_batch(const RayQuery* q, RayHit* h, std::uint64_t n,
                   const WorkerPool& pool) const override {
    inner_.trace_batch(q, h, n, pool);
  }
  void trace_fanned_batch(const RayQuery* q, RayHit* h, std::uint64_t n,
                          const WorkerPool&) const override {
    for (std::uint64_t i = 0; i < n; ++i) {
      h[i] = inner_.trace(q[i]);
    }
    fanned_rays_ += n;
  }
  void occluded_batch(const OcclusionQuery* q, std::uint8_t* o, std::uint64_t n,
                      const WorkerPool&) const override {
    for (std::uint64_t i = 0; i < n; ++i) {
      o[i] = inner_.occluded(q[i]) ? 1 : 0;
    }
    occlusion_rays_ += n;
  }
  bool check_known_hit(const RayQuery& q, RayHit& h) const override {
    return inner_.check_known_hit(q, h);
  }
  bool has_name_groups() const override { return false; }
  GpuTraceStatistics gpu_statistics() const override { return {}; }

  mutable std::atomic<std::uint64_t> fanned_rays_{0};
  mutable std::atomic<std::uint64_t> occlusion_rays_{0};

 private:
  const CpuTracer& inner_;
};

TEST(MeshMapsDeterminism, RayPacketsGiveTheSingleRaysMaps) {
  Mesh low;
  PlaneSpec p = test::square(0.0f);
  p.with_uvs = true;
  add_plane(low, p);
  // A bumpy field under a tilted roof, so that rays both escape and hit.
  Mesh high = test::bumpy_field(24);
  add_triangle(high, {{{-2, -2, 0.05f}, {2, -2, 0.3f}, {2, 2, 0.05f}}});
  const std::vector<std::string> all = {"opacity",   "ao",     "thickness",
                                        "curvature", "height", "world_normal",
                                        "position",  "id",     "bent_normals"};
  const CpuTracer tracer(high, {}, {}, 2);
  const SingleRayTracer single(tracer);
  // Ray counts that leave part-filled packets; occlusion with and without
  // bent normals of their own, nearest hits for the attenuated occlusion.
  const std::vector<std::vector<std::string>> cases = {
      {"--ao-rays", "13", "--bent-rays", "13", "--ao-max", "0.4", "--bent-max", "0.4"},
      {"--ao-rays", "13", "--ao-attenuation", "none", "--bent-rays", "9", "--ao-max", "0.4"},
  };
  for (const std::vector<std::string>& extra : cases) {
    std::vector<std::string> options = {"--antialias",      "2", "--thickness-rays",   "11",
                                        "--curvature-rays", "5", "--curvature-radius", "0.02"};
    options.insert(options.end(), extra.begin(), extra.end());
    const MeshMapsSettings s = settings_for(40, all, options);
    const MeshMapsRun packed = bake_mesh_maps_on(low, high, s, {}, tracer, 0, 2);
    const std::uint64_t fanned_before = single.fanned_rays_.load();
    const std::uint64_t occlusion_before = single.occlusion_rays_.load();
    const MeshMapsRun alone = bake_mesh_maps_on(low, high, s, {}, single, 0, 2);
    EXPECT_GT(packed.buffers.counters.texels_hit, 1000u);
    expect_same_buffers(packed.buffers, alone.buffers);
    // Every secondary ray but curvature's went through the single-ray side;
    // curvature's rays run side by side, as the primary rays, five a hit.
    EXPECT_EQ(single.fanned_rays_.load() - fanned_before +
                  (single.occlusion_rays_.load() - occlusion_before) +
                  5 * alone.buffers.counters.hits,
              alone.buffers.counters.secondary_rays);
    // AO and bent normals in occlusion queries in the second case only.
    EXPECT_EQ(single.occlusion_rays_.load() > occlusion_before, extra[3] == "none");
    // Occlusion differs over the map: some rays are blocked, some escape.
    const std::vector<float>& ao = packed.buffers.ao;
    const auto [least, most] = std::minmax_element(ao.begin(), ao.end());
    EXPECT_LT(*least, 0.5f);
    EXPECT_GT(*most, *least + 0.1f);
  }
}

}  // namespace
}  // namespace kv::meshmaps
