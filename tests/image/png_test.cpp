#include "image/png.h"

#include <gtest/gtest.h>
#include <lodepng.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "image/image_test_util.h"

namespace kv {
namespace {

namespace fs = std::filesystem;
using test::error_of;
using test::random_codes;

// A PNG decoded by LodePNG in its stored mode, samples as stored.
struct DecodedPng {
  unsigned width = 0;
  unsigned height = 0;
  LodePNGColorType colour = LCT_GREY;
  unsigned depth = 0;
  std::vector<unsigned char> raw;  // 16-bit samples big-endian, as in the file
};

template <typename Bytes>
DecodedPng decode_stored(const Bytes& bytes) {
  DecodedPng png;
  lodepng::State state;
  state.decoder.color_convert = 0;
  const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
  const unsigned error = lodepng::decode(png.raw, png.width, png.height, state, data, bytes.size());
  EXPECT_EQ(error, 0u) << lodepng_error_text(error);
  png.colour = state.info_png.color.colortype;
  png.depth = state.info_png.color.bitdepth;
  return png;
}

std::vector<std::uint16_t> samples_16(const DecodedPng& png) {
  std::vector<std::uint16_t> samples(png.raw.size() / 2);
  for (std::size_t i = 0; i < samples.size(); ++i) {
    samples[i] = static_cast<std::uint16_t>((png.raw[2 * i] << 8) | png.raw[2 * i + 1]);
  }
  return samples;
}

TexelImage u16_image(int width, int height, int channels, const std::vector<std::uint16_t>& codes) {
  TexelImage image{width, height, channels, ComponentType::kU16, {}};
  image.data.resize(codes.size() * 2);
  std::memcpy(image.data.data(), codes.data(), image.data.size());
  return image;
}

TEST(PngWriter, CodesBecomeSixteenBitSamplesInOrder) {
  test::ScratchDir dir;
  const LodePNGColorType types[] = {LCT_GREY, LCT_GREY_ALPHA, LCT_RGB, LCT_RGBA};
  for (int channels = 1; channels <= 4; ++channels) {
    // Sample order as given (red first), big-endian in the file.
    const std::vector<std::uint16_t> codes = random_codes(5 * 3 * channels, channels);
    const fs::path path = dir / "sub" / ("map" + std::to_string(channels) + ".png");
    writePngCodes(path, 5, 3, channels, codes);
    const DecodedPng png = decode_stored(test::read_text_file(path));
    EXPECT_EQ(png.colour, types[channels - 1]);
    EXPECT_EQ(png.depth, 16u);
    EXPECT_EQ(png.width, 5u);
    EXPECT_EQ(png.height, 3u);
    EXPECT_EQ(samples_16(png), codes);
  }
  EXPECT_EQ(test::list_names(dir / "sub"),
            (std::vector<std::string>{"map1.png", "map2.png", "map3.png", "map4.png"}));
}

TEST(PngWriter, InvalidMapsAreRefusedBeforeAnyFile) {
  test::ScratchDir dir;
  const fs::path out = dir / "map.png";
  const std::vector<std::uint16_t> codes(12);
  const auto write = [&](int w, int h, int c, std::size_t n) {
    return error_of(
        [&] { writePngCodes(out, w, h, c, std::span<const std::uint16_t>(codes.data(), n)); });
  };
  const std::string invalid = out.string() + ": PNG: invalid map";
  EXPECT_EQ(write(2, 2, 3, 11), invalid);
  EXPECT_EQ(write(0, 2, 3, 0), invalid);
  EXPECT_EQ(write(2, -2, 3, 12), invalid);
  EXPECT_EQ(write(1, 2, 5, 10), invalid);
  EXPECT_EQ(write(12, 1, 0, 0), invalid);
  EXPECT_TRUE(test::list_names(dir.path()).empty());
  EXPECT_EQ(write(2, 2, 3, 12), "(no error)");  // the same map whole is written
}

TEST(PngWriter, LargeImagesAreTheSameOnAnyThreadCount) {
  // A smooth normal-map-like field with a little noise; 1100 x 1000 x 4 x 2
  // bytes is above the 8 MiB of the parallel path.
  std::mt19937 random(7);
  std::vector<std::uint16_t> codes(1100 * 1000 * 4);
  for (std::size_t i = 0; i < codes.size(); ++i) {
    const std::size_t x = i / 4 % 1100;
    const std::size_t y = i / 4 / 1100;
    codes[i] = static_cast<std::uint16_t>(20000 + 30 * x + 17 * y + 5000 * (i % 4) + random() % 9);
  }
  const TexelImage busy = u16_image(1100, 1000, 4, codes);
  const std::vector<unsigned char> one = encodePng(busy, 1);
  EXPECT_TRUE(one == encodePng(busy, 2));
  const DecodedPng png = decode_stored(one);
  EXPECT_EQ(png.colour, LCT_RGBA);
  EXPECT_TRUE(samples_16(png) == codes);

  // A flat two-level mask compresses to a small fraction of its size.
  std::vector<std::uint16_t> levels(2048 * 2048, 0);
  for (std::size_t i = 0; i < levels.size(); ++i) {
    levels[i] = (i % 2048 / 100 + i / 2048 / 77) % 3 != 0 ? 0xffff : 0;
  }
  const TexelImage mask = u16_image(2048, 2048, 1, levels);
  const std::vector<unsigned char> mask_png = encodePng(mask, 2);
  EXPECT_LT(mask_png.size(), mask.data.size() / 50);
  EXPECT_TRUE(mask_png == encodePng(mask, 1));
  EXPECT_TRUE(samples_16(decode_stored(mask_png)) == levels);
}

TEST(PngWriter, EncodeChecksTheImage) {
  TexelImage image{2, 2, 1, ComponentType::kF32, std::vector<std::uint8_t>(16)};
  EXPECT_EQ(error_of([&] { encodePng(image); }),
            "PNG stores 8- or 16-bit integer texels only, not f32");
  image.type = ComponentType::kF16;
  EXPECT_EQ(error_of([&] { encodePng(image); }),
            "PNG stores 8- or 16-bit integer texels only, not f16");
  image.type = ComponentType::kU8;
  image.data.clear();
  EXPECT_EQ(error_of([&] { encodePng(image); }), "PNG: no texel data");
  image.data.assign(4, 9);
  for (int channels : {0, 5}) {
    image.channels = channels;
    EXPECT_EQ(error_of([&] { encodePng(image); }), "PNG: the channel count must be 1 to 4");
  }
  image.channels = 2;
  EXPECT_EQ(error_of([&] { encodePng(image); }),
            "PNG: the texel data does not match 2 x 2 x 2 u8 texels");

  // 8-bit samples pass through unchanged.
  image.channels = 1;
  image.data = {0, 1, 254, 255};
  const DecodedPng png = decode_stored(encodePng(image));
  EXPECT_EQ(png.depth, 8u);
  EXPECT_EQ(png.raw, image.data);
}

TEST(PngWriter, TemporaryFileFailuresLeaveTheTargetAlone) {
  test::ScratchDir dir;
  const fs::path target = dir / "map.png";
  test::write_text_file(target, "old map");
  const std::vector<std::uint16_t> codes{1, 2, 3};

  // The temporary name is taken by a folder: it cannot be created.
  fs::create_directory(dir / "map.png.tmp");
  EXPECT_EQ(error_of([&] { writePngCodes(target, 1, 1, 3, codes); }),
            "cannot create " + target.string() + ".tmp");
  EXPECT_EQ(test::read_text_file(target), "old map");
  fs::remove(dir / "map.png.tmp");

  // A stale temporary file is simply overwritten.
  test::write_text_file(dir / "map.png.tmp", "left over from a crash");
  writePngCodes(target, 1, 1, 3, codes);
  EXPECT_EQ(samples_16(decode_stored(test::read_text_file(target))), codes);
  EXPECT_EQ(test::list_names(dir.path()), std::vector<std::string>{"map.png"});

  // The target is a folder that holds a file: the rename fails.
  const fs::path folder = dir / "folder.png";
  fs::create_directories(folder / "inside");
  EXPECT_EQ(error_of([&] { writePngCodes(folder, 1, 1, 3, codes); }),
            "cannot rename " + folder.string() + ".tmp to " + folder.string() + ": Is a directory");
  EXPECT_EQ(test::list_names(dir.path()), (std::vector<std::string>{"folder.png", "map.png"}));
}

TEST(PngReader, ReadsEveryStoredKind) {
  test::ScratchDir dir;
  // Our own 16-bit file reads back as native-order codes.
  const std::vector<std::uint16_t> codes = random_codes(6 * 5 * 3, 4);
  writePngCodes(dir / "rgb16.png", 6, 5, 3, codes);
  const TexelImage image = readPng(dir / "rgb16.png");
  EXPECT_EQ(image.width, 6);
  EXPECT_EQ(image.height, 5);
  EXPECT_EQ(image.channels, 3);
  EXPECT_EQ(image.type, ComponentType::kU16);
  EXPECT_EQ(image.data, u16_image(6, 5, 3, codes).data);

  // Files LodePNG writes from 8-bit samples, and the 8-bit texels they give.
  struct Case {
    std::vector<unsigned char> raw;
    unsigned width;
    LodePNGColorType type;
    unsigned file_depth;
    std::vector<unsigned char> palette;  // RGBA entries
    int channels;
    std::vector<unsigned char> texels;
  };
  const std::vector<unsigned char> rgba{1, 2, 3, 4, 250, 251, 252, 253};
  const std::vector<unsigned char> bits{0, 255, 255, 0, 255, 0, 0, 0, 255};
  const std::vector<unsigned char> nibbles{0, 17, 34, 255, 136};
  const std::vector<unsigned char> opaque{5, 6, 7, 255, 8, 9, 10, 255};
  const std::vector<unsigned char> clear{5, 6, 7, 255, 8, 9, 10, 128};
  const Case cases[] = {
      {rgba, 2, LCT_RGBA, 8, {}, 4, rgba},
      {{10, 200, 30, 40}, 1, LCT_GREY_ALPHA, 8, {}, 2, {10, 200, 30, 40}},
      // 1-bit and 4-bit grey widen to 8 bits: 0/255 and v * 17.
      {bits, 9, LCT_GREY, 1, {}, 1, bits},
      {nibbles, 5, LCT_GREY, 4, {}, 1, nibbles},
      // Palette images: RGB when every entry is opaque, RGBA otherwise.
      {{1, 0, 1}, 3, LCT_PALETTE, 8, opaque, 3, {8, 9, 10, 5, 6, 7, 8, 9, 10}},
      {{0, 1}, 2, LCT_PALETTE, 8, clear, 4, clear},
  };
  for (const Case& c : cases) {
    lodepng::State state;
    state.info_raw.colortype = c.type;
    state.info_raw.bitdepth = 8;
    state.info_png.color.colortype = c.type;
    state.info_png.color.bitdepth = c.file_depth;
    state.encoder.auto_convert = 0;
    for (std::size_t i = 0; i < c.palette.size(); i += 4) {
      const unsigned char* e = c.palette.data() + i;
      lodepng_palette_add(&state.info_png.color, e[0], e[1], e[2], e[3]);
      lodepng_palette_add(&state.info_raw, e[0], e[1], e[2], e[3]);
    }
    const unsigned height =
        static_cast<unsigned>(c.raw.size()) / c.width / lodepng_get_channels(&state.info_raw);
    std::vector<unsigned char> png;
    ASSERT_EQ(lodepng::encode(png, c.raw, c.width, height, state), 0u);
    test::write_text_file(dir / "in.png", std::string(png.begin(), png.end()));
    const TexelImage read = readPng(dir / "in.png");
    EXPECT_EQ(read.width, static_cast<int>(c.width));
    EXPECT_EQ(read.channels, c.channels);
    EXPECT_EQ(read.type, ComponentType::kU8);
    EXPECT_EQ(read.data, c.texels);
  }
}

TEST(PngReader, FailuresNameTheirCause) {
  test::ScratchDir dir;
  EXPECT_EQ(error_of([&] { readPng(dir / "missing.png"); }),
            "cannot open " + (dir / "missing.png").string());
  EXPECT_EQ(error_of([&] { readPng(dir.path()); }), "cannot read " + dir.path().string());

  const std::string junk = "this is not a PNG file at all";
  test::write_text_file(dir / "junk.png", junk);
  std::vector<unsigned char> out;
  unsigned w = 0;
  unsigned h = 0;
  const unsigned code =
      lodepng::decode(out, w, h, reinterpret_cast<const unsigned char*>(junk.data()), junk.size());
  ASSERT_NE(code, 0u);
  EXPECT_EQ(error_of([&] { readPng(dir / "junk.png"); }),
            std::string("PNG: ") + lodepng_error_text(code));

  // A valid file cut short fails in the decoder, not later.
  writePngCodes(dir / "whole.png", 64, 64, 1, random_codes(64 * 64, 5));
  const std::string whole = test::read_text_file(dir / "whole.png");
  test::write_text_file(dir / "cut.png", whole.substr(0, whole.size() / 2));
  const std::string message = error_of([&] { readPng(dir / "cut.png"); });
  EXPECT_TRUE(message.starts_with("PNG: ")) << message;
  EXPECT_GT(message.size(), 5u);
}

TEST(PngWriter, FailedWriteKeepsTheOldFile) {
  test::expect_failed_write_keeps_old_file([](const std::string& target) {
    const std::vector<std::uint16_t> codes = random_codes(512 * 512 * 3, 9);
    EXPECT_EQ(error_of([&] { writePngCodes(target, 512, 512, 3, codes); }),
              "cannot write " + target + ".tmp");
  });
}

}  // namespace
}  // namespace kv
