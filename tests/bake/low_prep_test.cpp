#include "bake/low_prep.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <numbers>

#include "bake/corner_normals.h"
#include "bake/low_mesh_fixtures.h"
#include "bake/raster_mask.h"
#include "core/error.h"
#include "core/fnv1a.h"

namespace kv {
namespace {

using test::add_triangle;
using test::add_uv_triangle;

std::string message_of(const std::function<void()>& fn) {
  try {
    fn();
  } catch (const Error& e) {
    return e.what();
  }
  return "(no error)";
}

NormalBakeSettings small_settings() {
  NormalBakeSettings s;
  s.width = 16;
  s.height = 8;
  s.threads = 1;
  return s;
}

Mesh two_material_mesh() {
  Mesh mesh;
  add_uv_triangle(mesh, {{{0.1, 0.1}, {0.4, 0.1}, {0.1, 0.4}}});
  add_uv_triangle(mesh, {{{0.6, 0.6}, {0.9, 0.6}, {0.6, 0.9}}});
  add_uv_triangle(mesh, {{{1.2, 0.2}, {1.8, 0.2}, {1.5, 0.8}}});  // centroid u = 1.5
  mesh.materials = {"Skin", "metal"};
  mesh.triangle_materials = {0, 1, 0};
  return mesh;
}

TEST(LowPrepValidation, ChecksRunInOrderWithTheirMessages) {
  const Mesh mesh = two_material_mesh();
  const struct {
    std::function<void(NormalBakeSettings&)> change;
    const char* message;
  } cases[] = {
      {[](NormalBakeSettings& s) { s.width = 0; },
       "output size must be 1 to 16384 texels per side"},
      {[](NormalBakeSettings& s) { s.height = 16385; },
       "output size must be 1 to 16384 texels per side"},
      {[](NormalBakeSettings& s) { s.aa = 3; },
       "antialiasing must be 1, 2, 4 or 8 sub-samples per side"},
      {[](NormalBakeSettings& s) { s.uv_snap_bits = 17; },
       "UV snap bits must be -1 (off) or 0 to 16"},
      {[](NormalBakeSettings& s) { s.uv_snap_bits = -2; },
       "UV snap bits must be -1 (off) or 0 to 16"},
      {[](NormalBakeSettings& s) { s.udim = 2000; }, "UDIM tile must be 1001 to 1999"},
      {[](NormalBakeSettings& s) { s.band_samples = 0; }, "band_samples must be at least 1"},
      {[](NormalBakeSettings& s) { s.front = std::numeric_limits<float>::quiet_NaN(); },
       "ray distances must be finite and not negative"},
      {[](NormalBakeSettings& s) { s.rear = -0.5f; },
       "ray distances must be finite and not negative"},
      // Two faults: the earlier check speaks.
      {[](NormalBakeSettings& s) {
         s.aa = 5;
         s.width = 0;
       },
       "output size must be 1 to 16384 texels per side"},
  };
  for (const auto& c : cases) {
    NormalBakeSettings s = small_settings();
    c.change(s);
    EXPECT_EQ(message_of([&] { (void)LowPrep::build(mesh, {}, s); }), c.message);
  }
  const NormalBakeSettings s = small_settings();
  EXPECT_EQ(message_of([&] { (void)LowPrep::build(Mesh{}, {}, s); }), "low mesh has no triangles");
  const std::vector<std::uint32_t> groups = {1, 2};  // the mesh has one object
  EXPECT_EQ(message_of([&] { (void)LowPrep::build(mesh, groups, s); }),
            "name groups do not match the objects of the low mesh");
  const std::vector<std::uint32_t> one_group = {4};
  EXPECT_EQ(message_of([&] { (void)LowPrep::build(mesh, one_group, s); }), "(no error)");
}

TEST(LowPrepMask, FilterErrorsInTheirOrder) {
  const Mesh mesh = two_material_mesh();
  const auto build = [&](const NormalBakeSettings& s, std::vector<std::int64_t> skipped = {}) {
    return message_of([&] { (void)LowPrep::build(mesh, {}, s, skipped); });
  };
  NormalBakeSettings s = small_settings();
  EXPECT_EQ(build(s, {3}), "a skipped raster triangle is not in the low mesh");
  EXPECT_EQ(build(s, {-1}), "a skipped raster triangle is not in the low mesh");
  s.raster_materials = {"skin"};  // names keep their case
  EXPECT_EQ(build(s), "--raster-material: the low mesh has no material named 'skin'");
  // A bad skip index is reported before a bad material name.
  EXPECT_EQ(build(s, {7}), "a skipped raster triangle is not in the low mesh");
  Mesh bare = mesh;
  bare.materials.clear();
  EXPECT_EQ(message_of([&] { (void)LowPrep::build(bare, {}, s); }),
            "--raster-material: the low mesh carries no material names");
  bare = mesh;
  bare.triangle_materials.pop_back();
  EXPECT_EQ(message_of([&] { (void)LowPrep::build(bare, {}, s); }),
            "--raster-material: the low mesh carries no material names");
  s.raster_materials = {"Skin"};
  s.uv_tile = 1000;
  EXPECT_EQ(build(s), "--uv-tile takes 1001 to 1999");
  s.uv_tile = 2000;
  EXPECT_EQ(build(s), "--uv-tile takes 1001 to 1999");
  s.uv_tile = 1002;
  EXPECT_EQ(build(s), "--uv-tile and the UDIM tile differ");
  s.udim = 1002;
  EXPECT_EQ(build(s), "(no error)");
  Mesh no_uv = mesh;
  no_uv.triangles[2].corners[1].uv = -1;
  EXPECT_EQ(message_of([&] { (void)LowPrep::build(no_uv, {}, s); }),
            "low mesh triangle 2 has no UV coordinates");
  // The tile test skips triangles already unmarked, so it does not see the
  // missing UV of a triangle the skip list removed; the raster build does.
  const std::vector<std::int64_t> skip2 = {2};
  EXPECT_EQ(message_of([&] { (void)LowPrep::build(no_uv, {}, s, skip2); }),
            "low mesh triangle 2 has no UV coordinates");
}

TEST(LowPrepMask, MaterialsTileAndSkipListSelectTriangles) {
  const Mesh mesh = two_material_mesh();
  NormalBakeSettings s = small_settings();
  EXPECT_TRUE(build_raster_mask(mesh, RasterFilter{}, 1001).empty());
  const LowPrep all = LowPrep::build(mesh, {}, s);
  EXPECT_TRUE(all.raster_mask().empty());
  EXPECT_EQ(all.rasterised_triangles(), 3u);

  s.raster_materials = {"Skin"};
  const LowPrep skin = LowPrep::build(mesh, {}, s);
  EXPECT_EQ(std::vector<std::uint8_t>(skin.raster_mask().begin(), skin.raster_mask().end()),
            (std::vector<std::uint8_t>{1, 0, 1}));
  EXPECT_EQ(skin.rasterised_triangles(), 2u);
  // Triangle 1 (metal) still has its place but owns no texel.
  EXPECT_EQ(skin.raster().lookup(11, 2, 1).triangle, -1);  // (0.72, 0.69)
  s.raster_materials = {"metal", "Skin"};
  EXPECT_EQ(LowPrep::build(mesh, {}, s).raster().lookup(11, 2, 1).triangle, 1);

  // Tile 1002: only the triangle whose UV centroid has u in [1, 2) stays, and
  // its UVs are shifted into 0..1.
  s.raster_materials.clear();
  s.uv_tile = 1002;
  s.udim = 1002;
  const LowPrep tile = LowPrep::build(mesh, {}, s);
  EXPECT_EQ(std::vector<std::uint8_t>(tile.raster_mask().begin(), tile.raster_mask().end()),
            (std::vector<std::uint8_t>{0, 0, 1}));
  EXPECT_EQ(tile.raster().u0(), 1);
  EXPECT_EQ(tile.raster().lookup(8, 4, 1).triangle, 2);  // (1.53, 0.44)

  // Tile 1011 is column 0, row 1: the centroid's v decides as well.
  Mesh rows;
  add_uv_triangle(rows, {{{0.2, 0.2}, {0.8, 0.2}, {0.5, 0.8}}});
  add_uv_triangle(rows, {{{0.2, 1.2}, {0.8, 1.2}, {0.5, 1.8}}});
  add_uv_triangle(rows, {{{1.2, 1.2}, {1.8, 1.2}, {1.5, 1.8}}});
  RasterFilter row_filter;
  row_filter.uv_tile = 1011;
  EXPECT_EQ(build_raster_mask(rows, row_filter, 1011), (std::vector<std::uint8_t>{0, 1, 0}));

  s.uv_tile = 0;
  s.udim = 1001;
  const std::vector<std::int64_t> skipped = {0, 0, 2};
  const LowPrep skip = LowPrep::build(mesh, {}, s, skipped);
  EXPECT_EQ(std::vector<std::uint8_t>(skip.raster_mask().begin(), skip.raster_mask().end()),
            (std::vector<std::uint8_t>{0, 1, 0}));
  EXPECT_EQ(skip.skipped_raster_triangles().size(), 3u);
}

TEST(LowPrepFingerprint, StableForSameInputsAndSensitiveToEveryField) {
  Mesh mesh = two_material_mesh();
  mesh.normals.push_back({0, 0, 1});
  mesh.triangles[0].corners[0].normal = 0;
  const std::vector<std::uint32_t> groups = {5};
  const NormalBakeSettings base = small_settings();
  const std::uint64_t reference = LowPrep::build(mesh, groups, base).fingerprint();
  EXPECT_EQ(LowPrep::build(mesh, groups, base).fingerprint(), reference);
  NormalBakeSettings more_threads = base;
  more_threads.threads = 2;
  more_threads.front = 0.5f;  // ray distances are not part of the preparation
  EXPECT_EQ(LowPrep::build(mesh, groups, more_threads).fingerprint(), reference);

  std::vector<std::uint64_t> seen = {reference};
  const auto differs = [&](const Mesh& m, std::span<const std::uint32_t> g,
                           const NormalBakeSettings& s, std::vector<std::int64_t> skipped,
                           const char* what) {
    const std::uint64_t f = LowPrep::build(m, g, s, skipped).fingerprint();
    for (const std::uint64_t other : seen) {
      EXPECT_NE(f, other) << what;
    }
    seen.push_back(f);
  };
  const auto with_settings = [&](const std::function<void(NormalBakeSettings&)>& change,
                                 const char* what) {
    NormalBakeSettings s = base;
    change(s);
    differs(mesh, groups, s, {}, what);
  };
  with_settings([](NormalBakeSettings& s) { s.width = 17; }, "width");
  with_settings([](NormalBakeSettings& s) { s.height = 9; }, "height");
  with_settings([](NormalBakeSettings& s) { s.udim = 1011; }, "udim");
  with_settings([](NormalBakeSettings& s) { s.aa = 2; }, "aa");
  with_settings([](NormalBakeSettings& s) { s.uv_snap_bits = 7; }, "snap bits");
  with_settings([](NormalBakeSettings& s) { s.uv_snap_texel = true; }, "snap unit");
  with_settings([](NormalBakeSettings& s) { s.average_normals = false; }, "average normals");
  with_settings([](NormalBakeSettings& s) { s.tangent_space = 1; }, "tangent space");
  with_settings([](NormalBakeSettings& s) { s.raster_materials = {"Skin"}; }, "materials");
  with_settings(
      [](NormalBakeSettings& s) {
        s.raster_materials = {"Skin", "metal"};
      },
      "two materials");
  with_settings(
      [](NormalBakeSettings& s) {
        s.uv_tile = 1002;
        s.udim = 1002;
      },
      "uv tile");
  differs(mesh, groups, base, {1}, "skip list");
  differs(mesh, {}, base, {}, "no groups");
  const std::vector<std::uint32_t> other_groups = {6};
  differs(mesh, other_groups, base, {}, "group value");
  const auto with_mesh = [&](const std::function<void(Mesh&)>& change, const char* what) {
    Mesh m = mesh;
    change(m);
    differs(m, groups, base, {}, what);
  };
  with_mesh([](Mesh& m) { m.positions[4][2] = 1e-30f; }, "position bit");
  with_mesh([](Mesh& m) { m.positions[0][2] = -0.0f; }, "negative zero position");
  with_mesh([](Mesh& m) { m.uvs[8][1] += 1e-12; }, "uv");
  with_mesh([](Mesh& m) { m.normals[0][2] = 0.5f; }, "normal");
  with_mesh([](Mesh& m) { m.normals.push_back({0, 1, 0}); }, "unused normal");
  with_mesh([](Mesh& m) { m.triangles[1].corners[2].normal = 0; }, "corner normal index");
  with_mesh([](Mesh& m) { m.objects[0] = "objecu"; }, "object name");
  with_mesh([](Mesh& m) { m.objects[0] += '\0'; }, "object name length");
}

// An independent serialisation of the fingerprint's stream: a byte buffer in
// the documented order, then FNV-1a over whole 64-bit words with a bytewise
// tail. Pins the layout (count words, field order, filter part).
class Stream {
 public:
  void u64(std::uint64_t v) { words_.push_back({true, v}); }
  // One fed array: whole 8-byte little-endian words, then its tail bytewise.
  void raw(const void* p, std::size_t n) {
    const auto* b = static_cast<const unsigned char*>(p);
    std::size_t i = 0;
    for (; i + 8 <= n; i += 8) {
      std::uint64_t w;
      std::memcpy(&w, b + i, 8);  // little-endian host
      words_.push_back({true, w});
    }
    for (; i < n; ++i) {
      words_.push_back({false, b[i]});
    }
  }
  std::uint64_t hash() const {
    std::uint64_t h = kFnv1aOffset;
    for (const auto& [whole, value] : words_) {
      h = (h ^ (whole ? value : (value & 0xFF))) * kFnv1aPrime;
    }
    return h;
  }

 private:
  std::vector<std::pair<bool, std::uint64_t>> words_;
};

TEST(LowPrepFingerprint, WordWiseStreamInTheDocumentedOrder) {
  Mesh mesh = two_material_mesh();
  mesh.objects = {"body"};
  const std::vector<std::uint32_t> groups = {3};
  NormalBakeSettings s = small_settings();
  s.aa = 4;
  s.uv_snap_bits = -1;
  s.raster_materials = {"metal"};
  const LowPrep prep = LowPrep::build(mesh, groups, s);

  Stream st;
  st.u64(mesh.positions.size());
  st.raw(mesh.positions.data(), mesh.positions.size() * 12);
  st.u64(mesh.uvs.size());
  st.raw(mesh.uvs.data(), mesh.uvs.size() * 16);
  st.u64(0);  // no normals
  st.u64(mesh.triangles.size());
  st.raw(mesh.triangles.data(), mesh.triangles.size() * 40);
  st.u64(1);
  st.u64(4);
  st.raw("body", 4);
  st.u64(1);
  st.raw(groups.data(), 4);
  const std::int32_t block[8] = {16, 8, 1001, 4, -1, 0, 1, 0};
  st.raw(block, 32);
  st.u64(1);
  st.u64(5);
  st.raw("metal", 5);
  const std::uint32_t tile = 0;
  st.raw(&tile, 4);
  st.u64(3);
  const unsigned char mask[3] = {0, 1, 0};
  st.raw(mask, 3);
  EXPECT_EQ(prep.fingerprint(), st.hash());

  // Without a filter the stream ends after the settings block.
  s.raster_materials.clear();
  Stream plain;
  plain.u64(mesh.positions.size());
  plain.raw(mesh.positions.data(), mesh.positions.size() * 12);
  plain.u64(mesh.uvs.size());
  plain.raw(mesh.uvs.data(), mesh.uvs.size() * 16);
  plain.u64(0);
  plain.u64(mesh.triangles.size());
  plain.raw(mesh.triangles.data(), mesh.triangles.size() * 40);
  plain.u64(1);
  plain.u64(4);
  plain.raw("body", 4);
  plain.u64(1);
  plain.raw(groups.data(), 4);
  plain.raw(block, 32);
  EXPECT_EQ(LowPrep::build(mesh, groups, s).fingerprint(), plain.hash());
}

TEST(LowPrepUse, SettingsMustMatchTheLowPrep) {
  const Mesh mesh = two_material_mesh();
  NormalBakeSettings s = small_settings();
  s.raster_materials = {"Skin", "metal"};
  const std::vector<std::int64_t> skipped = {1};
  const LowPrep prep = LowPrep::build(mesh, {}, s, skipped);
  EXPECT_EQ(message_of([&] { check_low_prep_use(prep, s, skipped, false); }), "(no error)");
  NormalBakeSettings other = s;
  other.threads = 2;
  other.rear = 3.0f;
  other.ignore_backface = false;
  EXPECT_EQ(message_of([&] { check_low_prep_use(prep, other, skipped, false); }), "(no error)");

  const char* mismatch =
      "the bake settings do not match the LowPrep (size, UDIM, anti-aliasing, UV snap, average "
      "normals or tangent space)";
  const std::function<void(NormalBakeSettings&)> changes[] = {
      [](NormalBakeSettings& x) { x.width = 32; },
      [](NormalBakeSettings& x) { x.height = 32; },
      [](NormalBakeSettings& x) { x.udim = 1002; },
      [](NormalBakeSettings& x) { x.aa = 2; },
      [](NormalBakeSettings& x) { x.uv_snap_bits = -1; },
      [](NormalBakeSettings& x) { x.uv_snap_texel = true; },
      [](NormalBakeSettings& x) { x.average_normals = false; },
      [](NormalBakeSettings& x) { x.tangent_space = 1; },
      [](NormalBakeSettings& x) {
        x.raster_materials = {"metal", "Skin"};
      },
      [](NormalBakeSettings& x) { x.raster_materials = {"Skin"}; },
      [](NormalBakeSettings& x) { x.uv_tile = 1001; },
  };
  for (const auto& change : changes) {
    NormalBakeSettings x = s;
    change(x);
    EXPECT_EQ(message_of([&] { check_low_prep_use(prep, x, skipped, false); }), mismatch);
  }
  const std::vector<std::int64_t> other_skip = {2};
  EXPECT_EQ(message_of([&] { check_low_prep_use(prep, s, other_skip, false); }), mismatch);
  EXPECT_EQ(message_of([&] { check_low_prep_use(prep, s, {}, false); }), mismatch);
  // Validation comes first.
  NormalBakeSettings bad = s;
  bad.aa = 3;
  EXPECT_EQ(message_of([&] { check_low_prep_use(prep, bad, skipped, false); }),
            "antialiasing must be 1, 2, 4 or 8 sub-samples per side");

  const std::vector<std::uint32_t> groups = {2};
  const LowPrep named = LowPrep::build(mesh, groups, s, skipped);
  EXPECT_EQ(message_of([&] { check_low_prep_use(named, s, skipped, false); }),
            "name matching needs a tracer built with the name groups of the high mesh");
  EXPECT_EQ(message_of([&] { check_low_prep_use(named, s, skipped, true); }), "(no error)");
}

TEST(LowPrepNormals, AveragedNormalsWeighCornerAnglesPerObjectAndPosition) {
  // Two triangles folded 90 degrees along the edge (0,0,0)-(0,1,0), no mesh
  // normals: face normals +z and +x. At the shared corners the angles differ
  // (90 and 45 degrees at the origin), so the average leans to the wider one.
  Mesh mesh;
  add_triangle(mesh, {{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}}, {{{0, 0}, {1, 0}, {0, 1}}});
  add_triangle(mesh, {{{0, 0, 0}, {0, 1, -1}, {0, 1, 0}}}, {{{0, 0}, {0.5, 1}, {0, 1}}});
  const auto n = averaged_normals(mesh, 1);
  const double w0 = std::numbers::pi / 2;  // first triangle at the origin
  const double w1 = std::numbers::pi / 4;  // second triangle at the origin
  const double len = std::hypot(w0, w1);
  EXPECT_FLOAT_EQ(n[0][0], static_cast<float>(w1 / len));
  EXPECT_FLOAT_EQ(n[0][2], static_cast<float>(w0 / len));
  EXPECT_EQ(n[0], n[3]);  // the same key, the same normal
  // Corners used by one triangle keep their face normal.
  EXPECT_EQ(n[1], (std::array<float, 3>{0, 0, 1}));
  EXPECT_EQ(n[4], (std::array<float, 3>{1, 0, 0}));

  // The same fold split into two objects: nothing is shared.
  Mesh split = mesh;
  split.triangles[1].object = 1;
  split.objects.push_back("other");
  const auto s = averaged_normals(split, 1);
  EXPECT_EQ(s[0], (std::array<float, 3>{0, 0, 1}));
  EXPECT_EQ(s[3], (std::array<float, 3>{1, 0, 0}));

  // -0.0 and +0.0 are one position; mesh normals replace face normals.
  Mesh signed_zero = mesh;
  signed_zero.positions[3] = {-0.0f, 0.0f, -0.0f};
  EXPECT_EQ(averaged_normals(signed_zero, 1)[3], n[3]);
  Mesh with_normals = mesh;
  with_normals.normals = {{0, 1, 0}};
  with_normals.triangles[0].corners[1].normal = 0;
  EXPECT_EQ(averaged_normals(with_normals, 1)[1], (std::array<float, 3>{0, 1, 0}));

  // Opposite normals cancel: the corner keeps its own; a degenerate triangle
  // adds nothing and keeps (0, 0, 0).
  Mesh opposite;
  const std::array<std::array<float, 3>, 3> up = {{{0, 0, 1}, {0, 0, 1}, {0, 0, 1}}};
  const std::array<std::array<float, 3>, 3> down = {{{0, 0, -1}, {0, 0, -1}, {0, 0, -1}}};
  add_triangle(opposite, {{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}}, {{{0, 0}, {1, 0}, {0, 1}}}, 0, &up);
  add_triangle(opposite, {{{0, 0, 0}, {0, 1, 0}, {1, 0, 0}}}, {{{0, 0}, {0, 1}, {1, 0}}}, 0, &down);
  add_triangle(opposite, {{{5, 5, 5}, {5, 5, 5}, {6, 5, 5}}}, {{{0, 0}, {0, 1}, {1, 0}}});
  const auto o = averaged_normals(opposite, 1);
  EXPECT_EQ(o[0], (std::array<float, 3>{0, 0, 1}));
  EXPECT_EQ(o[3], (std::array<float, 3>{0, 0, -1}));
  EXPECT_EQ(o[6], (std::array<float, 3>{0, 0, 0}));
}

TEST(LowPrepTangentFrames, FramesCarryTangentSignAndTheirNormal) {
  Mesh mesh;
  const std::array<std::array<float, 3>, 3> up = {{{0, 0, 1}, {0, 0, 1}, {0, 0, 1}}};
  add_triangle(mesh, {{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}}, {{{0, 0}, {-1, 0}, {0, 1}}}, 0, &up);
  // A triangle without a face normal and without mesh normals.
  add_triangle(mesh, {{{3, 3, 0}, {3, 3, 0}, {4, 3, 0}}}, {{{0, 0}, {1, 0}, {0, 1}}});
  NormalBakeSettings s = small_settings();
  const LowPrep prep = LowPrep::build(mesh, {}, s);
  const auto frames = prep.tangent_frames();
  ASSERT_EQ(frames.size(), 6u);
  // Mirrored u: tangent -x, sign -1.
  for (int k = 0; k < 3; ++k) {
    EXPECT_NEAR(frames[static_cast<std::size_t>(k)].tangent[0], -1.0f, 1e-6);
    EXPECT_EQ(frames[static_cast<std::size_t>(k)].sign, -1.0f);
    EXPECT_EQ(frames[static_cast<std::size_t>(k)].normal, (std::array<float, 3>{0, 0, 1}));
  }
  EXPECT_EQ(prep.tangent_normal_fallbacks(), 3u);
  EXPECT_EQ(frames[4].normal, (std::array<float, 3>{0, 0, 1}));
  EXPECT_EQ(prep.averaged_normals().size(), 6u);

  Mesh no_uv = mesh;
  no_uv.triangles[1].corners[0].uv = -1;
  EXPECT_EQ(message_of([&] { (void)build_tangent_frames(no_uv); }),
            "low mesh triangle 1 has no UV coordinates");
}

TEST(LowPrepBuild, SnappedCornersAndOptionalParts) {
  const Mesh mesh = test::grid_mesh(4);
  NormalBakeSettings s = small_settings();
  s.aa = 4;
  const LowPrep four = LowPrep::build(mesh, {}, s);
  EXPECT_EQ(four.snapped_corners().size(), mesh.triangles.size() * 6);
  EXPECT_EQ(four.snapped_corners_unit().size(), mesh.triangles.size() * 6);
  const auto at_four = four.raster().snapped_corners(4, 1);
  EXPECT_TRUE(std::equal(at_four.begin(), at_four.end(), four.snapped_corners().begin()));
  const auto at_one = four.raster().snapped_corners(1, 1);
  EXPECT_TRUE(std::equal(at_one.begin(), at_one.end(), four.snapped_corners_unit().begin()));
  EXPECT_EQ(four.settings().aa, 4);
  EXPECT_EQ(&four.mesh(), &mesh);

  s.aa = 1;
  const LowPrep one = LowPrep::build(mesh, {}, s);
  EXPECT_EQ(one.snapped_corners().size(), mesh.triangles.size() * 6);
  EXPECT_TRUE(one.snapped_corners_unit().empty());

  s.uv_snap_bits = -1;
  s.average_normals = false;
  const LowPrep plain = LowPrep::build(mesh, {}, s);
  EXPECT_TRUE(plain.snapped_corners().empty());
  EXPECT_TRUE(plain.averaged_normals().empty());
  EXPECT_EQ(plain.raster().snap_bits(), -1);
}

TEST(LowPrepBuild, OneAndTwoThreadsGiveIdenticalPreparations) {
  const Mesh mesh = test::grid_mesh(50);  // 5000 triangles, 15000 corners
  NormalBakeSettings s = small_settings();
  s.width = 64;
  s.height = 64;
  s.aa = 2;
  s.threads = 1;
  const LowPrep a = LowPrep::build(mesh, {}, s);
  s.threads = 2;
  const LowPrep b = LowPrep::build(mesh, {}, s);
  EXPECT_EQ(a.fingerprint(), b.fingerprint());
  ASSERT_EQ(a.averaged_normals().size(), b.averaged_normals().size());
  EXPECT_EQ(std::memcmp(a.averaged_normals().data(), b.averaged_normals().data(),
                        a.averaged_normals().size_bytes()),
            0);
  EXPECT_TRUE(std::equal(a.snapped_corners().begin(), a.snapped_corners().end(),
                         b.snapped_corners().begin()));
  EXPECT_TRUE(std::equal(a.snapped_corners_unit().begin(), a.snapped_corners_unit().end(),
                         b.snapped_corners_unit().begin()));
  EXPECT_EQ(std::memcmp(a.tangent_frames().data(), b.tangent_frames().data(),
                        a.tangent_frames().size_bytes()),
            0);
  // The bump makes neighbouring normals differ: averaging did real work.
  EXPECT_NE(a.averaged_normals()[0], a.averaged_normals()[3 * 2500]);
}

}  // namespace
}  // namespace kv
