#include "bake/normal_bake.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "bake/bake_scene_meshes.h"
#include "bake/miss_fill.h"
#include "core/error.h"

namespace kv {
namespace {

using test::add_plane;
using test::high_plane;
using test::PlaneSpec;
using test::unit_low_plane;

constexpr std::array<std::uint16_t, 3> kFlat = {32768, 32768, 65535};

NormalBakeSettings small_settings(std::int32_t size, std::int32_t aa) {
  NormalBakeSettings s;
  s.width = size;
  s.height = size;
  s.aa = aa;
  s.relative_scale = false;
  return s;
}

std::array<std::uint16_t, 3> codes_at(const NormalBakeResult& r, std::size_t i) {
  return {r.normal[i * 3], r.normal[i * 3 + 1], r.normal[i * 3 + 2]};
}

PlaneSpec tilted_plane(float z, bool facing_up) {
  PlaneSpec p = high_plane(z);
  p.facing_up = facing_up;
  p.normal = std::array<float, 3>{0.6f, 0.0f, 0.8f};
  return p;
}

// Every covered texel holds the flat code (or, with flat false, none does).
void expect_all_flat(const NormalBakeRun& run, bool flat, const char* what) {
  const NormalBakeResult& r = run.result;
  for (std::size_t i = 0; i < r.normal_valid.size(); ++i) {
    ASSERT_EQ(r.normal_valid[i], 1) << what << " texel " << i;
    if (flat) {
      EXPECT_EQ(codes_at(r, i), kFlat) << what << " texel " << i;
    } else {
      EXPECT_NE(codes_at(r, i), kFlat) << what << " texel " << i;
    }
  }
}

TEST(NormalBake, BackFacingHighTrianglesArePassedThrough) {
  // Nearer to the ray origin: a clockwise (back-facing) tilted plane; behind
  // it a counter-clockwise flat one.
  Mesh high;
  add_plane(high, tilted_plane(0.002f, false));
  add_plane(high, high_plane(-0.002f));
  NormalBakeSettings s = small_settings(4, 1);
  const NormalBakeRun skipping = bake_normal_map(unit_low_plane(), high, s, 1);
  expect_all_flat(skipping, true, "ignore backface");
  EXPECT_EQ(skipping.result.counters.hits, 16u);

  s.ignore_backface = false;
  const NormalBakeRun keeping = bake_normal_map(unit_low_plane(), high, s, 1);
  expect_all_flat(keeping, false, "keep backface");
  // x = 0.6 -> 0.8 of the range.
  EXPECT_NEAR(keeping.result.normal[0], 0.8 * 65535.0, 2.0);
}

TEST(NormalBake, NameMatchingPassesOtherGroupsThrough) {
  Mesh low = unit_low_plane();
  low.objects = {"panel_low"};
  Mesh high;
  PlaneSpec near = tilted_plane(0.002f, true);
  near.object = 0;
  add_plane(high, near);
  PlaneSpec far = high_plane(-0.002f);
  far.object = 1;
  add_plane(high, far);
  high.objects = {"other_high", "panel_high"};

  NormalBakeSettings s = small_settings(4, 2);
  const NormalBakeRun always = bake_normal_map(low, high, s, 1);
  expect_all_flat(always, false, "match always");

  s.match_by_name = true;
  const NormalBakeRun by_name = bake_normal_map(low, high, s, 1);
  expect_all_flat(by_name, true, "match by name");
  EXPECT_EQ(by_name.unmatched_low_objects, 0u);
  EXPECT_EQ(by_name.coverage.filled, 0u);

  // A low object without a partner: its rays pass every high triangle, and
  // the miss fill gives its texels the flat normal.
  low.objects = {"lonely_low"};
  const NormalBakeRun lonely = bake_normal_map(low, high, s, 1);
  EXPECT_EQ(lonely.unmatched_low_objects, 1u);
  EXPECT_EQ(lonely.result.counters.hits, 0u);
  EXPECT_EQ(lonely.coverage.filled, 16u);
  EXPECT_EQ(lonely.result.counters.texels_opaque, 0u);
}

TEST(NormalBake, NameGroupKeysDropSuffixesAndFollowBlocks) {
  Mesh low;
  low.objects = {"a_low", "b", "c_low"};
  low.blocks = {"body_low"};
  low.object_blocks = {0, 0, 0};
  Mesh high;
  high.objects = {"b", "a_high", "z_high"};
  high.triangles.resize(3);
  high.triangles[0].object = 2;
  high.triangles[1].object = 1;
  high.triangles[2].object = 0;
  NormalBakeSettings s;
  s.match_by_name = true;
  const NameGroups names = match_name_groups(low, high, s);
  ASSERT_EQ(names.low_objects.size(), 3u);
  ASSERT_EQ(names.high_triangles.size(), 3u);
  EXPECT_EQ(names.high_triangles[1], names.low_objects[0]);  // a_high ~ a_low
  EXPECT_EQ(names.high_triangles[2], names.low_objects[1]);  // b ~ b
  EXPECT_NE(names.high_triangles[0], names.low_objects[2]);  // z_high !~ c_low
  EXPECT_NE(names.low_objects[0], names.low_objects[1]);
  EXPECT_EQ(names.unmatched_low_objects, 1u);

  // --match objects: the low mesh's block "body_low" keys all three objects;
  // the high mesh has no blocks and keeps its object names.
  high.objects = {"x_high", "body_high", "y"};
  s.match_objects = true;
  const NameGroups blocks = match_name_groups(low, high, s);
  EXPECT_EQ(blocks.low_objects[0], blocks.low_objects[2]);
  EXPECT_EQ(blocks.high_triangles[1], blocks.low_objects[0]);
  EXPECT_NE(blocks.high_triangles[0], blocks.low_objects[0]);
  EXPECT_EQ(blocks.unmatched_low_objects, 0u);
}

TEST(NormalBake, MissFillGivesInnerMissesTheFlatNormal) {
  // The high plane covers x < 0.5 only; its normals lean, so a resolved
  // Normal differs from the flat one the fill writes.
  Mesh high;
  PlaneSpec p = tilted_plane(0.004f, true);
  p.x1 = 0.5f;
  add_plane(high, p);
  const NormalBakeRun run = bake_normal_map(unit_low_plane(), high, small_settings(8, 2), 2);
  EXPECT_EQ(run.coverage.texels, 64u);
  EXPECT_EQ(run.coverage.hits, 32u);
  EXPECT_EQ(run.coverage.filled, 32u);
  EXPECT_EQ(run.texels_valid, 64u);
  for (std::size_t i = 0; i < 64; ++i) {
    const bool left = i % 8 < 4;
    EXPECT_EQ(run.result.normal_valid[i], 1);
    EXPECT_EQ(run.result.opacity[i], left ? 65535 : 0) << i;
    if (left) {
      EXPECT_NE(codes_at(run.result, i), kFlat) << i;
    } else {
      EXPECT_EQ(codes_at(run.result, i), kFlat) << i;
    }
  }
}

TEST(NormalBake, MissFillLeavesBorderAndOutsideTexelsToPadding) {
  NormalBakeResult r;
  r.width = 3;
  r.height = 1;
  r.normal = {1, 2, 3, 0, 0, 0, 0, 0, 0};
  r.normal_valid = {1, 0, 0};
  r.centre_covered = {1, 1, 0};  // texel 2: a border or outside texel
  r.opacity = {65535, 0, 65535};
  r.outside = {0, 0, 0};
  const MissFill fill = fill_normal_misses(r);
  EXPECT_EQ(fill.texels, 2u);
  EXPECT_EQ(fill.hits, 1u);
  EXPECT_EQ(fill.filled, 1u);
  EXPECT_EQ(r.normal, (std::vector<std::uint16_t>{1, 2, 3, 32768, 32768, 65535, 0, 0, 0}));
  EXPECT_EQ(r.normal_valid, (std::vector<std::uint8_t>{1, 1, 0}));
  EXPECT_EQ(r.opacity, (std::vector<std::uint16_t>{65535, 0, 65535}));

  r.centre_covered.pop_back();
  EXPECT_THROW(fill_normal_misses(r), Error);
}

TEST(NormalBake, CallbacksPhasesRegionsAndRunFigures) {
  Mesh high;
  add_plane(high, high_plane(0.004f));  // 3 units wide
  NormalBakeSettings s = small_settings(6, 1);
  s.relative_scale = true;
  s.band_samples = 12;  // two rows per band
  std::vector<std::string> events;
  std::vector<std::int32_t> rows_seen(6, 0);
  NormalBakeCallbacks callbacks;
  callbacks.phase_started = [&](std::string_view phase) { events.emplace_back(phase); };
  callbacks.tracing_started = [&](std::string_view backend) {
    events.push_back("tracing " + std::string(backend.substr(0, 7)));
  };
  callbacks.region_finished = [&](const TexelRegion& region, const NormalBakeResult&) {
    EXPECT_EQ(region.h, 2);
    EXPECT_EQ(region.w, 6);
    for (std::int32_t y = region.y; y < region.y + region.h; ++y) {
      ++rows_seen[static_cast<std::size_t>(y)];
    }
  };
  const NormalBakeRun run = bake_normal_map(unit_low_plane(), high, s, 2, callbacks);
  EXPECT_EQ(events, (std::vector<std::string>{"bvh", "bake", "tracing embree "}));
  EXPECT_EQ(rows_seen, (std::vector<std::int32_t>(6, 1)));
  EXPECT_EQ(run.backend.rfind("embree ", 0), 0u);
  EXPECT_EQ(run.scale, 3.0);
  EXPECT_EQ(run.front, 0.01f * 3.0f);
  EXPECT_EQ(run.rear, 0.01f * 3.0f);
  EXPECT_EQ(run.low_triangles, 2u);
  EXPECT_EQ(run.high_triangles, 2u);
  EXPECT_EQ(run.memory.band_rows, 2u);
  EXPECT_EQ(run.result.counters.rays, 36u);
  EXPECT_EQ(run.zero_uv_area_triangles, 0u);
  EXPECT_GE(run.seconds.trace, run.seconds.trace_rays);
  expect_all_flat(run, true, "relative scale");
}

TEST(NormalBake, TightMemoryBudgetShrinksBandsNotResults) {
  const Mesh low = test::uv_sphere(16, 8, 1.0f, 0.0f);
  const Mesh high = test::uv_sphere(64, 32, 1.0f, 0.01f);
  NormalBakeSettings s;
  s.width = 32;
  s.height = 32;
  s.aa = 4;
  const NormalBakeRun roomy = bake_normal_map(low, high, s, 2);
  EXPECT_TRUE(roomy.memory.notices.empty());
  EXPECT_EQ(roomy.memory.band_rows, 32u);

  s.memory_budget_mb = 1;
  s.memory_budget_given = true;
  std::vector<BakeMemoryNotice> notices;
  NormalBakeCallbacks callbacks;
  callbacks.low_memory = [&](const BakeMemoryNotice& n) { notices.push_back(n); };
  const NormalBakeRun tight = bake_normal_map(low, high, s, 1, callbacks);
  ASSERT_EQ(notices.size(), 1u);
  EXPECT_EQ(notices[0].stage, "bake");
  EXPECT_EQ(notices[0].reason, "memory_budget");
  EXPECT_EQ(notices[0].from, 32u);
  EXPECT_EQ(notices[0].to, tight.memory.band_rows);
  EXPECT_LT(tight.memory.band_rows, 32u);
  EXPECT_EQ(tight.memory.budget_mb, 1u);
  ASSERT_EQ(tight.memory.notices.size(), 1u);

  EXPECT_EQ(tight.result.normal, roomy.result.normal);
  EXPECT_EQ(tight.result.opacity, roomy.result.opacity);
  EXPECT_EQ(tight.result.normal_valid, roomy.result.normal_valid);
  EXPECT_EQ(tight.coverage.filled, roomy.coverage.filled);
  EXPECT_EQ(tight.result.counters.hits, roomy.result.counters.hits);
  EXPECT_GT(roomy.result.counters.hits, 5000u);
}

TEST(NormalBake, InvalidSettingsFailBeforeAnyPhase) {
  bool phase_seen = false;
  NormalBakeCallbacks callbacks;
  callbacks.phase_started = [&](std::string_view) { phase_seen = true; };
  Mesh high;
  add_plane(high, high_plane(0.0f));
  auto message = [&](const Mesh& low, const NormalBakeSettings& s) {
    try {
      bake_normal_map(low, high, s, 1, callbacks);
    } catch (const Error& e) {
      return std::string(e.what());
    }
    return std::string("no error");
  };
  NormalBakeSettings s = small_settings(4, 3);
  EXPECT_EQ(message(unit_low_plane(), s), "antialiasing must be 1, 2, 4 or 8 sub-samples per side");
  s.aa = 1;
  s.front = -1.0f;
  EXPECT_EQ(message(unit_low_plane(), s), "ray distances must be finite and not negative");
  s.front = 0.01f;
  EXPECT_EQ(message(Mesh{}, s), "low mesh has no triangles");
  Mesh no_uvs;
  PlaneSpec p;
  p.with_uvs = false;
  add_plane(no_uvs, p);
  EXPECT_EQ(message(no_uvs, s), "low mesh triangle 0 has no UV coordinates");
  EXPECT_FALSE(phase_seen);
}

}  // namespace
}  // namespace kv
