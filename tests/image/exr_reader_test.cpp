// The EXR reader: our own writer's files, files written by the OpenEXR
// library in every compression it reads, the refusals with their messages,
// and damaged files that may only ever fail with the program's errors.
#include <gtest/gtest.h>

#include <Imath/half.h>
#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfFrameBuffer.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfOutputFile.h>

#include <bit>
#include <cstring>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "image/exr.h"
#include "image/exr_reader.h"
#include "image_test_util.h"
#include "support/address_space_limit.h"
#include "support/message_of.h"
#include "support/test_support.h"

namespace kv {
namespace {

namespace fs = std::filesystem;
using test::random_codes;
using test::read_text_file;
using test::write_text_file;

std::uint32_t sample_bits(const TexelImage& image, std::size_t i) {
  if (image.type == ComponentType::kF16) {
    std::uint16_t bits = 0;
    std::memcpy(&bits, image.data.data() + 2 * i, 2);
    return bits;
  }
  std::uint32_t bits = 0;
  std::memcpy(&bits, image.data.data() + 4 * i, 4);
  return bits;
}

TEST(ExrReader, ReadsOurOwnFilesExactly) {
  test::ScratchDir dir;
  const fs::path path = dir / "map.exr";
  for (const int channels : {1, 3, 4}) {
    for (const int pixel_type : {kExrHalf, kExrFloat}) {
      const int width = 7;
      const int height = 5;
      const std::vector<std::uint16_t> codes =
          random_codes(static_cast<std::size_t>(width * height * channels), 5u + channels);
      writeExr(path, width, height, channels, codes, pixel_type, 1);
      const TexelImage image = read_exr(path);
      ASSERT_EQ(std::tuple(image.width, image.height, image.channels, image.type),
                std::tuple(width, height, channels,
                           pixel_type == kExrHalf ? ComponentType::kF16 : ComponentType::kF32));
      ASSERT_EQ(image.data.size(), image.expected_bytes());
      std::size_t mismatches = 0;
      for (std::size_t i = 0; i < codes.size(); ++i) {
        const std::uint32_t expected =
            pixel_type == kExrHalf ? exr_code_halves()[codes[i]]
                                   : std::bit_cast<std::uint32_t>(exr_code_floats()[codes[i]]);
        mismatches += sample_bits(image, i) != expected ? 1 : 0;
      }
      EXPECT_EQ(mismatches, 0u) << channels << " channels, type " << pixel_type;
    }
  }
}

struct ChannelSpec {
  const char* name;
  Imf::PixelType type;
};

// Values as bits, planar per channel; half values in the low 16 bits. Most
// rows repeat runs of values so that packing pays and both the packed and
// the stored-as-is paths are taken.
std::vector<std::vector<std::uint32_t>> test_values(int width, int height,
                                                    const std::vector<ChannelSpec>& channels,
                                                    unsigned seed) {
  std::mt19937 random(seed);
  std::vector<std::vector<std::uint32_t>> planes;
  for (const ChannelSpec& channel : channels) {
    std::vector<std::uint32_t> plane;
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) {
        std::uint32_t bits = y % 4 == 1 ? static_cast<std::uint32_t>(random())
                                        : static_cast<std::uint32_t>(x / 5 + y) * 977u;
        if (channel.type == Imf::HALF) {
          bits &= 0xffffu;
          if ((bits & 0x7fffu) > 0x7c00u) {
            bits &= 0xfbffu;  // no NaN: its payload is not kept when widened
          }
        }
        plane.push_back(bits);
      }
    }
    planes.push_back(std::move(plane));
  }
  return planes;
}

void write_with_openexr(const fs::path& path, const Imath::Box2i& window,
                        const std::vector<ChannelSpec>& channels,
                        std::vector<std::vector<std::uint32_t>>& planes,
                        Imf::Compression compression, Imf::LineOrder order = Imf::INCREASING_Y) {
  Imf::Header header(window, window);
  header.compression() = compression;
  header.lineOrder() = order;
  Imf::FrameBuffer frame;
  const int width = window.max.x - window.min.x + 1;
  for (std::size_t c = 0; c < channels.size(); ++c) {
    header.channels().insert(channels[c].name, Imf::Channel(channels[c].type));
    frame.insert(channels[c].name, Imf::Slice::Make(channels[c].type, planes[c].data(), window, 4,
                                                    4 * static_cast<std::size_t>(width)));
  }
  Imf::OutputFile file(path.c_str(), header);
  file.setFrameBuffer(frame);
  file.writePixels(window.max.y - window.min.y + 1);
}

// The texels hold the planes of the named channels, in that order, halves
// widened as the OpenEXR library widens them when the texels are float.
void expect_texels(const TexelImage& image, const std::vector<ChannelSpec>& channels,
                   const std::vector<std::vector<std::uint32_t>>& planes,
                   const std::vector<int>& order, const std::string& what) {
  ASSERT_EQ(image.channels, static_cast<int>(order.size())) << what;
  ASSERT_EQ(image.data.size(), image.expected_bytes()) << what;
  std::size_t mismatches = 0;
  const std::size_t texels = planes[0].size();
  for (std::size_t t = 0; t < texels; ++t) {
    for (std::size_t k = 0; k < order.size(); ++k) {
      const auto c = static_cast<std::size_t>(order[k]);
      std::uint32_t expected = planes[c][t];
      if (image.type == ComponentType::kF32 && channels[c].type == Imf::HALF) {
        Imath::half widened;
        widened.setBits(static_cast<std::uint16_t>(expected));
        expected = std::bit_cast<std::uint32_t>(static_cast<float>(widened));
      }
      mismatches += sample_bits(image, t * order.size() + k) != expected ? 1 : 0;
    }
  }
  EXPECT_EQ(mismatches, 0u) << what;
}

TEST(ExrReader, ReadsTheLibrarysFilesInEveryCompressionExactly) {
  test::ScratchDir dir;
  const fs::path path = dir / "lib.exr";
  // 37 x 21: the 16-line ZIP chunks end with a short one; the window does
  // not start at the origin.
  const Imath::Box2i window({-4, 7}, {32, 27});
  struct Case {
    std::vector<ChannelSpec> channels;  // as the file sorts them
    std::vector<int> order;             // file channels in texel order
    ComponentType type;
  };
  const std::vector<Case> cases = {
      {{{"A", Imf::HALF}, {"B", Imf::HALF}, {"G", Imf::HALF}, {"R", Imf::HALF}},
       {3, 2, 1, 0},
       ComponentType::kF16},
      {{{"B", Imf::FLOAT}, {"G", Imf::FLOAT}, {"R", Imf::FLOAT}}, {2, 1, 0}, ComponentType::kF32},
      {{{"A", Imf::FLOAT}, {"B", Imf::HALF}, {"G", Imf::HALF}, {"R", Imf::HALF}, {"Z", Imf::UINT}},
       {3, 2, 1, 0},
       ComponentType::kF32},
      {{{"Y", Imf::HALF}}, {0}, ComponentType::kF16},
      {{{"A", Imf::HALF}, {"Y", Imf::FLOAT}, {"depth", Imf::FLOAT}}, {1, 0}, ComponentType::kF32},
  };
  unsigned seed = 1;
  for (const Imf::Compression compression :
       {Imf::NO_COMPRESSION, Imf::RLE_COMPRESSION, Imf::ZIPS_COMPRESSION, Imf::ZIP_COMPRESSION}) {
    for (const Case& c : cases) {
      for (const Imf::LineOrder order : {Imf::INCREASING_Y, Imf::DECREASING_Y}) {
        auto planes = test_values(37, 21, c.channels, ++seed);
        write_with_openexr(path, window, c.channels, planes, compression, order);
        const TexelImage image = read_exr(path);
        const std::string what = "compression " + std::to_string(compression) + ", " +
                                 std::to_string(c.channels.size()) + " channels, order " +
                                 std::to_string(order);
        EXPECT_EQ(std::tuple(image.width, image.height, image.type), std::tuple(37, 21, c.type))
            << what;
        expect_texels(image, c.channels, planes, c.order, what);
      }
    }
  }
}

TEST(ExrReader, RefusesWhatItDoesNotReadByName) {
  test::ScratchDir dir;
  const fs::path path = dir / "refused.exr";
  const Imath::Box2i window({0, 0}, {5, 3});
  const auto refusal = [&](const std::vector<ChannelSpec>& channels, Imf::Compression compression) {
    auto planes = test_values(6, 4, channels, 3);
    write_with_openexr(path, window, channels, planes, compression);
    return test::message_of([&] { read_exr(path); });
  };
  const std::vector<ChannelSpec> rgb = {{"B", Imf::HALF}, {"G", Imf::HALF}, {"R", Imf::HALF}};
  const std::string prefix = path.string() + ": EXR: ";
  for (const auto& [compression, name] : {std::pair{Imf::PIZ_COMPRESSION, "PIZ"},
                                          {Imf::PXR24_COMPRESSION, "PXR24"},
                                          {Imf::B44_COMPRESSION, "B44"},
                                          {Imf::B44A_COMPRESSION, "B44A"},
                                          {Imf::DWAA_COMPRESSION, "DWAA"},
                                          {Imf::DWAB_COMPRESSION, "DWAB"}}) {
    EXPECT_EQ(refusal(rgb, compression), prefix + name + " compression is not supported");
  }
  EXPECT_EQ(refusal({{"B", Imf::HALF}, {"G", Imf::UINT}, {"R", Imf::HALF}}, Imf::ZIP_COMPRESSION),
            prefix +
                "channel G holds 32-bit unsigned integers; only half and float channels "
                "are read");
  EXPECT_EQ(refusal({{"G", Imf::HALF}, {"R", Imf::HALF}}, Imf::NO_COMPRESSION),
            prefix + "an RGB image needs all of R, G and B; the channels are G, R");
  EXPECT_EQ(refusal({{"Z", Imf::FLOAT}, {"depth", Imf::HALF}}, Imf::NO_COMPRESSION),
            prefix + "no R, G, B or Y channel to read; the channels are Z, depth");
  EXPECT_EQ(test::message_of([&] { read_exr(dir / "missing.exr"); }),
            "cannot open " + (dir / "missing.exr").string() + ": No such file or directory");
}

// Where the value of a header attribute starts in the file's bytes.
std::size_t attribute_value(const std::string& bytes, const std::string& name,
                            const std::string& type) {
  const std::string key = name + '\0' + type + '\0';
  const std::size_t at = bytes.find(key);
  EXPECT_NE(at, std::string::npos) << name;
  return at + key.size() + 4;
}

void put_i32(std::string& bytes, std::size_t at, std::int64_t value) {
  const auto bits = static_cast<std::uint32_t>(value);
  std::memcpy(bytes.data() + at, &bits, 4);
}
void put_u64(std::string& bytes, std::size_t at, std::uint64_t value) {
  std::memcpy(bytes.data() + at, &value, 8);
}
std::uint64_t u64_at(const std::string& bytes, std::size_t at) {
  std::uint64_t value = 0;
  std::memcpy(&value, bytes.data() + at, 8);
  return value;
}

TEST(ExrReader, EverySizeIsCheckedBeforeItIsTrusted) {
  test::ScratchDir dir;
  const fs::path source = dir / "source.exr";
  const fs::path path = dir / "bad.exr";
  // 3 x 4 grey floats, uncompressed: chunks of one 12-byte line.
  const std::vector<std::uint16_t> codes = random_codes(12, 9);
  writeExr(source, 3, 4, 1, codes, kExrFloat, 1);
  const std::string good = read_text_file(source);
  const std::size_t window = attribute_value(good, "dataWindow", "box2i");
  const std::size_t table = good.size() - 4 * (8 + 12) - 4 * 8;
  const std::string prefix = path.string() + ": EXR: ";
  const auto message = [&](const std::function<void(std::string&)>& edit) {
    std::string bytes = good;
    edit(bytes);
    write_text_file(path, bytes);
    return test::message_of([&] { read_exr(path); });
  };
  const std::string file = "a file of " + std::to_string(good.size()) + " bytes";
  EXPECT_EQ(message([&](std::string& b) { put_i32(b, window + 8, 16384); }),
            prefix + "the image is 16385 x 4 texels, more than 16384 on a side");
  EXPECT_EQ(message([&](std::string& b) { put_i32(b, window + 12, -2); }),
            prefix + "the data window is empty (3 x -1 texels)");
  EXPECT_EQ(message([&](std::string& b) { put_i32(b, window + 12, 16383); }),
            prefix + file + " cannot hold the 16384 chunks of 3 x 16384 texels");
  EXPECT_EQ(message([&](std::string& b) { put_i32(b, window + 12, 4); }),
            prefix + file + " cannot hold 3 x 5 texels of 12 bytes a line in NONE compression");
  EXPECT_EQ(message([&](std::string& b) { put_u64(b, table + 8, good.size() - 7); }),
            prefix + "chunk 1 starts at byte " + std::to_string(good.size() - 7) +
                ", outside the chunks (bytes " + std::to_string(table + 32) + " to " +
                std::to_string(good.size()) + ")");
  EXPECT_EQ(message([&](std::string& b) { put_u64(b, table + 24, table + 31); }),
            prefix + "chunk 3 starts at byte " + std::to_string(table + 31) +
                ", outside the chunks (bytes " + std::to_string(table + 32) + " to " +
                std::to_string(good.size()) + ")");
  EXPECT_EQ(message([&](std::string& b) { put_i32(b, u64_at(b, table + 8), 0); }),
            prefix + "chunk 1 holds line 0, not 1");
  EXPECT_EQ(message([&](std::string& b) { put_i32(b, u64_at(b, table) + 4, 13); }),
            prefix + "chunk 0 holds 13 bytes; its lines take 12");
  EXPECT_EQ(message([&](std::string& b) { put_i32(b, u64_at(b, table) + 4, 11); }),
            prefix + "chunk 0 holds 11 bytes, not 12");
  EXPECT_EQ(message([&](std::string& b) { put_i32(b, u64_at(b, table) + 4, -1); }),
            prefix + "chunk 0 holds -1 bytes; its lines take 12");
  EXPECT_EQ(message([&](std::string& b) { b[0] = 'x'; }),
            prefix + "the file does not start with the OpenEXR magic number");
  EXPECT_EQ(message([&](std::string& b) { b[5] = 2; }), prefix + "tiled files are not supported");
  EXPECT_EQ(message([&](std::string& b) { b[5] = 8; }), prefix + "deep data is not supported");
  EXPECT_EQ(message([&](std::string& b) { b[5] = 16; }),
            prefix + "multi-part files are not supported");
  EXPECT_EQ(message([&](std::string& b) { b[window - 12] = 'X'; }),
            prefix + "the header has no dataWindow attribute");
  EXPECT_EQ(
      message([&](std::string& b) { b[attribute_value(b, "compression", "compression")] = 10; }),
      prefix + "unknown compression 10");
  EXPECT_EQ(message([&](std::string& b) { b.resize(table - 1); }),
            prefix + "the file ends inside an attribute name");

  // Chunks in any order in the file: the offset table finds each line.
  std::string shuffled = good.substr(0, table + 32);
  shuffled[attribute_value(good, "lineOrder", "lineOrder")] = 2;
  for (const std::size_t y : {2u, 0u, 3u, 1u}) {
    put_u64(shuffled, table + 8 * y, shuffled.size());
    shuffled += good.substr(table + 32 + y * 20, 20);
  }
  write_text_file(path, shuffled);
  EXPECT_EQ(read_exr(path).data, read_exr(source).data);
}

TEST(ExrReader, DamagedZipDataAndBombsAreRefused) {
  test::ScratchDir dir;
  const fs::path path = dir / "zip.exr";
  // One column of 2048 equal halves: 128 ZIP chunks of a few bytes each.
  const std::vector<ChannelSpec> grey = {{"Y", Imf::HALF}};
  std::vector<std::vector<std::uint32_t>> planes = {std::vector<std::uint32_t>(2048, 0x3c00u)};
  write_with_openexr(path, Imath::Box2i({0, 0}, {0, 2047}), grey, planes, Imf::ZIP_COMPRESSION);
  const std::string good = read_text_file(path);
  const std::string prefix = path.string() + ": EXR: ";
  EXPECT_EQ(read_exr(path).data.size(), 4096u);

  std::string wide = good;
  put_i32(wide, attribute_value(good, "dataWindow", "box2i") + 8, 16383);
  write_text_file(path, wide);
  EXPECT_EQ(test::message_of([&] { read_exr(path); }),
            prefix + "a file of " + std::to_string(good.size()) +
                " bytes cannot hold 16384 x 2048 texels of 32768 bytes a line in ZIP compression");

  // The offset table: the first entry points just past the table itself.
  std::size_t table = 8;
  while (table + 8 <= good.size() && u64_at(good, table) != table + 8 * 128) {
    ++table;
  }
  ASSERT_LT(table + 8, good.size());
  const auto chunk = static_cast<std::size_t>(u64_at(good, table));
  std::int32_t packed = 0;
  std::memcpy(&packed, good.data() + chunk + 4, 4);
  ASSERT_LT(packed, 32);  // 16 lines of one half each, packed
  std::string damaged = good;
  damaged[chunk + 8 + static_cast<std::size_t>(packed) - 1] ^= 0x5a;  // the stream's checksum
  write_text_file(path, damaged);
  EXPECT_EQ(test::message_of([&] { read_exr(path); }),
            prefix + "chunk 0: the ZIP data does not unpack to 32 bytes");
}

// Reads every variant; anything but success or the program's own errors
// fails the test (and the sanitizer build watches every byte touched).
std::size_t read_variants(const fs::path& path, const std::vector<std::string>& variants) {
  std::size_t failures = 0;
  for (std::size_t v = 0; v < variants.size(); ++v) {
    write_text_file(path, variants[v]);
    try {
      const TexelImage image = read_exr(path);
      EXPECT_EQ(image.data.size(), image.expected_bytes()) << v;
    } catch (const Error&) {
      ++failures;
    } catch (const std::exception& e) {
      ADD_FAILURE() << "variant " << v << ": " << e.what();
    }
  }
  return failures;
}

TEST(ExrReader, TruncatedAndCorruptedFilesOnlyEverFail) {
  // Thousands of small files: kept in a memory file system when there is one.
  std::optional<test::ScopedEnv> in_memory;
  if (fs::is_directory("/dev/shm")) {
    in_memory.emplace("TMPDIR", "/dev/shm");
  }
  test::ScratchDir dir;
  const fs::path path = dir / "variant.exr";
  const Imath::Box2i window({0, 0}, {6, 17});
  const std::vector<ChannelSpec> mixed = {
      {"A", Imf::FLOAT}, {"B", Imf::HALF}, {"G", Imf::HALF}, {"R", Imf::HALF}};
  std::mt19937 random(2024);
  for (const Imf::Compression compression :
       {Imf::NO_COMPRESSION, Imf::RLE_COMPRESSION, Imf::ZIPS_COMPRESSION, Imf::ZIP_COMPRESSION}) {
    auto planes = test_values(7, 18, mixed, 4);
    write_with_openexr(path, window, mixed, planes, compression);
    const std::string good = read_text_file(path);
    std::vector<std::string> prefixes;
    for (std::size_t length = 0; length < good.size(); ++length) {
      prefixes.push_back(good.substr(0, length));
    }
    // A cut file always lacks bytes that some chunk needs.
    EXPECT_EQ(read_variants(path, prefixes), prefixes.size()) << compression;
    std::vector<std::string> flipped;
    for (int v = 0; v < 1000; ++v) {
      std::string bytes = good;
      const int flips = 1 + static_cast<int>(random() % 3);
      for (int f = 0; f < flips; ++f) {
        bytes[random() % bytes.size()] ^= static_cast<char>(1 + random() % 255);
      }
      flipped.push_back(std::move(bytes));
    }
    EXPECT_GT(read_variants(path, flipped), 0u) << compression;
  }
}

TEST(ExrReader, RunningOutOfMemoryNamesTheFile) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer's allocator ends the process instead of failing the allocation";
#endif
  // A flat 4096 x 4096 RGB map in ZIP chunks: a small file of 96 MiB of halves.
  test::ScratchDir dir;
  const fs::path path = dir / "flat.exr";
  const std::vector<ChannelSpec> rgb = {{"B", Imf::HALF}, {"G", Imf::HALF}, {"R", Imf::HALF}};
  std::vector<std::vector<std::uint32_t>> planes(3,
                                                 std::vector<std::uint32_t>(4096 * 4096, 0x3800u));
  write_with_openexr(path, Imath::Box2i({0, 0}, {4095, 4095}), rgb, planes, Imf::ZIP_COMPRESSION);
  planes.clear();
  {
    const test::AddressSpaceLimit limit(std::uint64_t{8} << 20);
    ASSERT_TRUE(limit.applied());
    EXPECT_EQ(test::message_of<OutOfMemory>([&] { read_exr(path); }),
              path.string() + ": EXR: out of memory while reading the image");
  }
  const TexelImage image = read_exr(path);
  EXPECT_EQ(sample_bits(image, image.data.size() / 2 - 1), 0x3800u);
}

}  // namespace
}  // namespace kv
