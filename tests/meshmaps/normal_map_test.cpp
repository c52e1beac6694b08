// The --normal-map input: decoding, the low surface's shading normals under
// --low-as-high, and the normal-map curvature.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "core/error.h"
#include "image/exr.h"
#include "image/kvt_file.h"
#include "image/png.h"
#include "image/unorm16.h"
#include "meshmaps/map_ranges.h"
#include "meshmaps/meshmaps_bake.h"
#include "meshmaps/meshmaps_options.h"
#include "meshmaps/normal_map_input.h"
#include "support/bake_test_meshes.h"
#include "support/message_of.h"
#include "support/test_support.h"

namespace kv::meshmaps {
namespace {

TexelImage rgb8(int w, int h, std::array<std::uint8_t, 3> colour) {
  TexelImage image;
  image.width = w;
  image.height = h;
  image.channels = 3;
  image.type = ComponentType::kU8;
  for (int i = 0; i < w * h; ++i) {
    image.data.insert(image.data.end(), colour.begin(), colour.end());
  }
  return image;
}

TEST(MeshMapsNormalMap, DecodesEveryComponentTypeAndTheDirectXFlip) {
  const NormalMapImage flat = decode_normal_map(rgb8(2, 2, {128, 128, 255}), false, "n.png");
  EXPECT_NEAR(flat.normals[3][0], 0.0f, 0.01f);
  EXPECT_NEAR(flat.normals[3][2], 1.0f, 1e-4f);
  const NormalMapImage gl = decode_normal_map(rgb8(1, 1, {128, 255, 128}), false, "n.png");
  const NormalMapImage dx = decode_normal_map(rgb8(1, 1, {128, 255, 128}), true, "n.png");
  EXPECT_GT(gl.normals[0][1], 0.99f);
  EXPECT_LT(dx.normals[0][1], -0.99f);

  TexelImage wide;
  wide.width = wide.height = 1;
  wide.channels = 4;
  wide.type = ComponentType::kF32;
  const float rgba[4] = {1.0f, 0.5f, 0.5f, 1.0f};
  wide.data.resize(sizeof(rgba));
  std::memcpy(wide.data.data(), rgba, sizeof(rgba));
  EXPECT_FLOAT_EQ(decode_normal_map(wide, false, "n.exr").normals[0][0], 1.0f);

  TexelImage grey = rgb8(1, 1, {0, 0, 0});
  grey.channels = 1;
  grey.data.resize(1);
  EXPECT_EQ(test::message_of([&] { decode_normal_map(grey, false, "g.png"); }),
            "meshmaps: the normal map needs three channels: g.png");
  // A .kvt file is read as stored, any component type.
  test::ScratchDir dir;
  write_kvt(dir / "n.kvt", wide);
  EXPECT_FLOAT_EQ(
      decode_normal_map(read_normal_map_texels(dir / "n.kvt"), false, "n.kvt").normals[0][0], 1.0f);
  EXPECT_EQ(test::message_of([] { read_normal_map_texels("n.tga"); }),
            "meshmaps: --normal-map takes a .png, .exr or .kvt file: n.tga");
}

// A 4 x 4 map whose normals lean outward from its centre, as over a dome.
NormalMapImage dome() {
  NormalMapImage map;
  map.width = map.height = 4;
  for (int y = 0; y < 4; ++y) {
    for (int x = 0; x < 4; ++x) {
      Vec3f n = {0.2f * (static_cast<float>(x) - 1.5f), 0.2f * (1.5f - static_cast<float>(y)),
                 1.0f};
      normalize_in_place(n);
      map.normals.push_back(n);
    }
  }
  return map;
}

TEST(MeshMapsNormalMap, TexelLookupAndDivergence) {
  const NormalMapImage map = dome();
  EXPECT_EQ(map.texel_at(0.0, 0.0), 0u);
  EXPECT_EQ(map.texel_at(0.99, 0.0), 3u);
  EXPECT_EQ(map.texel_at(0.3, 0.6), 9u);
  EXPECT_EQ(map.texel_at(1.5, -1.0), 3u);  // clamped to the edge
  for (std::size_t t = 0; t < map.normals.size(); ++t) {
    EXPECT_GT(map.divergence(t), 0.0) << t;
  }
  NormalMapImage bowl = map;
  for (Vec3f& n : bowl.normals) {
    n[0] = -n[0];
    n[1] = -n[1];
  }
  EXPECT_LT(bowl.divergence(5), 0.0);
}

TEST(MeshMapsNormalMap, LowAsHighShadesWithTheMapAndItsCurvature) {
  const Mesh low = test::unit_low_plane();
  MeshMapsSettings s = parse_meshmaps_options(
      {"korvane", "meshmaps", "--low", "l.obj", "--low-as-high", "--size", "4",
       "--out-world-normal", "w.exr", "--out-curvature", "c.exr", "--out-height", "h.exr",
       "--curvature-method", "normal-map", "--normal-map", "n.png"});
  // A map leaning every normal towards +u: on the unit plane, +x.
  const NormalMapImage lean = decode_normal_map(rgb8(4, 4, {218, 128, 218}), false, "n.png");
  BakeExtras extras;
  extras.normal_map = &lean;
  const MeshMapsRun run = bake_mesh_maps(low, low, s, MeshMapsEnvironment{}, extras, 1);
  ASSERT_EQ(run.buffers.counters.texels_hit, 16u);
  const Vec3f& n = lean.normals[0];
  EXPECT_NEAR(run.buffers.world_normal[0], encode_unorm16(0.5 + 0.5 * n[0]), 2);
  EXPECT_NEAR(run.buffers.world_normal[2], encode_unorm16(0.5 + 0.5 * n[2]), 2);
  EXPECT_GT(run.buffers.world_normal[0], 40000);
  // A constant map is flat: the normal-map curvature is exactly one half.
  const auto flat = curvature_codes(run.buffers.curvature, run.buffers.hit, s);
  EXPECT_EQ(flat[7], 32768);
  const auto height = height_codes(run.buffers.height_map, run.buffers.hit, s.height_range,
                                   {run.front, run.rear, 1.0f}, 1.0f, s.low_as_high);
  EXPECT_EQ(height[7], 32768);

  const NormalMapImage bump = dome();
  extras.normal_map = &bump;
  const MeshMapsRun domed = bake_mesh_maps(low, low, s, MeshMapsEnvironment{}, extras, 1);
  const auto convex = curvature_codes(domed.buffers.curvature, domed.buffers.hit, s);
  for (std::size_t t = 0; t < convex.size(); ++t) {
    // 0.5 + 0.5 (the default gain) times the divergence.
    EXPECT_EQ(convex[t],
              encode_unorm16(0.5 + 0.5 * static_cast<double>(domed.buffers.curvature[t])));
    EXPECT_GT(convex[t], 32768);
  }
}

// The codes of an 8 x 8 map whose normals lean outward from its centre.
std::vector<std::uint16_t> dome_codes() {
  std::vector<std::uint16_t> codes;
  for (int y = 0; y < 8; ++y) {
    for (int x = 0; x < 8; ++x) {
      Vec3f n = {0.1f * (static_cast<float>(x) - 3.5f), 0.1f * (3.5f - static_cast<float>(y)),
                 1.0f};
      normalize_in_place(n);
      for (const float c : n) {
        codes.push_back(encode_unorm16(0.5 + 0.5 * static_cast<double>(c)));
      }
    }
  }
  return codes;
}

// The same values as a texel file holds them: the floats or halves the EXR
// writer makes of each code.
TexelImage kvt_of(const std::vector<std::uint16_t>& codes, int pixel_type) {
  TexelImage image;
  image.width = image.height = 8;
  image.channels = 3;
  image.type = pixel_type == kExrFloat ? ComponentType::kF32 : ComponentType::kF16;
  for (const std::uint16_t c : codes) {
    const auto* bytes = pixel_type == kExrFloat
                            ? reinterpret_cast<const std::uint8_t*>(exr_code_floats() + c)
                            : reinterpret_cast<const std::uint8_t*>(exr_code_halves() + c);
    image.data.insert(image.data.end(), bytes, bytes + (pixel_type == kExrFloat ? 4 : 2));
  }
  return image;
}

TEST(MeshMapsNormalMap, AnExrMapBakesAsTheSameValuesInATexelFileOrAPng) {
  test::ScratchDir dir;
  const std::vector<std::uint16_t> codes = dome_codes();
  writePngCodes(dir / "n.png", 8, 8, 3, codes);
  const Mesh low = test::unit_low_plane();
  const MeshMapsSettings s =
      parse_meshmaps_options({"korvane", "meshmaps", "--low", "l.obj", "--low-as-high", "--size",
                              "8", "--out-world-normal", "w.exr", "--out-curvature", "c.exr",
                              "--curvature-method", "normal-map", "--normal-map", "n.exr"});
  const auto bake = [&](const std::filesystem::path& path) {
    const NormalMapImage map = decode_normal_map(read_normal_map_texels(path), false, path);
    BakeExtras extras;
    extras.normal_map = &map;
    const MeshMapsRun run = bake_mesh_maps(low, low, s, MeshMapsEnvironment{}, extras, 1);
    return std::pair{run.buffers.world_normal,
                     curvature_codes(run.buffers.curvature, run.buffers.hit, s)};
  };
  const auto png = bake(dir / "n.png");
  for (const int pixel_type : {kExrFloat, kExrHalf}) {
    const std::string type = pixel_type == kExrFloat ? "f" : "h";
    writeExr(dir / ("n" + type + ".exr"), 8, 8, 3, codes, pixel_type, 1);
    write_kvt(dir / ("n" + type + ".kvt"), kvt_of(codes, pixel_type));
    const auto exr = bake(dir / ("n" + type + ".exr"));
    EXPECT_EQ(exr, bake(dir / ("n" + type + ".kvt"))) << type;
    // The dome is convex, and each normal lands where the PNG's does.
    EXPECT_GT(*std::max_element(exr.second.begin(), exr.second.end()), 32768) << type;
    ASSERT_EQ(exr.first.size(), png.first.size());
    for (std::size_t i = 0; i < exr.first.size(); ++i) {
      EXPECT_NEAR(exr.first[i], png.first[i], pixel_type == kExrFloat ? 1 : 20) << type << i;
    }
  }
}

TEST(MeshMapsNormalMap, TheCommandTakesAnExrMapAndNamesADamagedOne) {
  test::ScratchDir dir;
  const std::vector<std::uint16_t> codes = dome_codes();
  writeExr(dir / "n.exr", 8, 8, 3, codes, kExrHalf, 1);
  write_kvt(dir / "n.kvt", kvt_of(codes, kExrHalf));
  const std::string low = std::string(KV_SOURCE_DIR) + "/examples/sphere_low.obj";
  const auto run = [&](const std::string& map, const std::string& out) {
    return test::run_korvane({"meshmaps", "--low", low, "--low-as-high", "--size", "16",
                              "--normal-map", (dir / map).string(), "--curvature-method",
                              "normal-map", "--out-curvature", (dir / (out + "_c.exr")).string(),
                              "--out-world-normal", (dir / (out + "_w.exr")).string()});
  };
  const auto from_exr = run("n.exr", "exr");
  ASSERT_EQ(from_exr.exit_code, 0) << from_exr.err;
  const auto from_kvt = run("n.kvt", "kvt");
  ASSERT_EQ(from_kvt.exit_code, 0) << from_kvt.err;
  for (const char* map : {"_c.exr", "_w.exr"}) {
    EXPECT_EQ(test::read_text_file(dir / (std::string("exr") + map)),
              test::read_text_file(dir / (std::string("kvt") + map)))
        << map;
  }
  std::string cut = test::read_text_file(dir / "n.exr");
  cut.resize(cut.size() - 1);
  test::write_text_file(dir / "cut.exr", cut);
  const auto damaged = run("cut.exr", "cut");
  EXPECT_EQ(damaged.exit_code, 1);
  EXPECT_EQ(damaged.err, "korvane: " + (dir / "cut.exr").string() + ": EXR: a file of " +
                             std::to_string(cut.size()) +
                             " bytes cannot hold 8 x 8 texels of 48 bytes a line in NONE "
                             "compression\n");
  EXPECT_FALSE(std::filesystem::exists(dir / "cut_c.exr"));
}

}  // namespace
}  // namespace kv::meshmaps
