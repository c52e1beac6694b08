#include "image/png.h"

#include <gtest/gtest.h>
#include <lodepng.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "core/error.h"
#include "image/image_test_util.h"
#include "support/test_support.h"

namespace kv {
namespace {

namespace fs = std::filesystem;

// A PNG file decoded by LodePNG in its stored mode, samples as stored.
struct DecodedPng {
  unsigned width = 0;
  unsigned height = 0;
  LodePNGColorType colour = LCT_GREY;
  unsigned depth = 0;
  std::vector<unsigned char> raw;  // 16-bit samples big-endian, as in the file
};

DecodedPng decode_stored(const std::string& bytes) {
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

std::vector<std::uint16_t> random_codes(std::size_t count, unsigned seed) {
  std::mt19937 random(seed);
  std::vector<std::uint16_t> codes(count);
  for (auto& c : codes) {
    c = static_cast<std::uint16_t>(random() & 0xffffu);
  }
  return codes;
}

// A smooth normal-map-like field with a little noise, and a flat two-level
// mask: the two kinds of maps the encoder compresses differently.
std::vector<std::uint16_t> smooth_codes(int width, int height, int channels, unsigned seed) {
  std::mt19937 random(seed);
  std::vector<std::uint16_t> codes(static_cast<std::size_t>(width) * height * channels);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      for (int c = 0; c < channels; ++c) {
        const int base = 20000 + 30 * x + 17 * y + 5000 * c;
        codes[(static_cast<std::size_t>(y) * width + x) * channels + c] =
            static_cast<std::uint16_t>(base + static_cast<int>(random() % 9));
      }
    }
  }
  return codes;
}

std::string error_of(const std::function<void()>& run) {
  try {
    run();
  } catch (const Error& e) {
    return e.what();
  }
  return "(no error)";
}

TEST(PngWriter, CodesBecomeSixteenBitSamplesInOrder) {
  test::ScratchDir dir;
  const std::vector<std::uint16_t> opacity{0x1234, 0, 65535, 1, 0x8000, 0xfffe};
  writePngCodes(dir / "opacity.png", 3, 2, 1, opacity);
  const std::string bytes = test::read_text_file(dir / "opacity.png");
  DecodedPng png = decode_stored(bytes);
  EXPECT_EQ(png.colour, LCT_GREY);
  EXPECT_EQ(png.depth, 16u);
  EXPECT_EQ(png.width, 3u);
  EXPECT_EQ(png.height, 2u);
  ASSERT_EQ(png.raw.size(), 12u);
  EXPECT_EQ(png.raw[0], 0x12);  // big-endian in the file
  EXPECT_EQ(png.raw[1], 0x34);
  EXPECT_EQ(samples_16(png), opacity);

  const std::vector<std::uint16_t> normal = random_codes(5 * 4 * 3, 1);
  writePngCodes(dir / "normal.png", 5, 4, 3, normal);
  png = decode_stored(test::read_text_file(dir / "normal.png"));
  EXPECT_EQ(png.colour, LCT_RGB);
  EXPECT_EQ(png.depth, 16u);
  EXPECT_EQ(samples_16(png), normal);  // red first, no reordering

  const std::vector<std::uint16_t> two = random_codes(3 * 3 * 2, 2);
  writePngCodes(dir / "two.png", 3, 3, 2, two);
  png = decode_stored(test::read_text_file(dir / "two.png"));
  EXPECT_EQ(png.colour, LCT_GREY_ALPHA);
  EXPECT_EQ(samples_16(png), two);

  const std::vector<std::uint16_t> four = random_codes(2 * 7 * 4, 3);
  writePngCodes(dir / "sub" / "dir" / "four.png", 2, 7, 4, four);
  png = decode_stored(test::read_text_file(dir / "sub" / "dir" / "four.png"));
  EXPECT_EQ(png.colour, LCT_RGBA);
  EXPECT_EQ(samples_16(png), four);
  EXPECT_EQ(test::list_names(dir.path()),
            (std::vector<std::string>{"normal.png", "opacity.png", "sub", "two.png"}));
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
  EXPECT_EQ(write(2, 2, 3, 12), "(no error)");  // the same map whole is written
  EXPECT_EQ(write(0, 2, 3, 0), invalid);
  EXPECT_EQ(write(2, -2, 3, 12), invalid);
  EXPECT_EQ(write(1, 2, 5, 10), invalid);
  EXPECT_EQ(write(12, 1, 0, 0), invalid);
  EXPECT_EQ(test::list_names(dir.path()), std::vector<std::string>{"map.png"});
}

TEST(PngWriter, LargeImagesAreTheSameOnAnyThreadCount) {
  // 1100 x 1000 x 4 x 2 bytes is above the 8 MiB of the parallel path.
  const int width = 1100;
  const int height = 1000;
  TexelImage busy;
  busy.width = width;
  busy.height = height;
  busy.channels = 4;
  busy.type = ComponentType::kU16;
  const std::vector<std::uint16_t> codes = smooth_codes(width, height, 4, 7);
  busy.data.resize(codes.size() * 2);
  std::memcpy(busy.data.data(), codes.data(), busy.data.size());
  const std::vector<unsigned char> one = encodePng(busy, 1);
  const std::vector<unsigned char> two = encodePng(busy, 2);
  EXPECT_EQ(one, two);
  DecodedPng png = decode_stored(std::string(one.begin(), one.end()));
  EXPECT_EQ(png.colour, LCT_RGBA);
  EXPECT_EQ(samples_16(png), codes);

  // The same image below the threshold (a band of it) is encoded serially
  // to the same kind of stream: it still decodes to its samples.
  TexelImage band = busy;
  band.height = 100;
  band.data.resize(band.expected_bytes());
  png = decode_stored([&] {
    const auto bytes = encodePng(band, 2);
    return std::string(bytes.begin(), bytes.end());
  }());
  EXPECT_EQ(samples_16(png),
            std::vector<std::uint16_t>(codes.begin(), codes.begin() + 100 * width * 4));

  // A flat mask compresses to a small fraction of its size.
  TexelImage mask;
  mask.width = 2048;
  mask.height = 2048;
  mask.channels = 1;
  mask.type = ComponentType::kU16;
  mask.data.assign(mask.expected_bytes(), 0);
  for (int y = 0; y < mask.height; ++y) {
    for (int x = 0; x < mask.width; ++x) {
      if ((x / 100 + y / 77) % 3 != 0) {
        const std::size_t i = 2 * (static_cast<std::size_t>(y) * mask.width + x);
        mask.data[i] = 0xff;
        mask.data[i + 1] = 0xff;
      }
    }
  }
  const std::vector<unsigned char> mask_png = encodePng(mask, 2);
  EXPECT_LT(mask_png.size(), mask.data.size() / 50);
  EXPECT_EQ(mask_png, encodePng(mask, 1));
  png = decode_stored(std::string(mask_png.begin(), mask_png.end()));
  EXPECT_EQ(png.raw.size(), mask.data.size());
  bool same = true;
  for (std::size_t i = 0; i < png.raw.size(); ++i) {
    same = same && png.raw[i] == mask.data[i];  // 0 and 0xffff read the same either way
  }
  EXPECT_TRUE(same);
}

TEST(PngWriter, EncodeChecksTheImage) {
  TexelImage image;
  image.width = 2;
  image.height = 2;
  image.channels = 1;
  image.type = ComponentType::kF32;
  image.data.assign(16, 0);
  EXPECT_EQ(error_of([&] { encodePng(image); }),
            "PNG stores 8- or 16-bit integer texels only, not f32");
  image.type = ComponentType::kF16;
  EXPECT_EQ(error_of([&] { encodePng(image); }),
            "PNG stores 8- or 16-bit integer texels only, not f16");
  image.type = ComponentType::kU8;
  image.data.clear();
  EXPECT_EQ(error_of([&] { encodePng(image); }), "PNG: no texel data");
  image.data.assign(4, 9);
  image.channels = 5;
  EXPECT_EQ(error_of([&] { encodePng(image); }), "PNG: the channel count must be 1 to 4");
  image.channels = 0;
  EXPECT_EQ(error_of([&] { encodePng(image); }), "PNG: the channel count must be 1 to 4");
  image.channels = 2;
  EXPECT_EQ(error_of([&] { encodePng(image); }),
            "PNG: the texel data does not match 2 x 2 x 2 u8 texels");

  // 8-bit samples pass through unchanged.
  image.channels = 1;
  image.data = {0, 1, 254, 255};
  const auto bytes = encodePng(image);
  const DecodedPng png = decode_stored(std::string(bytes.begin(), bytes.end()));
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
  EXPECT_TRUE(fs::is_directory(dir / "map.png.tmp"));
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
  TexelImage image = readPng(dir / "rgb16.png");
  EXPECT_EQ(image.width, 6);
  EXPECT_EQ(image.height, 5);
  EXPECT_EQ(image.channels, 3);
  EXPECT_EQ(image.type, ComponentType::kU16);
  ASSERT_EQ(image.data.size(), codes.size() * 2);
  EXPECT_EQ(std::memcmp(image.data.data(), codes.data(), image.data.size()), 0);

  const auto encode_with =
      [&](const std::vector<unsigned char>& raw, unsigned w, unsigned h, LodePNGColorType raw_type,
          unsigned raw_depth, LodePNGColorType file_type, unsigned file_depth, const fs::path& path,
          const std::vector<unsigned char>& palette = {}) {
        lodepng::State state;
        state.info_raw.colortype = raw_type;
        state.info_raw.bitdepth = raw_depth;
        state.info_png.color.colortype = file_type;
        state.info_png.color.bitdepth = file_depth;
        state.encoder.auto_convert = 0;
        if (file_type == LCT_PALETTE) {
          for (std::size_t i = 0; i + 3 < palette.size(); i += 4) {
            lodepng_palette_add(&state.info_png.color, palette[i], palette[i + 1], palette[i + 2],
                                palette[i + 3]);
            lodepng_palette_add(&state.info_raw, palette[i], palette[i + 1], palette[i + 2],
                                palette[i + 3]);
          }
        }
        std::vector<unsigned char> png;
        ASSERT_EQ(lodepng::encode(png, raw, w, h, state), 0u);
        test::write_text_file(path, std::string(png.begin(), png.end()));
      };

  const std::vector<unsigned char> rgba{1, 2, 3, 4, 250, 251, 252, 253};
  encode_with(rgba, 2, 1, LCT_RGBA, 8, LCT_RGBA, 8, dir / "rgba8.png");
  image = readPng(dir / "rgba8.png");
  EXPECT_EQ(image.channels, 4);
  EXPECT_EQ(image.type, ComponentType::kU8);
  EXPECT_EQ(image.data, rgba);

  const std::vector<unsigned char> grey_alpha{10, 200, 30, 40};
  encode_with(grey_alpha, 1, 2, LCT_GREY_ALPHA, 8, LCT_GREY_ALPHA, 8, dir / "ga8.png");
  image = readPng(dir / "ga8.png");
  EXPECT_EQ(image.channels, 2);
  EXPECT_EQ(image.data, grey_alpha);

  // 1-bit and 4-bit grey widen to 8 bits: 0/255 and v * 17.
  const std::vector<unsigned char> bits{0, 255, 255, 0, 255, 0, 0, 0, 255};
  encode_with(bits, 9, 1, LCT_GREY, 8, LCT_GREY, 1, dir / "grey1.png");
  image = readPng(dir / "grey1.png");
  EXPECT_EQ(image.channels, 1);
  EXPECT_EQ(image.type, ComponentType::kU8);
  EXPECT_EQ(image.data, bits);
  const std::vector<unsigned char> nibbles{0, 17, 34, 255, 136};
  encode_with(nibbles, 5, 1, LCT_GREY, 8, LCT_GREY, 4, dir / "grey4.png");
  EXPECT_EQ(readPng(dir / "grey4.png").data, nibbles);

  // Palette images: RGB when every entry is opaque, RGBA otherwise.
  encode_with({1, 0, 1}, 3, 1, LCT_PALETTE, 8, LCT_PALETTE, 8, dir / "opaque_palette.png",
              {5, 6, 7, 255, 8, 9, 10, 255});
  image = readPng(dir / "opaque_palette.png");
  EXPECT_EQ(image.channels, 3);
  EXPECT_EQ(image.data, (std::vector<unsigned char>{8, 9, 10, 5, 6, 7, 8, 9, 10}));
  encode_with({0, 1}, 2, 1, LCT_PALETTE, 8, LCT_PALETTE, 8, dir / "clear_palette.png",
              {5, 6, 7, 255, 8, 9, 10, 128});
  image = readPng(dir / "clear_palette.png");
  EXPECT_EQ(image.channels, 4);
  EXPECT_EQ(image.data, (std::vector<unsigned char>{5, 6, 7, 255, 8, 9, 10, 128}));
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
  const std::vector<std::uint16_t> codes = random_codes(64 * 64, 5);
  writePngCodes(dir / "whole.png", 64, 64, 1, codes);
  const std::string whole = test::read_text_file(dir / "whole.png");
  test::write_text_file(dir / "cut.png", whole.substr(0, whole.size() / 2));
  const std::string message = error_of([&] { readPng(dir / "cut.png"); });
  EXPECT_EQ(message.substr(0, 5), "PNG: ") << message;
  EXPECT_GT(message.size(), 5u);
}

// Runs only inside the child process of the next test, under a small file
// size limit.
TEST(PngWriteFailureChild, FileSizeLimitFailsTheWrite) {
  const auto target = platform::get_env("KV_IMAGE_CHILD_PNG");
  if (!target) {
    GTEST_SKIP() << "runs as the child of PngWriter.FailedWriteLeavesNoTemporary";
  }
  const std::vector<std::uint16_t> codes = random_codes(512 * 512 * 3, 9);
  EXPECT_EQ(error_of([&] { writePngCodes(*target, 512, 512, 3, codes); }),
            "cannot write " + *target + ".tmp");
}

TEST(PngWriter, FailedWriteLeavesNoTemporary) {
  test::ScratchDir dir;
  const fs::path target = dir / "map.png";
  test::write_text_file(target, "the previous map");
  const std::string self = fs::read_symlink("/proc/self/exe").string();
  const auto result =
      platform::run_process({"/bin/sh", "-c",
                             "trap '' XFSZ; ulimit -f 64 && exec \"$0\" "
                             "--gtest_filter=PngWriteFailureChild.FileSizeLimitFailsTheWrite",
                             self},
                            "", {"KV_IMAGE_CHILD_PNG=" + target.string()});
  EXPECT_EQ(result.exit_code, 0) << result.out << result.err;
  EXPECT_NE(result.out.find("[  PASSED  ] 1 test"), std::string::npos) << result.out;
  EXPECT_EQ(result.out.find("SKIPPED"), std::string::npos) << result.out;
  EXPECT_EQ(test::list_names(dir.path()), std::vector<std::string>{"map.png"});
  EXPECT_EQ(test::read_text_file(target), "the previous map");
}

}  // namespace
}  // namespace kv
