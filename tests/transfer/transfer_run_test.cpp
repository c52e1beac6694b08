// Whole transfers in this process: identity and known remappings of every
// component type, m2m onto a nearby copy, masks and padding, PNG round trips,
// bindings, thread counts, shared memory and the hit dump.
#include <gtest/gtest.h>

#include <cstring>

#include "image/png.h"
#include "platform/platform.h"
#include "support/message_of.h"
#include "transfer/hit_dump.h"
#include "transfer/texture_bindings.h"
#include "transfer/transfer_modes.h"
#include "transfer_test_util.h"

namespace kv {
namespace {

using test::flat_image;
using test::message_of;
using test::pattern_image;
using test::Quad;
using test::texel_bytes;
using test::transfer;
using test::write_obj;

constexpr ComponentType kTypes[] = {ComponentType::kU8, ComponentType::kU16, ComponentType::kF16,
                                    ComponentType::kF32};

TEST(TransferRun, IdentityCopiesEveryTypeAndChannelCountExactly) {
  const test::ScratchDir dir;
  const auto plane = write_obj(dir, "plane.obj", {Quad{}});
  for (const ComponentType type : kTypes) {
    for (int channels = 1; channels <= 4; ++channels) {
      const TexelImage in = pattern_image(16, 8, channels, type);
      write_kvt(dir / "in.kvt", in);
      for (const char* filter : {"nearest", "bilinear"}) {
        for (const char* weights : {"gpu8", "exact"}) {
          const Json summary = transfer(
              {"--mode", "uv2uv", "--target", plane.string(), "--source-uvs", plane.string(),
               "--size", "16", "--height", "8", "--texture", (dir / "in.kvt").string(), "--out",
               (dir / "out.kvt").string(), "--filter", filter, "--weights", weights});
          const TexelImage out = read_kvt(dir / "out.kvt");
          EXPECT_EQ(out.data, in.data)
              << component_type_name(type) << " x" << channels << " " << filter << " " << weights;
          EXPECT_EQ(summary["outputs"][0]["type"], component_type_name(type));
          EXPECT_EQ(summary["outputs"][0]["texels_valid"], 128);
        }
      }
    }
  }
}

TEST(TransferRun, MirroredAndScaledSourceUvsGiveTheMirroredAndScaledTexture) {
  const test::ScratchDir dir;
  const auto target = write_obj(dir, "target.obj", {Quad{}});
  Quad mirrored;
  mirrored.su = -1.0;
  mirrored.ou = 1.0;
  const auto mirror = write_obj(dir, "mirror.obj", {mirrored});
  Quad halved;
  halved.su = 0.5;
  halved.sv = 0.5;
  const auto half = write_obj(dir, "half.obj", {halved});
  const TexelImage in = pattern_image(8, 8, 3, ComponentType::kU16);
  write_kvt(dir / "in.kvt", in);
  for (const char* filter : {"nearest", "bilinear"}) {
    transfer({"--mode", "uv2uv", "--target", target.string(), "--source-uvs", mirror.string(),
              "--size", "8", "--texture", (dir / "in.kvt").string(), "--out",
              (dir / "m.kvt").string(), "--filter", filter});
    transfer({"--mode", "uv2uv", "--target", target.string(), "--source-uvs", half.string(),
              "--size", "8", "--texture", (dir / "in.kvt").string(), "--out",
              (dir / "h.kvt").string(), "--filter", "nearest"});
    const TexelImage m = read_kvt(dir / "m.kvt");
    const TexelImage h = read_kvt(dir / "h.kvt");
    for (int y = 0; y < 8; ++y) {
      for (int x = 0; x < 8; ++x) {
        EXPECT_EQ(texel_bytes(m, x, y), texel_bytes(in, 7 - x, y)) << filter << x << "," << y;
        // The lower left quarter of the texture, twice as large.
        EXPECT_EQ(texel_bytes(h, x, y), texel_bytes(in, x / 2, 4 + y / 2)) << x << "," << y;
      }
    }
  }
}

TEST(TransferRun, BilinearAveragesSubSamplesAndRoundsHalfToEven) {
  const test::ScratchDir dir;
  const auto plane = write_obj(dir, "plane.obj", {Quad{}});
  // Texels 0 and 1 of a 2 x 1 texture: the four sub-samples of a 1 x 1 output
  // at anti-aliasing 2 read u = 0.25 and 0.75, the two texel centres.
  TexelImage in = flat_image(2, 1, 0);
  in.data = {10, 13};
  write_kvt(dir / "in.kvt", in);
  transfer({"--mode", "uv2uv", "--target", plane.string(), "--source-uvs", plane.string(), "--size",
            "1", "--aa", "2", "--texture", (dir / "in.kvt").string(), "--out",
            (dir / "out.kvt").string()});
  EXPECT_EQ(read_kvt(dir / "out.kvt").data, std::vector<std::uint8_t>{12});  // 11.5 -> 12
  in.data = {10, 15};
  write_kvt(dir / "in.kvt", in);
  transfer({"--mode", "uv2uv", "--target", plane.string(), "--source-uvs", plane.string(), "--size",
            "1", "--aa", "2", "--texture", (dir / "in.kvt").string(), "--out",
            (dir / "out.kvt").string()});
  EXPECT_EQ(read_kvt(dir / "out.kvt").data, std::vector<std::uint8_t>{12});  // 12.5 -> 12
}

TEST(TransferRun, MeshToMeshOntoANearbyCopyEqualsTheInputAndDumpsItsHits) {
  const test::ScratchDir dir;
  const auto low = write_obj(dir, "low.obj", {Quad{}});
  Quad above;
  above.z = 0.002f;
  const auto high = write_obj(dir, "high.obj", {above});
  for (const ComponentType type : kTypes) {
    const TexelImage in = pattern_image(8, 8, 2, type);
    write_kvt(dir / "in.kvt", in);
    const Json summary =
        transfer({"--mode", "m2m", "--target", low.string(), "--high", high.string(), "--size", "8",
                  "--texture", (dir / "in.kvt").string(), "--out", (dir / "out.kvt").string(),
                  "--dump-hits", (dir / "hits.bin").string()});
    EXPECT_EQ(read_kvt(dir / "out.kvt").data, in.data) << component_type_name(type);
    EXPECT_EQ(summary["coverage"]["hits"], 64);
    EXPECT_EQ(summary["coverage"]["missed"], 0);
    EXPECT_EQ(summary["gpu_unavailable"], "keeping hits needs the CPU path");
  }
  const std::string dump = test::read_text_file(dir / "hits.bin");
  ASSERT_EQ(dump.size(), transfer::kHitDumpHeaderBytes + 64 * 12);
  EXPECT_EQ(dump.substr(0, 8), std::string("KVHITS1\0", 8));
  std::uint32_t fields[6];
  std::memcpy(fields, dump.data() + 8, sizeof fields);
  EXPECT_EQ(fields[0], 1u);
  EXPECT_EQ(fields[1], 8u);
  EXPECT_EQ(fields[2], 8u);
  EXPECT_EQ(fields[3], 1u);
  EXPECT_EQ(fields[4], 12u);
  // Texel (1, 7) near the bottom left lies in the first high triangle; texel
  // (0, 0) at the top left in the second.
  transfer::HitRecord top_left;
  transfer::HitRecord bottom;
  std::memcpy(&top_left, dump.data() + 32, 12);
  std::memcpy(&bottom, dump.data() + 32 + 57 * 12, 12);
  EXPECT_EQ(top_left.triangle, 1);
  EXPECT_EQ(bottom.triangle, 0);
  EXPECT_NEAR(bottom.u, 0.125, 1e-6);  // (x, y) = (3/16, 1/16) = u (1, 0) + v (1, 1)
  EXPECT_NEAR(bottom.v, 0.0625, 1e-6);

  // With 2 x 2 sub-samples the records of a texel run row by row, the top
  // row first: texel (1, 7) holds (5/32, 3/32), (7/32, 3/32), (5/32, 1/32),
  // (7/32, 1/32), all in the first high triangle.
  transfer({"--mode", "m2m", "--target", low.string(), "--high", high.string(), "--size", "8",
            "--aa", "2", "--texture", (dir / "in.kvt").string(), "--out",
            (dir / "out.kvt").string(), "--dump-hits", (dir / "hits2.bin").string()});
  const std::string dump2 = test::read_text_file(dir / "hits2.bin");
  ASSERT_EQ(dump2.size(), transfer::kHitDumpHeaderBytes + 256 * 12);
  std::memcpy(fields, dump2.data() + 8, sizeof fields);
  EXPECT_EQ(fields[3], 2u);
  const double expected[4][2] = {
      {2.0 / 32, 3.0 / 32}, {4.0 / 32, 3.0 / 32}, {4.0 / 32, 1.0 / 32}, {6.0 / 32, 1.0 / 32}};
  for (std::size_t s = 0; s < 4; ++s) {
    transfer::HitRecord record;
    std::memcpy(&record, dump2.data() + 32 + ((7 * 8 + 1) * 4 + s) * 12, 12);
    EXPECT_EQ(record.triangle, 0) << s;
    EXPECT_NEAR(record.u, expected[s][0], 1e-6) << s;
    EXPECT_NEAR(record.v, expected[s][1], 1e-6) << s;
  }

  // An output that cannot be written fails the run, and the dump stays
  // unwritten with it.
  const std::string blocked = (dir / "in.kvt" / "out.kvt").string();
  EXPECT_EQ(message_of([&] {
              transfer({"--mode", "m2m", "--target", low.string(), "--high", high.string(),
                        "--size", "8", "--texture", (dir / "in.kvt").string(), "--out", blocked,
                        "--dump-hits", (dir / "hits3.bin").string()});
            }),
            "cannot create " + blocked + ".tmp");
  EXPECT_FALSE(std::filesystem::exists(dir / "hits3.bin"));
  EXPECT_FALSE(std::filesystem::exists(dir / "hits3.bin.tmp"));
}

TEST(TransferRun, MasksAndPaddingPerOutput) {
  const test::ScratchDir dir;
  Quad left_half;
  left_half.su = 0.5;  // the target's UVs cover u 0 .. 0.5: texel columns 0 .. 3 of 8
  const auto target = write_obj(dir, "target.obj", {left_half});
  const auto source = write_obj(dir, "source.obj", {Quad{}});
  TexelImage in = flat_image(8, 8, 0);
  for (std::size_t i = 0; i < in.data.size(); ++i) {
    in.data[i] = static_cast<std::uint8_t>(10 * (i % 8));  // column x holds 10 x
  }
  write_kvt(dir / "in.kvt", in);
  const std::string tex = (dir / "in.kvt").string();
  const Json summary = transfer({"--mode",
                                 "uv2uv",
                                 "--target",
                                 target.string(),
                                 "--source-uvs",
                                 source.string(),
                                 "--size",
                                 "8",
                                 "--filter",
                                 "nearest",
                                 "--dilation",
                                 "2",
                                 "--texture",
                                 tex,
                                 "--out",
                                 (dir / "ring.kvt").string(),
                                 "--out-mask",
                                 (dir / "mask.png").string(),
                                 "--texture",
                                 tex,
                                 "--out",
                                 (dir / "color.kvt").string(),
                                 "--out-padding-color",
                                 "99",
                                 "--texture",
                                 tex,
                                 "--out",
                                 (dir / "none.kvt").string(),
                                 "--out-mask",
                                 (dir / "mask.kvt").string(),
                                 "--padding",
                                 "color"});
  // The color output takes its own colour; the others share the command's.
  (void)summary;
  const Json ring = transfer({"--mode", "uv2uv", "--target", target.string(), "--source-uvs",
                              source.string(), "--size", "8", "--filter", "nearest", "--dilation",
                              "2", "--texture", tex, "--out", (dir / "ring.kvt").string()});
  const TexelImage r = read_kvt(dir / "ring.kvt");
  const TexelImage c = read_kvt(dir / "color.kvt");
  const TexelImage n = read_kvt(dir / "none.kvt");
  const TexelImage mask = readPng(dir / "mask.png");
  EXPECT_EQ(read_kvt(dir / "mask.kvt").data, mask.data);
  for (int x = 0; x < 8; ++x) {
    // Texel x of the output lies at position 2 (x + 0.5) / 8: source column 2 x + 1.
    const auto inside = static_cast<std::uint8_t>(10 * (2 * x + 1));
    EXPECT_EQ(mask.data[static_cast<std::size_t>(x)], x < 4 ? 255 : 0) << x;
    // color fills the one texel within reach with the nearest value, then its colour.
    EXPECT_EQ(c.data[static_cast<std::size_t>(x)], x < 4 ? inside : (x < 5 ? 70 : 99)) << x;
    EXPECT_EQ(n.data[static_cast<std::size_t>(x)], x < 4 ? inside : (x < 5 ? 70 : 0)) << x;
    // ring fills two rings with the means of the column beside them.
    EXPECT_EQ(r.data[static_cast<std::size_t>(x)], x < 6 ? (x < 4 ? inside : 70) : 0) << x;
  }
  EXPECT_EQ(ring["outputs"][0]["texels_valid"], 32);
  EXPECT_EQ(ring["outputs"][0]["texels_padded"], 16);
  EXPECT_EQ(ring["coverage"]["texels"], 32);
}

TEST(TransferRun, SrgbOutputsPadWithMeansInLinearLight) {
  const test::ScratchDir dir;
  Quad left_half;
  left_half.su = 0.5;
  const auto target = write_obj(dir, "target.obj", {left_half});
  const auto source = write_obj(dir, "source.obj", {Quad{}});
  TexelImage in = flat_image(8, 8, 0);
  for (std::size_t i = 0; i < in.data.size(); ++i) {
    in.data[i] = (i / 8) % 2 == 0 ? 0 : 255;  // rows alternate black and white
  }
  write_kvt(dir / "in.kvt", in);
  const std::string tex = (dir / "in.kvt").string();
  transfer({"--mode",       "uv2uv",
            "--target",     target.string(),
            "--source-uvs", source.string(),
            "--size",       "8",
            "--filter",     "nearest",
            "--dilation",   "1",
            "--texture",    tex,
            "--out",        (dir / "codes.kvt").string(),
            "--texture",    tex,
            "--out",        (dir / "srgb.kvt").string(),
            "--out-srgb",   "1"});
  // Texel (4, 1) takes the mean of 0, 255 and 0 beside it: 85 as codes, and
  // a third of white in linear light, 156 once encoded again.
  EXPECT_EQ(read_kvt(dir / "codes.kvt").data[8 + 4], 85);
  EXPECT_EQ(read_kvt(dir / "srgb.kvt").data[8 + 4], 156);
  EXPECT_EQ(read_kvt(dir / "srgb.kvt").data[8 + 3], 255);  // transferred texels are untouched
}

TEST(TransferRun, PngSourcesAndOutputsRoundTripEightAndSixteenBits) {
  const test::ScratchDir dir;
  const auto plane = write_obj(dir, "plane.obj", {Quad{}});
  for (const auto& [channels, type] :
       {std::pair{3, ComponentType::kU8}, std::pair{2, ComponentType::kU16},
        std::pair{4, ComponentType::kU16}}) {
    const TexelImage in = pattern_image(6, 5, channels, type);
    writePng(dir / "in.png", in);
    transfer({"--mode", "uv2uv", "--target", plane.string(), "--source-uvs", plane.string(),
              "--size", "6", "--height", "5", "--texture", (dir / "in.png").string(), "--out",
              (dir / "out.png").string()});
    const TexelImage out = readPng(dir / "out.png");
    EXPECT_EQ(out.type, type);
    EXPECT_EQ(out.channels, channels);
    EXPECT_EQ(out.data, in.data);
  }
  write_kvt(dir / "f.kvt", pattern_image(4, 4, 1, ComponentType::kF16));
  EXPECT_EQ(message_of([&] {
              transfer({"--mode", "uv2uv", "--target", plane.string(), "--source-uvs",
                        plane.string(), "--size", "4", "--texture", (dir / "f.kvt").string(),
                        "--out", (dir / "f.png").string()});
            }),
            (dir / "f.png").string() + ": PNG stores 8- or 16-bit integer texels only, not f16");
}

// A high surface of two objects side by side (x below and above 0.5), two
// materials when asked, over a one-object target plane.
std::vector<Quad> two_halves(float z, bool materials) {
  Quad a;
  a.object = "a";
  a.x1 = 0.5f;
  a.z = z;
  Quad b = a;
  b.object = "b";
  b.x0 = 0.5f;
  b.x1 = 1.0f;
  if (materials) {
    a.material = "wood";
    b.material = "metal";
  }
  return {a, b};
}

TEST(TransferRun, BindingsRouteEachObjectsTexelsToItsOwnTexture) {
  const test::ScratchDir dir;
  const auto low = write_obj(dir, "low.obj", {Quad{}});
  const auto high = write_obj(dir, "high.obj", two_halves(0.002f, true));
  write_kvt(dir / "a.kvt", flat_image(4, 4, 10));
  write_kvt(dir / "b.kvt", flat_image(4, 4, 200));
  const std::string a = (dir / "a.kvt").string();
  const std::string b = (dir / "b.kvt").string();
  const std::vector<std::string> base = {
      "--mode",      "m2m",    "--target", low.string(), "--high",
      high.string(), "--size", "8",        "--dilation", "0"};
  const auto run = [&](std::vector<std::string> outputs) {
    std::vector<std::string> args = base;
    args.insert(args.end(), outputs.begin(), outputs.end());
    return transfer(args);
  };
  run({"--texture",       a,
       "--bind",          "a",
       "--texture",       b,
       "--bind-object",   "b",
       "--out",           (dir / "objects.kvt").string(),
       "--texture",       a,
       "--bind-material", "wood",
       "--texture",       b,
       "--bind-material", "metal",
       "--out",           (dir / "materials.kvt").string(),
       "--texture",       b,
       "--bind",          "b",
       "--out",           (dir / "only_b.kvt").string()});
  for (const char* name : {"objects.kvt", "materials.kvt", "only_b.kvt"}) {
    const TexelImage out = read_kvt(dir / name);
    for (int x = 0; x < 8; ++x) {
      const bool only_b = std::string(name) == "only_b.kvt";
      const std::uint8_t expected = x < 4 ? (only_b ? 0 : 10) : 200;
      EXPECT_EQ(out.data[static_cast<std::size_t>(8 * 3 + x)], expected) << name << " " << x;
    }
  }
  EXPECT_EQ(message_of([&] {
              run({"--texture", a, "--texture", b, "--bind", "b", "--out", "o.kvt"});
            }),
            "transfer: a texture without bindings covers every object and must be its output's "
            "only texture");
  EXPECT_EQ(
      message_of([&] {
        run({"--texture", a, "--bind", "a,b", "--texture", b, "--bind", "b", "--out", "o.kvt"});
      }),
      "transfer: object b is bound twice in one output");
  EXPECT_EQ(message_of([&] {
              run({"--texture", a, "--bind", "a", "--texture", (dir / "none.kvt").string(),
                   "--bind", "b", "--out", "o.kvt"});
            }),
            "cannot open " + (dir / "none.kvt").string() + ": No such file or directory");
  write_kvt(dir / "rgb.kvt", pattern_image(4, 4, 3, ComponentType::kU8));
  EXPECT_EQ(message_of([&] {
              run({"--texture", a, "--bind", "a", "--texture", (dir / "rgb.kvt").string(), "--bind",
                   "b", "--out", "o.kvt"});
            }),
            "transfer: the textures of one output must share channel count and component type");
  EXPECT_EQ(message_of([&] {
              run({"--texture", a, "--bind", "c", "--out", "o.kvt"});
            }),
            "transfer: the source mesh has no object named 'c'");
  // A source without material names (an OBJ always has its "default").
  Mesh bare;
  bare.objects = {"a"};
  bare.triangles.push_back(Triangle{});
  transfer::OutputRequest by_material;
  by_material.textures.push_back(transfer::TextureRequest{a, {}, {"wood"}, {}});
  EXPECT_EQ(
      message_of([&] { transfer::bind_textures(bare, by_material, transfer::TransferMode::m2m); }),
      "transfer: a binding by material needs a source with material names");
  EXPECT_EQ(message_of([&] {
              transfer({"--mode", "uv2uv", "--target", low.string(), "--source-uvs", low.string(),
                        "--size", "8", "--texture", a, "--bind", "plane", "--out", "o.kvt"});
            }),
            "transfer: a UV-to-UV output reads one texture over every object");
}

TEST(TransferRun, OneAndTwoThreadsGiveTheSameBytes) {
  const test::ScratchDir dir;
  const auto low = write_obj(dir, "low.obj", {Quad{}});
  // A high surface whose UVs are rotated and scaled against the target's.
  Quad high_quad;
  high_quad.z = 0.003f;
  high_quad.su = 1.7;
  high_quad.ou = 0.3;
  high_quad.sv = -1.3;
  high_quad.ov = 0.9;
  const auto high = write_obj(dir, "high.obj", {high_quad});
  write_kvt(dir / "in.kvt", pattern_image(37, 23, 4, ComponentType::kF32));
  write_kvt(dir / "u16.kvt", pattern_image(37, 23, 3, ComponentType::kU16));
  std::vector<std::string> outputs[2];
  for (int t = 0; t < 2; ++t) {
    const std::string suffix = std::to_string(t);
    transfer({"--mode",    "m2m",
              "--target",  low.string(),
              "--high",    high.string(),
              "--size",    "200",
              "--height",  "90",
              "--aa",      "4",
              "--threads", t == 0 ? "1" : "2",
              "--texture", (dir / "u16.kvt").string(),
              "--out",     (dir / ("a" + suffix + ".kvt")).string(),
              "--texture", (dir / "u16.kvt").string(),
              "--out",     (dir / ("b" + suffix + ".kvt")).string(),
              "--weights", "exact",
              "--address", "clamp"});
    outputs[t] = {test::read_text_file(dir / ("a" + suffix + ".kvt")),
                  test::read_text_file(dir / ("b" + suffix + ".kvt"))};
  }
  EXPECT_EQ(outputs[0], outputs[1]);
  EXPECT_NE(outputs[0][0], std::string());
}

TEST(TransferRun, SharedMemoryTexturesAndOutputsOfExactlyTheirSize) {
  const test::ScratchDir dir;
  const auto plane = write_obj(dir, "plane.obj", {Quad{}});
  const TexelImage in = pattern_image(4, 4, 4, ComponentType::kU16);
  const std::uint64_t bytes = kvt_file_bytes(in);
  const std::string name_in = "kv_transfer_test_in_" + std::to_string(platform::process_id());
  const std::string name_out = "kv_transfer_test_out_" + std::to_string(platform::process_id());
  int error = 0;
  ASSERT_TRUE(platform::create_shared_section(name_in, bytes, &error));
  ASSERT_TRUE(platform::create_shared_section(name_out, bytes, &error));
  {
    std::uint64_t held = 0;
    auto section = platform::SharedSection::open(name_in, bytes, true, &error, &held);
    ASSERT_TRUE(section.has_value());
    write_kvt_into(std::span<std::uint8_t>(section->data(), section->size()), in);
  }
  const std::string size = std::to_string(bytes);
  transfer({"--mode", "uv2uv", "--target", plane.string(), "--source-uvs", plane.string(), "--size",
            "4", "--filter", "nearest", "--texture", "shm:" + name_in + ":" + size, "--out",
            "shm:" + name_out + ":" + size});
  {
    std::uint64_t held = 0;
    auto section = platform::SharedSection::open(name_out, bytes, false, &error, &held);
    ASSERT_TRUE(section.has_value());
    EXPECT_EQ(parse_kvt(std::span<const std::uint8_t>(section->data(), section->size())).data,
              in.data);
  }
  EXPECT_EQ(message_of([&] {
              transfer({"--mode", "uv2uv", "--target", plane.string(), "--source-uvs",
                        plane.string(), "--size", "4", "--texture", "shm:" + name_in + ":" + size,
                        "--out", "shm:" + name_out + ":" + std::to_string(bytes - 1)});
            }),
            ".kvt: the destination must hold exactly " + size + " bytes, not " +
                std::to_string(bytes - 1));
  EXPECT_EQ(message_of<pipeline::UsageError>([&] {
              transfer({"--mode", "uv2uv", "--target", "t", "--source-uvs", "s", "--size", "4",
                        "--texture", "shm:name", "--out", "o.kvt"});
            }),
            "a shared-memory texture is shm:<section>:<size>");
  platform::remove_shared_section(name_in);
  platform::remove_shared_section(name_out);
}

TEST(TransferRun, SourceTilesReadTheirOwnTextureInsideTheTile) {
  const test::ScratchDir dir;
  const auto target = write_obj(dir, "target.obj", {Quad{}});
  Quad shifted;
  shifted.ou = 1.0;  // source UVs in tile 1002
  const auto source = write_obj(dir, "source.obj", {shifted});
  write_kvt(dir / "base.kvt", flat_image(4, 4, 1));
  const TexelImage tile = pattern_image(4, 4, 1, ComponentType::kU8);
  write_kvt(dir / "tile.kvt", tile);
  const Json summary = transfer(
      {"--mode", "uv2uv", "--target", target.string(), "--source-uvs", source.string(), "--size",
       "4", "--filter", "nearest", "--texture", (dir / "base.kvt").string(), "--source-tile",
       "1002=" + (dir / "tile.kvt").string(), "--out", (dir / "out.kvt").string()});
  EXPECT_EQ(read_kvt(dir / "out.kvt").data, tile.data);
  EXPECT_EQ(summary["gpu_unavailable"], "UDIM source tiles are read on the CPU");
  // Without the tile, repeat wraps the UV back into the base texture.
  transfer({"--mode", "uv2uv", "--target", target.string(), "--source-uvs", source.string(),
            "--size", "4", "--texture", (dir / "base.kvt").string(), "--out",
            (dir / "out.kvt").string()});
  EXPECT_EQ(read_kvt(dir / "out.kvt").data, flat_image(4, 4, 1).data);
  EXPECT_EQ(message_of([&] {
              transfer({"--mode", "uv2uv", "--target", target.string(), "--source-uvs",
                        source.string(), "--size", "4", "--texture", (dir / "base.kvt").string(),
                        "--source-tile", "1002=" + (dir / "tile.kvt").string(), "--out",
                        (dir / "out.kvt").string(), "--backend", "gpu"});
            }),
            "transfer: UDIM source tiles are read on the CPU");
}

TEST(TransferRun, SurfaceMismatchAndMeshChecks) {
  const test::ScratchDir dir;
  const auto target = write_obj(dir, "target.obj", two_halves(0.0f, false));
  auto moved_halves = two_halves(0.0f, false);
  moved_halves[1].x1 = 0.9f;
  const auto moved = write_obj(dir, "moved.obj", moved_halves);
  const auto one = write_obj(dir, "one.obj", {two_halves(0.0f, false)[0]});
  write_kvt(dir / "in.kvt", flat_image(2, 2, 1));
  const auto uv2uv = [&](const std::filesystem::path& source) {
    return message_of([&] {
      transfer({"--mode", "uv2uv", "--target", target.string(), "--source-uvs", source.string(),
                "--size", "4", "--texture", (dir / "in.kvt").string(), "--out",
                (dir / "o.kvt").string()});
    });
  };
  EXPECT_EQ(uv2uv(moved),
            "transfer: the source UV mesh differs from the target at triangle 2 (object, corner "
            "positions or their order)");
  EXPECT_EQ(uv2uv(one),
            "transfer: the source UV mesh differs from the target at triangle 2 (object, corner "
            "positions or their order)");
  auto renamed_halves = two_halves(0.0f, false);
  renamed_halves[1].object = "c";
  EXPECT_EQ(uv2uv(write_obj(dir, "renamed.obj", renamed_halves)),
            "transfer: the source UV mesh differs from the target at triangle 2 (object, corner "
            "positions or their order)");
  // The same corners, each triangle's listed from its second corner on.
  std::string rotated = test::quads_obj(two_halves(0.0f, false));
  const std::size_t last_face = rotated.rfind("f ");
  rotated.replace(last_face, std::string::npos, "f 7/7 8/8 5/5\n");
  test::write_text_file(dir / "rotated.obj", rotated);
  EXPECT_EQ(uv2uv(dir / "rotated.obj"),
            "transfer: the source UV mesh differs from the target at triangle 3 (object, corner "
            "positions or their order)");
  EXPECT_EQ(uv2uv(target), "(no error)");
  // Mesh files that hold no triangles are refused by their readers; a high
  // mesh without triangles from elsewhere is refused before any work.
  const Mesh empty;
  std::vector<transfer::OutputBuffer> none;
  const WorkerPool pool(1);
  EXPECT_EQ(message_of([&] {
              transfer::run_m2m(empty, empty, transfer::TransferSettings{}, none, pool, nullptr);
            }),
            "transfer: the high mesh has no triangles");
  EXPECT_EQ(message_of([&] {
              transfer({"--mode", "m2m", "--target", target.string(), "--high", target.string(),
                        "--size", "4", "--texture", (dir / "in.kvt").string(), "--out",
                        (dir / "o.kvt").string(), "--raster-object", "c"});
            }),
            "transfer: the target mesh has no object named 'c'");
  // One output per object of a shared layout: only object a's texels.
  const Json summary =
      transfer({"--mode", "uv2uv", "--target", target.string(), "--source-uvs", target.string(),
                "--size", "4", "--texture", (dir / "in.kvt").string(), "--out",
                (dir / "o.kvt").string(), "--raster-object", "a", "--dilation", "0"});
  EXPECT_EQ(summary["coverage"]["texels"], 8);
}

}  // namespace
}  // namespace kv
