#include "texel/low_prep.h"
#include "normal/normal_bake.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <numbers>

#include "core/error.h"
#include "core/fnv1a.h"
#include "support/bake_test_meshes.h"
#include "texel/corner_normals.h"
#include "texel/raster_mask.h"

namespace kv {
namespace {

using test::add_triangle;
using test::add_uv_triangle;
using test::message_of;
using test::Uvs3;
using Change = std::function<void(NormalBakeSettings&)>;
using Vec = std::array<float, 3>;
using Mask = std::vector<std::uint8_t>;

NormalBakeSettings small_settings() {
  NormalBakeSettings s;
  s.width = 16;
  s.height = 8;
  s.threads = 1;
  return s;
}

std::string build_message(const Mesh& mesh, const NormalBakeSettings& s,
                          std::span<const std::uint32_t> groups = {},
                          std::vector<std::int64_t> skipped = {}) {
  return message_of([&] { (void)LowPrep::build(mesh, groups, low_prep_settings_of(s), skipped); });
}

template <typename T>
std::vector<T> vec(std::span<const T> s) {
  return {s.begin(), s.end()};
}

// The bytes of a span, for comparing arrays of floats bit for bit.
template <typename T>
std::vector<std::byte> bytes_of(std::span<const T> s) {
  const auto b = std::as_bytes(s);
  return {b.begin(), b.end()};
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

// Every setting a LowPrep is built for, changed one at a time.
const Change kPrepChanges[] = {[](auto& s) { s.width = 17; },
                               [](auto& s) { s.height = 9; },
                               [](auto& s) { s.udim = 1011; },
                               [](auto& s) { s.aa = 2; },
                               [](auto& s) { s.uv_snap_bits = 7; },
                               [](auto& s) { s.uv_snap_texel = true; },
                               [](auto& s) { s.average_normals = false; },
                               [](auto& s) { s.tangent_space = 1; },
                               [](auto& s) { s.raster_materials = {"Skin"}; },
                               [](auto& s) {
                                 s.raster_materials = {"metal", "Skin"};
                               },
                               [](auto& s) { s.uv_tile = 1001; }};

TEST(LowPrepValidation, ChecksRunInOrderWithTheirMessages) {
  const Mesh mesh = two_material_mesh();
  NormalBakeSettings s = small_settings();
  s.aa = 3;  // the start checks come first
  EXPECT_EQ(build_message(Mesh{}, s), "antialiasing must be 1, 2, 4 or 8 sub-samples per side");
  s.aa = 1;
  EXPECT_EQ(build_message(Mesh{}, s), "low mesh has no triangles");
  const std::vector<std::uint32_t> groups = {1, 2};  // the mesh has one object
  EXPECT_EQ(build_message(mesh, s, groups), "name groups do not match the objects of the low mesh");
  const std::vector<std::uint32_t> one_group = {4};
  EXPECT_EQ(build_message(mesh, s, one_group), "(no error)");

  // The raster filter: skip list, then materials, then the tile.
  EXPECT_EQ(build_message(mesh, s, {}, {3}), "a skipped raster triangle is not in the low mesh");
  EXPECT_EQ(build_message(mesh, s, {}, {-1}), "a skipped raster triangle is not in the low mesh");
  s.raster_materials = {"skin"};  // names keep their case
  EXPECT_EQ(build_message(mesh, s), "--raster-material: the low mesh has no material named 'skin'");
  EXPECT_EQ(build_message(mesh, s, {}, {7}), "a skipped raster triangle is not in the low mesh");
  for (const bool names : {false, true}) {  // no names, or one triangle short of a material
    Mesh bare = mesh;
    names ? bare.triangle_materials.pop_back() : bare.materials.clear();
    EXPECT_EQ(build_message(bare, s), "--raster-material: the low mesh carries no material names");
  }
  s.raster_materials = {"Skin"};
  for (const std::int32_t tile : {1000, 2000}) {
    s.uv_tile = tile;
    EXPECT_EQ(build_message(mesh, s), "--uv-tile takes 1001 to 1999");
  }
  s.uv_tile = 1002;
  EXPECT_EQ(build_message(mesh, s), "--uv-tile and the UDIM tile differ");
  s.udim = 1002;
  EXPECT_EQ(build_message(mesh, s), "(no error)");
  // The tile test skips triangles already unmarked, so it does not see the
  // missing UV of a triangle the skip list removed; the raster build does.
  Mesh no_uv = mesh;
  no_uv.triangles[2].corners[1].uv = -1;
  EXPECT_EQ(build_message(no_uv, s), "low mesh triangle 2 has no UV coordinates");
  EXPECT_EQ(build_message(no_uv, s, {}, {2}), "low mesh triangle 2 has no UV coordinates");
}

TEST(LowPrepMask, MaterialsTileAndSkipListSelectTriangles) {
  const Mesh mesh = two_material_mesh();
  NormalBakeSettings s = small_settings();
  const LowPrep all = LowPrep::build(mesh, {}, low_prep_settings_of(s));
  EXPECT_EQ(std::pair(all.raster_mask().empty(), all.rasterised_triangles()), std::pair(true, 3ul));

  s.raster_materials = {"Skin"};
  const LowPrep skin = LowPrep::build(mesh, {}, low_prep_settings_of(s));
  EXPECT_EQ(vec(skin.raster_mask()), (Mask{1, 0, 1}));
  EXPECT_EQ(skin.rasterised_triangles(), 2u);
  // Triangle 1 (metal) still has its place but owns no texel.
  EXPECT_EQ(skin.raster().lookup(11, 2, 1).triangle, -1);  // (0.72, 0.69)
  s.raster_materials = {"metal", "Skin"};
  EXPECT_EQ(LowPrep::build(mesh, {}, low_prep_settings_of(s)).raster().lookup(11, 2, 1).triangle,
            1);

  // Tile 1002: only the triangle whose UV centroid has u in [1, 2) stays, and
  // its UVs are shifted into 0..1.
  s.raster_materials.clear();
  s.uv_tile = s.udim = 1002;
  const LowPrep tile = LowPrep::build(mesh, {}, low_prep_settings_of(s));
  EXPECT_EQ(vec(tile.raster_mask()), (Mask{0, 0, 1}));
  EXPECT_EQ(tile.raster().u0(), 1);
  EXPECT_EQ(tile.raster().lookup(8, 4, 1).triangle, 2);  // (1.53, 0.44)

  // Tile 1011 is column 0, row 1: the centroid's v decides as well.
  Mesh rows;
  add_uv_triangle(rows, {{{0.2, 0.2}, {0.8, 0.2}, {0.5, 0.8}}});
  add_uv_triangle(rows, {{{0.2, 1.2}, {0.8, 1.2}, {0.5, 1.8}}});
  add_uv_triangle(rows, {{{1.2, 1.2}, {1.8, 1.2}, {1.5, 1.8}}});
  RasterFilter row_filter;
  row_filter.uv_tile = 1011;
  EXPECT_EQ(build_raster_mask(rows, row_filter, 1011), (Mask{0, 1, 0}));

  s.uv_tile = 0;
  s.udim = 1001;
  const LowPrep skip =
      LowPrep::build(mesh, {}, low_prep_settings_of(s), std::vector<std::int64_t>{0, 0, 2});
  EXPECT_EQ(vec(skip.raster_mask()), (Mask{0, 1, 0}));
  EXPECT_EQ(skip.skipped_raster_triangles().size(), 3u);
}

TEST(LowPrepFingerprint, StableForSameInputsAndSensitiveToWhatTheStreamHides) {
  Mesh mesh = two_material_mesh();
  mesh.normals.push_back({0, 0, 1});
  mesh.triangles[0].corners[0].normal = 0;
  const std::vector<std::uint32_t> groups = {5};
  const NormalBakeSettings base = small_settings();
  const std::uint64_t reference =
      LowPrep::build(mesh, groups, low_prep_settings_of(base)).fingerprint();
  EXPECT_EQ(LowPrep::build(mesh, groups, low_prep_settings_of(base)).fingerprint(), reference);
  NormalBakeSettings other_run = base;
  other_run.threads = 2;
  other_run.front = 0.5f;  // ray distances are not part of the preparation
  EXPECT_EQ(LowPrep::build(mesh, groups, low_prep_settings_of(other_run)).fingerprint(), reference);

  // The word-wise stream test pins how the positions, UVs, triangles, names,
  // groups and the filter are fed for one input; what it cannot see (the
  // skip list, each setting's own value, normals, -0.0) must still change the
  // fingerprint.
  EXPECT_NE(LowPrep::build(mesh, groups, low_prep_settings_of(base), std::vector<std::int64_t>{1})
                .fingerprint(),
            reference);
  for (const Change& change : kPrepChanges) {  // a setting fed as a constant
    NormalBakeSettings s = base;
    change(s);
    EXPECT_NE(LowPrep::build(mesh, groups, low_prep_settings_of(s)).fingerprint(), reference);
  }
  const std::pair<std::function<void(Mesh&)>, const char*> mesh_changes[] = {
      {[](Mesh& m) { m.positions[0][2] = -0.0f; }, "negative zero position"},
      {[](Mesh& m) { m.normals[0][2] = 0.5f; }, "normal"},
      {[](Mesh& m) { m.normals.resize(2); }, "unused normal"},
  };
  for (const auto& [change, what] : mesh_changes) {
    Mesh m = mesh;
    change(m);
    EXPECT_NE(LowPrep::build(m, groups, low_prep_settings_of(base)).fingerprint(), reference)
        << what;
  }
}

// An independent serialisation of the fingerprint's stream: FNV-1a over whole
// 64-bit little-endian words with a bytewise tail per fed array. Pins the
// layout (count words, field order, filter part).
class Stream {
 public:
  void u64(std::uint64_t v) { words_.push_back({true, v}); }
  // A count word, then `count * size` bytes.
  void array(const void* p, std::size_t count, std::size_t size) {
    u64(count);
    raw(p, count * size);
  }
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

  Stream st;
  st.array(mesh.positions.data(), mesh.positions.size(), 12);
  st.array(mesh.uvs.data(), mesh.uvs.size(), 16);
  st.u64(0);  // no normals
  st.array(mesh.triangles.data(), mesh.triangles.size(), 40);
  st.u64(1);  // one object name
  st.array("body", 4, 1);
  st.array(groups.data(), 1, 4);
  const std::int32_t block[8] = {16, 8, 1001, 4, -1, 0, 1, 0};
  st.raw(block, 32);
  // Without a filter the stream ends after the settings block.
  Stream plain = st;
  st.u64(1);  // one material name
  st.array("metal", 5, 1);
  const std::uint32_t tile = 0;
  st.raw(&tile, 4);
  st.array("\0\1\0", 3, 1);  // the mask
  EXPECT_EQ(LowPrep::build(mesh, groups, low_prep_settings_of(s)).fingerprint(), st.hash());
  s.raster_materials.clear();
  EXPECT_EQ(LowPrep::build(mesh, groups, low_prep_settings_of(s)).fingerprint(), plain.hash());
}

TEST(LowPrepUse, SettingsMustMatchTheLowPrep) {
  const Mesh mesh = two_material_mesh();
  NormalBakeSettings s = small_settings();
  s.raster_materials = {"Skin", "metal"};
  const std::vector<std::int64_t> skipped = {1};
  const LowPrep prep = LowPrep::build(mesh, {}, low_prep_settings_of(s), skipped);
  const auto use = [&](const LowPrep& p, const NormalBakeSettings& x,
                       std::span<const std::int64_t> skip, bool tracer_groups = false) {
    return message_of([&] { check_low_prep_use(p, low_prep_settings_of(x), skip, tracer_groups); });
  };
  EXPECT_EQ(use(prep, s, skipped), "(no error)");
  NormalBakeSettings other = s;
  other.threads = 2;
  other.rear = 3.0f;
  other.ignore_backface = false;
  EXPECT_EQ(use(prep, other, skipped), "(no error)");

  const char* mismatch =
      "the bake settings do not match the LowPrep (size, UDIM, anti-aliasing, UV snap, average "
      "normals or tangent space)";
  for (const Change& change : kPrepChanges) {
    NormalBakeSettings x = s;
    change(x);
    EXPECT_EQ(use(prep, x, skipped), mismatch);
  }
  EXPECT_EQ(use(prep, s, std::vector<std::int64_t>{2}), mismatch);
  EXPECT_EQ(use(prep, s, {}), mismatch);
  NormalBakeSettings bad = s;
  bad.aa = 3;  // validation comes first
  EXPECT_EQ(use(prep, bad, skipped), "antialiasing must be 1, 2, 4 or 8 sub-samples per side");

  const std::vector<std::uint32_t> groups = {2};
  const LowPrep named = LowPrep::build(mesh, groups, low_prep_settings_of(s), skipped);
  EXPECT_EQ(use(named, s, skipped),
            "name matching needs a tracer built with the name groups of the high mesh");
  EXPECT_EQ(use(named, s, skipped, true), "(no error)");
}

TEST(LowPrepNormals, AveragedNormalsWeighCornerAnglesPerObjectAndPosition) {
  // Two triangles folded 90 degrees along the edge (0,0,0)-(0,1,0), no mesh
  // normals: face normals +z and +x. At the shared corners the angles differ
  // (90 and 45 degrees at the origin), so the average leans to the wider one.
  Mesh mesh;
  add_triangle(mesh, {{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}}, Uvs3{{{0, 0}, {1, 0}, {0, 1}}});
  add_triangle(mesh, {{{0, 0, 0}, {0, 1, -1}, {0, 1, 0}}}, Uvs3{{{0, 0}, {0.5, 1}, {0, 1}}});
  const auto n = averaged_normals(mesh, 1);
  const double w0 = std::numbers::pi / 2;  // first triangle at the origin
  const double w1 = std::numbers::pi / 4;  // second triangle at the origin
  EXPECT_FLOAT_EQ(n[0][0], static_cast<float>(w1 / std::hypot(w0, w1)));
  EXPECT_FLOAT_EQ(n[0][2], static_cast<float>(w0 / std::hypot(w0, w1)));
  EXPECT_EQ(n[0], n[3]);  // the same key, the same normal
  // Corners used by one triangle keep their face normal.
  EXPECT_EQ((std::array{n[1], n[4]}), (std::array{Vec{0, 0, 1}, Vec{1, 0, 0}}));

  // The same fold split into two objects: nothing is shared.
  Mesh split = mesh;
  split.triangles[1].object = 1;
  split.objects.push_back("other");
  const auto s = averaged_normals(split, 1);
  EXPECT_EQ((std::array{s[0], s[3]}), (std::array{Vec{0, 0, 1}, Vec{1, 0, 0}}));

  // -0.0 and +0.0 are one position; mesh normals replace face normals.
  Mesh signed_zero = mesh;
  signed_zero.positions[3] = {-0.0f, 0.0f, -0.0f};
  EXPECT_EQ(averaged_normals(signed_zero, 1)[3], n[3]);
  Mesh with_normals = mesh;
  with_normals.normals = {{0, 1, 0}};
  with_normals.triangles[0].corners[1].normal = 0;
  EXPECT_EQ(averaged_normals(with_normals, 1)[1], (Vec{0, 1, 0}));

  // Opposite normals cancel: the corner keeps its own; a degenerate triangle
  // adds nothing and keeps (0, 0, 0).
  Mesh opposite;
  const Uvs3 uv = {{{0, 0}, {1, 0}, {0, 1}}};
  add_triangle(opposite, {{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}}, uv, 0,
               test::Corners3{{{0, 0, 1}, {0, 0, 1}, {0, 0, 1}}});
  add_triangle(opposite, {{{0, 0, 0}, {0, 1, 0}, {1, 0, 0}}}, uv, 0,
               test::Corners3{{{0, 0, -1}, {0, 0, -1}, {0, 0, -1}}});
  add_triangle(opposite, {{{5, 5, 5}, {5, 5, 5}, {6, 5, 5}}}, uv);
  const auto o = averaged_normals(opposite, 1);
  EXPECT_EQ((std::array{o[0], o[3], o[6]}),
            (std::array{Vec{0, 0, 1}, Vec{0, 0, -1}, Vec{0, 0, 0}}));
}

TEST(LowPrepBuild, TangentFramesSnappedCornersAndOptionalParts) {
  Mesh mesh;
  add_triangle(mesh, {{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}}, Uvs3{{{0, 0}, {-1, 0}, {0, 1}}}, 0,
               test::Corners3{{{0, 0, 1}, {0, 0, 1}, {0, 0, 1}}});
  // A triangle without a face normal and without mesh normals.
  add_triangle(mesh, {{{3, 3, 0}, {3, 3, 0}, {4, 3, 0}}}, Uvs3{{{0, 0}, {1, 0}, {0, 1}}});
  NormalBakeSettings s = small_settings();
  s.aa = 4;
  const LowPrep prep = LowPrep::build(mesh, {}, low_prep_settings_of(s));
  const auto frames = prep.tangent_frames();
  ASSERT_EQ(frames.size(), 6u);
  for (std::size_t k = 0; k < 3; ++k) {  // mirrored u: tangent -x, sign -1
    EXPECT_NEAR(frames[k].tangent[0], -1.0f, 1e-6);
    EXPECT_EQ(std::pair(frames[k].sign, frames[k].normal), std::pair(-1.0f, Vec{0, 0, 1}));
  }
  EXPECT_EQ(prep.tangent_normal_fallbacks(), 3u);
  EXPECT_EQ(frames[4].normal, (Vec{0, 0, 1}));
  EXPECT_EQ(prep.averaged_normals().size(), 6u);
  // Snapped corners at the anti-aliasing scale and at scale 1.
  EXPECT_EQ(vec(prep.snapped_corners()), prep.raster().snapped_corners(4, 1));
  EXPECT_EQ(vec(prep.snapped_corners_unit()), prep.raster().snapped_corners(1, 1));

  s.aa = 1;
  const LowPrep one = LowPrep::build(mesh, {}, low_prep_settings_of(s));
  EXPECT_EQ(one.snapped_corners().size(), 12u);
  EXPECT_TRUE(one.snapped_corners_unit().empty());
  s.uv_snap_bits = -1;
  s.average_normals = false;
  const LowPrep plain = LowPrep::build(mesh, {}, low_prep_settings_of(s));
  EXPECT_TRUE(plain.snapped_corners().empty());
  EXPECT_TRUE(plain.averaged_normals().empty());
  EXPECT_EQ(plain.raster().snap_bits(), -1);

  Mesh no_uv = mesh;
  no_uv.triangles[1].corners[0].uv = -1;
  EXPECT_EQ(message_of([&] { (void)build_tangent_frames(no_uv); }),
            "low mesh triangle 1 has no UV coordinates");
}

TEST(LowPrepBuild, TangentFramesOnlyWhenAsked) {
  const Mesh mesh = two_material_mesh();
  LowPrepSettings s = low_prep_settings_of(small_settings());
  const LowPrep with = LowPrep::build(mesh, {}, s);
  s.tangent_frames = false;
  const LowPrep without = LowPrep::build(mesh, {}, s);
  EXPECT_EQ(with.tangent_frames().size(), 9u);
  EXPECT_TRUE(without.tangent_frames().empty());
  EXPECT_EQ(without.tangent_normal_fallbacks(), 0u);
  // Everything else is built the same; only the fingerprint tells them apart,
  // and a prep without frames cannot serve a bake that needs them.
  EXPECT_EQ(vec(without.averaged_normals()), vec(with.averaged_normals()));
  EXPECT_EQ(without.raster().lookup(5, 5, 1).triangle, with.raster().lookup(5, 5, 1).triangle);
  EXPECT_NE(without.fingerprint(), with.fingerprint());
  EXPECT_EQ(message_of([&] {
              check_low_prep_use(without, low_prep_settings_of(small_settings()), {}, false);
            }),
            "the bake settings do not match the LowPrep (size, UDIM, anti-aliasing, UV snap, "
            "average normals or tangent space)");
  EXPECT_EQ(message_of([&] { check_low_prep_use(without, s, {}, false); }), "(no error)");
  // The prep checks its own settings, whoever fills them.
  s.width = 0;
  EXPECT_EQ(message_of([&] { (void)LowPrep::build(mesh, {}, s); }),
            "output size must be 1 to 16384 texels per side");
}

TEST(LowPrepBuild, OneAndTwoThreadsGiveIdenticalPreparations) {
  // 4900 triangles without stored normals: averaging weighs face normals.
  const Mesh mesh = test::uv_sphere(50, 50, 1.0f, 0.05f);
  NormalBakeSettings s = small_settings();
  s.width = 64;
  s.height = 64;
  s.aa = 2;
  const LowPrep a = LowPrep::build(mesh, {}, low_prep_settings_of(s));
  s.threads = 2;
  const LowPrep b = LowPrep::build(mesh, {}, low_prep_settings_of(s));
  EXPECT_EQ(a.fingerprint(), b.fingerprint());
  EXPECT_EQ(bytes_of(a.averaged_normals()), bytes_of(b.averaged_normals()));
  EXPECT_EQ(vec(a.snapped_corners()), vec(b.snapped_corners()));
  EXPECT_EQ(vec(a.snapped_corners_unit()), vec(b.snapped_corners_unit()));
  EXPECT_EQ(bytes_of(a.tangent_frames()), bytes_of(b.tangent_frames()));
  EXPECT_FALSE(a.tangent_frames().empty());
}

}  // namespace
}  // namespace kv
