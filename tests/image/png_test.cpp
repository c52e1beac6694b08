// The PNG writer and reader, checked through LodePNG as an independent
// decoder.
#include <gtest/gtest.h>
#include <lodepng.h>

#include <cstring>
#include <thread>
#include <tuple>

#include "image/png.h"
#include "image/temp_file.h"
#include "image_test_util.h"
#include "support/address_space_limit.h"
#include "support/message_of.h"
#include "support/test_support.h"

namespace kv {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using test::error_of;
using test::list_names;
using test::random_codes;
using test::read_text_file;

// A PNG decoded by LodePNG in its stored mode; 16-bit samples are turned from
// the file's big-endian order into numbers.
struct DecodedPng {
  unsigned width = 0, height = 0, depth = 0;
  LodePNGColorType colour = LCT_GREY;
  std::vector<unsigned char> raw;
  std::vector<std::uint16_t> samples;
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
  for (std::size_t i = 0; png.depth == 16 && i + 1 < png.raw.size(); i += 2) {
    png.samples.push_back(static_cast<std::uint16_t>((png.raw[i] << 8) | png.raw[i + 1]));
  }
  return png;
}

TexelImage u16_image(int width, int height, int channels, const std::vector<std::uint16_t>& codes) {
  TexelImage image{width, height, channels, ComponentType::kU16,
                   std::vector<std::uint8_t>(2 * codes.size())};
  std::memcpy(image.data.data(), codes.data(), image.data.size());
  return image;
}

TEST(PngWriter, CodesBecomeSixteenBitSamplesThatReadBack) {
  test::ScratchDir dir;
  const LodePNGColorType types[] = {LCT_GREY, LCT_GREY_ALPHA, LCT_RGB, LCT_RGBA};
  for (int channels = 1; channels <= 4; ++channels) {
    // Sample order as given (red first), big-endian in the file; our reader
    // gives native-order codes back.
    const std::vector<std::uint16_t> codes = random_codes(5 * 3 * channels, channels);
    const fs::path path = dir / "sub" / ("map" + std::to_string(channels) + ".png");
    writePngCodes(path, 5, 3, channels, codes);
    const DecodedPng png = decode_stored(test::read_text_file(path));
    EXPECT_EQ(std::tuple(png.colour, png.depth, png.width, png.height, png.samples),
              std::tuple(types[channels - 1], 16u, 5u, 3u, codes));
    const TexelImage image = readPng(path);
    EXPECT_EQ(
        std::tuple(image.width, image.height, image.channels, image.type, image.data),
        std::tuple(5, 3, channels, ComponentType::kU16, u16_image(5, 3, channels, codes).data));
  }
  EXPECT_EQ(list_names(dir / "sub"),
            (std::vector<std::string>{"map1.png", "map2.png", "map3.png", "map4.png"}));
}

TEST(PngWriter, InvalidImagesAreRefusedBeforeAnyFile) {
  test::ScratchDir dir;
  const fs::path out = dir / "map.png";
  const std::vector<std::uint16_t> codes(12);
  // Short by one, zero width, negative height, five and zero channels.
  for (const auto& [w, h, c, n] :
       {std::tuple{2, 2, 3, 11}, {0, 2, 3, 0}, {2, -2, 3, 12}, {1, 2, 5, 10}, {12, 1, 0, 0}}) {
    EXPECT_EQ(error_of([&] { writePngCodes(out, w, h, c, std::span(codes.data(), n)); }),
              out.string() + ": PNG: invalid map");
  }
  EXPECT_TRUE(list_names(dir.path()).empty());
  writePngCodes(out, 2, 2, 3, codes);  // the same map whole is written

  const std::vector<std::uint8_t> four(4, 9);
  const std::string channels = "PNG: the channel count must be 1 to 4";
  for (const auto& [image, message] : std::vector<std::pair<TexelImage, std::string>>{
           {{2, 2, 1, ComponentType::kF32, four},
            "PNG stores 8- or 16-bit integer texels only, not f32"},
           {{2, 2, 1, ComponentType::kF16, four},
            "PNG stores 8- or 16-bit integer texels only, not f16"},
           {{2, 2, 1, ComponentType::kU8, {}}, "PNG: no texel data"},
           {{2, 2, 0, ComponentType::kU8, four}, channels},
           {{2, 2, 5, ComponentType::kU8, four}, channels},
           {{2, 2, 2, ComponentType::kU8, four},
            "PNG: the texel data does not match 2 x 2 x 2 u8 texels"}}) {
    EXPECT_EQ(error_of([&] { encodePng(image); }), message);
  }
  // 8-bit samples pass through unchanged.
  const DecodedPng png = decode_stored(encodePng({2, 2, 1, ComponentType::kU8, {0, 1, 254, 255}}));
  EXPECT_EQ(std::tuple(png.depth, png.raw),
            std::tuple(8u, std::vector<unsigned char>{0, 1, 254, 255}));
}

TEST(PngWriter, LargeImagesAreTheSameOnAnyThreadCount) {
  const auto encode = [](const TexelImage& image) {
    const std::vector<unsigned char> png = encodePng(image, 1);
    EXPECT_TRUE(png == encodePng(image, 2));
    return png;
  };
  // A smooth normal-map-like field with a little noise; 1100 x 1000 x 4 x 2
  // bytes is above the 8 MiB of the parallel path.
  std::vector<std::uint16_t> codes = random_codes(1100 * 1000 * 4, 7);
  for (std::size_t i = 0; i < codes.size(); ++i) {
    const std::size_t x = i / 4 % 1100;
    const std::size_t y = i / 4 / 1100;
    codes[i] = static_cast<std::uint16_t>(20000 + 30 * x + 17 * y + 5000 * (i % 4) + codes[i] % 9);
  }
  const DecodedPng busy = decode_stored(encode(u16_image(1100, 1000, 4, codes)));
  EXPECT_TRUE(busy.samples == codes);

  // A flat two-level mask compresses to a small fraction of its size.
  std::vector<std::uint16_t> levels(2048 * 2048, 0);
  for (std::size_t i = 0; i < levels.size(); ++i) {
    levels[i] = (i % 2048 / 100 + i / 2048 / 77) % 3 != 0 ? 0xffff : 0;
  }
  const std::vector<unsigned char> mask = encode(u16_image(2048, 2048, 1, levels));
  EXPECT_LT(mask.size(), levels.size() * 2 / 50);
  EXPECT_TRUE(decode_stored(mask).samples == levels);
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
  EXPECT_EQ(decode_stored(test::read_text_file(target)).samples, codes);
  EXPECT_EQ(list_names(dir.path()), std::vector<std::string>{"map.png"});

  // The target is a folder that holds a file: the rename fails.
  const fs::path folder = dir / "folder.png";
  fs::create_directories(folder / "inside");
  EXPECT_EQ(error_of([&] { writePngCodes(folder, 1, 1, 3, codes); }),
            "cannot rename " + folder.string() + ".tmp to " + folder.string() + ": Is a directory");
  EXPECT_EQ(list_names(dir.path()), (std::vector<std::string>{"folder.png", "map.png"}));
}

TEST(PngReader, ReadsEveryStoredKindAndNamesFailures) {
  test::ScratchDir dir;
  const fs::path in = dir / "in.png";
  // Files LodePNG writes from 8-bit samples, and the 8-bit texels they give
  // (16-bit files are read back above).
  using Bytes = std::vector<unsigned char>;
  const Bytes bits{0, 255, 255, 0, 255, 0, 0, 0, 255};
  const Bytes nibbles{0, 17, 34, 255, 136};
  const Bytes opaque{5, 6, 7, 255, 8, 9, 10, 255};
  const Bytes clear{5, 6, 7, 255, 8, 9, 10, 128};
  // Samples, width, height, colour type, file bit depth, RGBA palette entries,
  // then the channels and texels read.
  const std::vector<
      std::tuple<Bytes, unsigned, unsigned, LodePNGColorType, unsigned, Bytes, int, Bytes>>
      cases = {
          {{10, 200, 30, 40}, 1, 2, LCT_GREY_ALPHA, 8, {}, 2, {10, 200, 30, 40}},
          // 1-bit and 4-bit grey widen to 8 bits: 0/255 and v * 17.
          {bits, 9, 1, LCT_GREY, 1, {}, 1, bits},
          {nibbles, 5, 1, LCT_GREY, 4, {}, 1, nibbles},
          // Palette images: RGB when every entry is opaque, RGBA otherwise.
          {{1, 0, 1}, 3, 1, LCT_PALETTE, 8, opaque, 3, {8, 9, 10, 5, 6, 7, 8, 9, 10}},
          {{0, 1}, 2, 1, LCT_PALETTE, 8, clear, 4, clear},
      };
  for (const auto& [raw, width, height, type, depth, palette, channels, texels] : cases) {
    lodepng::State state;
    state.info_raw = lodepng_color_mode_make(type, 8);
    state.info_png.color = lodepng_color_mode_make(type, depth);
    state.encoder.auto_convert = 0;
    for (std::size_t i = 0; i < palette.size(); i += 4) {
      const unsigned char* e = palette.data() + i;
      lodepng_palette_add(&state.info_png.color, e[0], e[1], e[2], e[3]);
      lodepng_palette_add(&state.info_raw, e[0], e[1], e[2], e[3]);
    }
    std::vector<unsigned char> png;
    ASSERT_EQ(lodepng::encode(png, raw, width, height, state), 0u);
    ASSERT_EQ(lodepng::save_file(png, in.string()), 0u);
    const TexelImage read = readPng(in);
    EXPECT_EQ(std::tuple(read.width, read.height, read.channels, read.type, read.data),
              std::tuple(static_cast<int>(width), static_cast<int>(height), channels,
                         ComponentType::kU8, texels));
  }

  EXPECT_EQ(error_of([&] { readPng(dir / "missing.png"); }),
            "cannot open " + (dir / "missing.png").string());
  EXPECT_EQ(error_of([&] { readPng(dir.path()); }), "cannot read " + dir.path().string());
  // Not a PNG at all, and a valid file cut short: the decoder's reason.
  writePngCodes(in, 64, 64, 1, random_codes(64 * 64, 5));
  const std::string whole = test::read_text_file(in);
  for (const std::string& bytes : {"this is not a PNG file"s, whole.substr(0, whole.size() / 2)}) {
    test::write_text_file(in, bytes);
    std::vector<unsigned char> out;
    unsigned w = 0, h = 0;
    const unsigned code = lodepng::decode(out, w, h, in.string());
    EXPECT_NE(code, 0u);
    EXPECT_EQ(error_of([&] { readPng(in); }), "PNG: "s + lodepng_error_text(code));
  }
}

// A copy of the PNG with another IHDR (size, bit depth and colour type) and
// that chunk's CRC made to match, so only the header's claim is wrong.
std::vector<unsigned char> with_header(std::vector<unsigned char> png, unsigned width,
                                       unsigned height, unsigned depth, LodePNGColorType colour) {
  unsigned char* ihdr = png.data() + 8;  // after the signature: length, "IHDR", data, CRC
  for (int i = 0; i < 4; ++i) {
    ihdr[8 + i] = static_cast<unsigned char>(width >> (24 - 8 * i));
    ihdr[12 + i] = static_cast<unsigned char>(height >> (24 - 8 * i));
  }
  ihdr[16] = static_cast<unsigned char>(depth);
  ihdr[17] = static_cast<unsigned char>(colour);
  lodepng_chunk_generate_crc(ihdr);
  return png;
}

TEST(PngReader, HeadersBeyondTheLimitsAreRefusedBeforeDecoding) {
  test::ScratchDir dir;
  const fs::path in = dir / "in.png";
  const std::vector<unsigned char> base = encodePng({2, 2, 1, ComponentType::kU8, {0, 1, 2, 3}});
  const unsigned bytes = static_cast<unsigned>(base.size());
  const auto write = [&](const std::vector<unsigned char>& png) {
    test::write_text_file(in, std::string(png.begin(), png.end()));
  };
  // Wider or taller than the largest map, up to the most a header can say.
  for (const auto& [width, height] : {std::pair{16385u, 1u}, {1u, 16385u}, {~0u >> 1, ~0u >> 1}}) {
    write(with_header(base, width, height, 8, LCT_GREY));
    EXPECT_EQ(error_of([&] { readPng(in); }),
              in.string() + ": PNG: the image is " + std::to_string(width) + " x " +
                  std::to_string(height) + " texels, more than 16384 on a side");
  }
  // A bomb's header: the largest map in 16-bit RGBA, 2 GiB of samples, over
  // a few dozen bytes of data.
  write(with_header(base, 16384, 16384, 16, LCT_RGBA));
  const std::string file_of = in.string() + ": PNG: a file of " + std::to_string(bytes) + " bytes";
  EXPECT_EQ(error_of([&] { readPng(in); }),
            file_of + " cannot hold 16384 x 16384 texels of 64 bits");

  // Up to 1032 bytes of stored samples per byte of file, at any bits per
  // texel: that many go on to the decoder (which finds the data short), one
  // row more is refused.
  for (const auto& [depth, colour, bits] :
       {std::tuple{1u, LCT_GREY, 1u}, {8u, LCT_GREY, 8u}, {16u, LCT_RGBA, 64u}}) {
    const unsigned width = 1032 * 8 / bits;
    const std::vector<unsigned char> at_limit = with_header(base, width, bytes, depth, colour);
    write(at_limit);
    std::vector<unsigned char> out;
    unsigned w = 0, h = 0;
    const unsigned code = lodepng::decode(out, w, h, at_limit);
    EXPECT_NE(code, 0u);
    EXPECT_EQ(error_of([&] { readPng(in); }), "PNG: "s + lodepng_error_text(code));
    write(with_header(base, width, bytes + 1, depth, colour));
    EXPECT_EQ(error_of([&] { readPng(in); }), file_of + " cannot hold " + std::to_string(width) +
                                                  " x " + std::to_string(bytes + 1) +
                                                  " texels of " + std::to_string(bits) +
                                                  (bits == 1 ? " bit" : " bits"));
  }

  // The widest and the tallest map read back whole.
  const std::vector<std::uint16_t> codes = random_codes(16384 * 2, 11);
  for (const auto& [width, height] : {std::pair{16384, 1}, {1, 16384}}) {
    writePngCodes(in, width, height, 2, codes);
    const TexelImage image = readPng(in);
    EXPECT_EQ(std::tuple(image.width, image.height, image.channels, image.data),
              std::tuple(width, height, 2, u16_image(width, height, 2, codes).data));
  }
}

TEST(PngReader, TheHeaderAloneGivesTheShapeAndTheSameRefusals) {
  test::ScratchDir dir;
  const fs::path in = dir / "in.png";
  const auto save = [&](const std::vector<unsigned char>& png) {
    test::write_text_file(in, std::string(png.begin(), png.end()));
  };
  // Every stored kind: the header's shape is the texels' shape; a palette
  // counts as the RGBA it decodes into, whichever its entries.
  const std::vector<unsigned char> samples(6 * 5 * 8, 77);
  for (const auto& [colour, depth] : {std::pair{LCT_GREY, 1u},
                                      {LCT_GREY, 8u},
                                      {LCT_GREY_ALPHA, 16u},
                                      {LCT_RGB, 8u},
                                      {LCT_RGB, 16u},
                                      {LCT_RGBA, 8u},
                                      {LCT_PALETTE, 8u}}) {
    lodepng::State state;
    state.info_raw = lodepng_color_mode_make(colour, depth < 8 ? 8 : depth);
    state.info_png.color = lodepng_color_mode_make(colour, depth);
    state.encoder.auto_convert = 0;
    if (colour == LCT_PALETTE) {
      for (unsigned char v = 0; v < 80; ++v) {
        lodepng_palette_add(&state.info_png.color, v, v, v, 255);
        lodepng_palette_add(&state.info_raw, v, v, v, 255);
      }
    }
    std::vector<unsigned char> png;
    ASSERT_EQ(lodepng::encode(png, samples, 6, 5, state), 0u);
    save(png);
    const PngHeader header = inspectPng(in);
    const TexelImage read = readPng(in);
    EXPECT_EQ(header.file_bytes, png.size());
    EXPECT_TRUE(header.shape.data.empty());
    EXPECT_EQ(std::tuple(header.shape.width, header.shape.height, header.shape.type),
              std::tuple(read.width, read.height, read.type));
    EXPECT_EQ(header.shape.channels, colour == LCT_PALETTE ? 4 : read.channels) << colour;
  }
  // The refusals that come before decoding are the reader's own.
  const std::vector<unsigned char> base = encodePng({2, 2, 1, ComponentType::kU8, {0, 1, 2, 3}});
  for (const std::vector<unsigned char>& png :
       {with_header(base, 16385, 1, 8, LCT_GREY), with_header(base, 16384, 16384, 16, LCT_RGBA),
        std::vector<unsigned char>(base.begin(), base.begin() + 20)}) {
    save(png);
    const std::string message = error_of([&] { readPng(in); });
    EXPECT_NE(message, "(no error)");
    EXPECT_EQ(error_of([&] { inspectPng(in); }), message);
  }
  EXPECT_EQ(error_of([&] { inspectPng(dir / "missing.png"); }),
            error_of([&] { readPng(dir / "missing.png"); }));
}

TEST(PngReader, RunningOutOfMemoryNamesTheFile) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer's allocator ends the process instead of failing the allocation";
#endif
  // A flat 4096 x 4096 map: a small file whose samples take 32 MiB.
  test::ScratchDir dir;
  const fs::path in = dir / "flat.png";
  const std::vector<std::uint16_t> flat(4096 * 4096, 7);
  writePngCodes(in, 4096, 4096, 1, flat);
  {
    const test::AddressSpaceLimit limit(std::uint64_t{8} << 20);
    ASSERT_TRUE(limit.applied());
    EXPECT_EQ(test::message_of<OutOfMemory>([&] { readPng(in); }),
              in.string() + ": PNG: out of memory while reading the image");
  }
  // With the memory back, the same file reads.
  EXPECT_TRUE(readPng(in).data == u16_image(4096, 4096, 1, flat).data);
}

}  // namespace
}  // namespace kv
