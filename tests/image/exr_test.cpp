// The EXR writer and the half conversion, checked through the OpenEXR
// library as an independent reader.
#include <gtest/gtest.h>

#include <Imath/half.h>
#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfFrameBuffer.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfInputFile.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <map>
#include <thread>
#include <tuple>

#include "image/exr.h"
#include "image/half.h"
#include "image_test_util.h"
#include "support/test_support.h"

namespace kv {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using test::error_of;
using test::list_names;
using test::random_codes;
using test::read_text_file;

float value_of(std::uint16_t code) {
  return static_cast<float>(static_cast<double>(code) / 65535.0);
}
float value_of(float sample) {
  return sample;
}

// Bits the file should hold for a value, converted by the reader's own half.
std::uint32_t expected_bits(float value, int pixel_type) {
  return pixel_type == kExrFloat ? std::bit_cast<std::uint32_t>(value) : half(value).bits();
}

// Reads the file back through the OpenEXR library (which also checks every
// chunk's line number) and compares each channel's value bits (half or float
// as the pixel type asks) with the interleaved codes or float samples.
template <typename Sample>
void expect_file_holds(const fs::path& path, int width, int height, int channels,
                       const std::vector<Sample>& samples, int pixel_type) {
  Imf::InputFile file(path.c_str());
  ASSERT_TRUE(file.header().dataWindow() == Imath::Box2i({0, 0}, {width - 1, height - 1})) << path;
  std::map<std::string, std::vector<std::uint32_t>> bits;
  Imf::FrameBuffer frame;
  for (auto it = file.header().channels().begin(); it != file.header().channels().end(); ++it) {
    auto& slot = bits[it.name()];
    slot.assign(static_cast<std::size_t>(width) * height, 0);
    // Half values land in the low two bytes of their zeroed 32-bit slots.
    frame.insert(it.name(), Imf::Slice(it.channel().type, reinterpret_cast<char*>(slot.data()), 4,
                                       4 * static_cast<std::size_t>(width)));
  }
  ASSERT_EQ(bits.size(), static_cast<std::size_t>(channels)) << path;
  file.setFrameBuffer(frame);
  file.readPixels(0, height - 1);
  for (int c = 0; c < channels; ++c) {
    const std::string name = channels == 1 ? "Y" : std::string(1, "RGBA"[c]);
    const std::vector<std::uint32_t>& values = bits.at(name);
    std::size_t mismatches = 0;
    for (std::size_t t = 0; t < values.size(); ++t) {
      const float value = value_of(samples[t * static_cast<std::size_t>(channels) + c]);
      mismatches += values[t] != expected_bits(value, pixel_type) ? 1 : 0;
    }
    EXPECT_EQ(mismatches, 0u) << path << " channel " << name;
  }
}

TEST(ExrWriter, ByteLayoutChannelCountsPixelTypesAndCodeTables) {
  test::ScratchDir dir;
  // Two texels per line, two lines, R G B interleaved.
  const std::vector<std::uint16_t> codes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  writeExr(dir / "small.exr", 2, 2, 3, codes, kExrFloat);
  const std::string bytes = read_text_file(dir / "small.exr");

  // Worked out by hand: magic and version, the attributes in name order and
  // the header's zero byte (313 bytes), then the offsets of the two lines.
  const std::string channel = "\0\x02\0\0\0\0\0\0\0\x01\0\0\0\x01\0\0\0"s;
  const std::string box = "\0\0\0\0\0\0\0\0\x01\0\0\0\x01\0\0\0"s;
  const std::string one = "\0\0\x80\x3f"s;
  const std::string expected =
      "\x76\x2f\x31\x01\x02\0\0\0channels\0chlist\0\x37\0\0\0B"s + channel + "G" + channel + "R" +
      channel + "\0compression\0compression\0\x01\0\0\0\0"s + "dataWindow\0box2i\0\x10\0\0\0"s +
      box + "displayWindow\0box2i\0\x10\0\0\0"s + box + "lineOrder\0lineOrder\0\x01\0\0\0\0"s +
      "pixelAspectRatio\0float\0\x04\0\0\0"s + one + "screenWindowCenter\0v2f\0\x08\0\0\0"s +
      std::string(8, '\0') + "screenWindowWidth\0float\0\x04\0\0\0"s + one +
      "\0\x49\x01\0\0\0\0\0\0\x69\x01\0\0\0\0\0\0"s;
  ASSERT_EQ(bytes.size(), 329u + 2 * (8 + 24));
  // Each chunk starts with its line and byte size (the reader accepts a
  // smaller size).
  EXPECT_EQ(bytes.substr(0, 337) + bytes.substr(361, 8),
            expected + "\0\0\0\0\x18\0\0\0\x01\0\0\0\x18\0\0\0"s);
  expect_file_holds(dir / "small.exr", 2, 2, 3, codes, kExrFloat);

  for (int channels : {1, 3, 4}) {
    for (int type : {kExrHalf, kExrFloat}) {
      const fs::path path = dir / ("map" + std::to_string(channels) + std::to_string(type));
      const std::vector<std::uint16_t> map = random_codes(7 * 5 * channels, channels + 10 * type);
      writeExr(path, 7, 5, channels, map, type);
      const std::string file = read_text_file(path);
      // The channel list in file order (the reader sorts it itself), 18 bytes
      // a channel; the reader checks the rest.
      const std::string order = channels == 1 ? "Y" : channels == 3 ? "BGR" : "ABGR";
      for (int k = 0; k < channels; ++k) {
        EXPECT_EQ(file.substr(28 + 18 * k, 2), order.substr(k, 1) + '\0') << path;
      }
      expect_file_holds(path, 7, 5, channels, map, type);
    }
  }

  // Every code's half agrees with the reader's own conversion (the floats are
  // checked through the files); white is exactly one.
  const std::uint16_t* halves = exr_code_halves();
  EXPECT_EQ(exr_code_floats()[65535], 1.0f);
  EXPECT_EQ(halves[65535], 0x3c00u);
  for (std::uint32_t c = 0; c < 65536; ++c) {
    ASSERT_EQ(halves[c], half(value_of(static_cast<std::uint16_t>(c))).bits()) << c;
  }
}

TEST(ExrWriter, ChunkBuffersSplitAtWholeLinesOnAnyThreadCount) {
  test::ScratchDir dir;
  // 262 lines of 16008 bytes fit in one 4 MiB buffer: 600 lines need three,
  // the last one short, each filled on the worker threads.
  const std::vector<std::uint16_t> codes = random_codes(1000 * 600 * 4, 5);
  std::vector<float> samples(codes.size());
  for (std::size_t i = 0; i < samples.size(); ++i) {
    samples[i] = static_cast<float>(codes[i]) * 0.001f - 20.0f;
  }
  for (int threads : {1, 2}) {
    const std::string n = std::to_string(threads);
    writeExr(dir / ("codes" + n), 1000, 600, 4, codes, kExrFloat, threads);
    writeExrFloat(dir / ("floats" + n), 1000, 600, 4, samples.data(), samples.size(), kExrHalf,
                  threads);
  }
  expect_file_holds(dir / "codes2", 1000, 600, 4, codes, kExrFloat);
  EXPECT_TRUE(read_text_file(dir / "codes1") == read_text_file(dir / "codes2"));
  EXPECT_TRUE(read_text_file(dir / "floats1") == read_text_file(dir / "floats2"));

  // One line larger than a buffer is written on its own.
  const std::vector<std::uint16_t> wide = random_codes(1100000 * 2, 6);
  writeExr(dir / "wide.exr", 1100000, 2, 1, wide, kExrFloat);
  expect_file_holds(dir / "wide.exr", 1100000, 2, 1, wide, kExrFloat);

  // A tall map whose offset table alone is larger than a buffer. The reader
  // reads lines in turn without the table, so the table is checked here: one
  // channel, a header of 277 bytes.
  const std::vector<std::uint16_t> tall = random_codes(600000, 8);
  writeExr(dir / "tall.exr", 1, 600000, 1, tall, kExrHalf);
  expect_file_holds(dir / "tall.exr", 1, 600000, 1, tall, kExrHalf);
  const std::string tall_bytes = read_text_file(dir / "tall.exr");
  ASSERT_EQ(tall_bytes.size(), 277 + 600000 * 8 + 600000 * 10u);
  std::vector<std::uint64_t> table(600000);
  std::memcpy(table.data(), tall_bytes.data() + 277, 8 * table.size());
  std::size_t wrong = 0;
  for (std::uint64_t y = 0; y < 600000; ++y) {
    wrong += table[y] != 277 + 600000 * 8 + y * 10 ? 1 : 0;
  }
  EXPECT_EQ(wrong, 0u);
}

TEST(ExrWriter, ValidationReasonsInOrder) {
  test::ScratchDir dir;
  const std::vector<std::uint16_t> codes(12);
  const fs::path out = dir / "out.exr";
  const std::string channels = "the channel count must be 1 (Y), 3 (R, G, B) or 4 (R, G, B, A)";
  // Path, width, height, channels, code count, pixel type and the reason.
  const std::vector<std::tuple<fs::path, int, int, int, std::size_t, int, std::string>> cases = {
      {"", 0, 0, 0, 0, 9, "the output path is empty"},
      {dir.path().string() + "/", 0, 0, 0, 0, 9, "the output path has no file name"},
      {"maps\\", 2, 2, 3, 12, 1, "the output path has no file name"},
      {out, 0, 5, 0, 0, 9, "width and height must be positive, got 0 x 5"},
      {out, 3, -1, 3, 0, 1, "width and height must be positive, got 3 x -1"},
      {out, 2, 2, 2, 12, 9, channels + ", got 2"},
      {out, 2, 2, 3, 12, 2, "unknown pixel type 2"},
      {out, 2, 2, 3, 12, -1, "unknown pixel type -1"},
      {out, 600000000, 1, 4, 12, kExrFloat,
       "one scanline would need 9600000000 bytes, more than an EXR chunk can hold (2147483647)"},
      // The same width in half fits a chunk and fails on the count instead.
      {out, 268435455, 1, 4, 12, kExrHalf,
       "the map holds 12 codes, but 268435455 x 1 x 4 needs 1073741820"},
      {out, 2, 2, 3, 11, kExrFloat, "the map holds 11 codes, but 2 x 2 x 3 needs 12"},
  };
  for (const auto& [path, w, h, c, n, type, reason] : cases) {
    EXPECT_EQ(error_of([&] { writeExr(path, w, h, c, std::span(codes.data(), n), type); }),
              "Cannot write EXR " + path.string() + ": " + reason);
  }
  EXPECT_TRUE(list_names(dir.path()).empty());
}

TEST(ExrWriter, FloatSamplesAndTheirChecks) {
  test::ScratchDir dir;
  const fs::path out = dir / "float.exr";
  std::vector<float> samples(3 * 50 * 40);
  for (std::size_t i = 0; i < samples.size(); ++i) {
    samples[i] = (static_cast<float>(i) - 2000.0f) * 37.25f;  // beyond [0, 1] and half range
  }
  samples[7] = 1e-6f;  // a half subnormal
  samples[8] = -0.0f;
  for (int type : {kExrFloat, kExrHalf}) {
    writeExrFloat(out, 50, 40, 3, samples.data(), samples.size(), type);
    expect_file_holds(out, 50, 40, 3, samples, type);
  }

  const auto write = [&](const std::vector<float>& data, int w, int c) {
    const int h = static_cast<int>(data.size()) / w / c;
    return error_of([&] { writeExrFloat(out, w, h, c, data.data(), data.size(), kExrHalf); });
  };
  const std::string head = "Cannot write EXR " + out.string() + ": ";
  const auto bad = [&](const std::string& what) {
    return head + "the sample at " + what + "; only finite values can be written";
  };
  EXPECT_EQ(error_of([&] { writeExrFloat(out, 50, 40, 3, nullptr, samples.size(), kExrHalf); }),
            head + "the sample pointer is null");
  test::write_text_file(out, "old");
  // An infinity is reported before a NaN in a later block; index
  // 3 * (50 * 30 + 7) + 2 is texel (7, 30), blue.
  const float inf = std::numeric_limits<float>::infinity();
  samples[3 * (50 * 30 + 7) + 2] = -inf;
  samples[samples.size() - 1] = std::numeric_limits<float>::quiet_NaN();
  EXPECT_EQ(write(samples, 50, 3), bad("x 7, y 30, channel B is infinite"));
  samples[3 * (50 * 30 + 7) + 2] = 0.5f;
  EXPECT_EQ(write(samples, 50, 3), bad("x 49, y 39, channel B is NaN"));
  // Non-finite samples at the first index of a block of 4096, then also at
  // the last index of the block before.
  std::vector<float> grey(4096 * 2, 0.25f);
  for (const auto& [index, where] : {std::pair{4096, "x 0, y 64"}, std::pair{4095, "x 63, y 63"}}) {
    grey[index] = std::numeric_limits<float>::signaling_NaN();
    EXPECT_EQ(write(grey, 64, 1), bad(where + ", channel Y is NaN"s));
  }
  std::vector<float> rgba(4 * 3, 0.0f);
  rgba[4 * 2 + 3] = inf;
  EXPECT_EQ(write(rgba, 3, 4), bad("x 2, y 0, channel A is infinite"));
  EXPECT_EQ(read_text_file(out), "old");
  EXPECT_EQ(list_names(dir.path()), std::vector<std::string>{"float.exr"});
}

TEST(HalfConversion, AgreesWithTheReaderEverywhere) {
  std::mt19937 random(3);
  std::vector<std::uint32_t> patterns = {
      0x00000000u, 0x80000000u, 0x7f800000u, 0xff800000u, 0x7fc00000u, 0x477fe000u, 0x477fefffu,
      0x477ff000u, 0x38800000u, 0x387fffffu, 0x33000000u, 0x33000001u, 0x337fffffu, 0x32ffffffu,
      0x3f800000u, 0x3f801000u, 0x3f803000u, 0x3f802fffu, 0xc77fefffu, 0x38001000u};
  for (int i = 0; i < 2900000; ++i) {
    const auto bits = static_cast<std::uint32_t>(random());
    // Every other pattern dense around the half range.
    const auto exponent = static_cast<std::uint32_t>(100 + random() % 45);
    patterns.push_back(i % 2 == 0 ? bits : (exponent << 23) | (bits & 0x807fffffu));
  }
  for (std::uint32_t bits : patterns) {
    // NaN payloads may differ; NaN must stay NaN.
    const half theirs(std::bit_cast<float>(bits));
    const half ours(half::FromBits, float_to_half_bits(std::bit_cast<float>(bits)));
    ASSERT_TRUE(ours.bits() == theirs.bits() || (ours.isNan() && theirs.isNan()))
        << std::hex << bits << " " << ours.bits() << " " << theirs.bits();
  }
}

TEST(ExrWriter, TargetsAndTheirFolders) {
  test::ScratchDir dir;
  const std::vector<std::uint16_t> codes{1, 2, 3};
  const auto write = [&](const fs::path& path) {
    return error_of([&] { writeExr(path, 1, 1, 3, codes, kExrFloat); });
  };
  const auto written = [&](const fs::path& path) {
    EXPECT_EQ(write(path), "(no error)");
    expect_file_holds(path.is_absolute() ? path : dir.path() / path, 1, 1, 3, codes, kExrFloat);
  };
  const fs::path folder = dir / "taken.exr";
  fs::create_directory(folder);
  EXPECT_EQ(write(folder),
            "Cannot write EXR " + folder.string() + ": a folder with this name exists");

  // Read-only means no write permission bit; that holds for root as well.
  const fs::path locked = dir / "locked.exr";
  test::write_text_file(locked, "previous map");
  fs::permissions(locked, fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
  EXPECT_EQ(write(locked),
            "Cannot write EXR " + locked.string() + ": the existing file is read-only");
  EXPECT_EQ(read_text_file(locked), "previous map");
  // Any write bit makes the file writable, and it is replaced.
  fs::permissions(locked, fs::perms::group_write, fs::perm_options::add);
  written(locked);
  EXPECT_EQ(list_names(dir.path()), (std::vector<std::string>{"locked.exr", "taken.exr"}));

  // A file where a parent folder should be.
  const fs::path blocked = locked / "inner" / "map.exr";
  EXPECT_EQ(write(blocked), "Cannot write EXR " + blocked.string() +
                                ": could not create the folder " + (locked / "inner").string() +
                                ": Not a directory");

  // Missing parent folders are created; a bare name has none to create.
  written(dir / "a" / "b" / "map.exr");
  const fs::path previous = fs::current_path();
  fs::current_path(dir.path());
  written("plain.exr");
  fs::current_path(previous);
}

TEST(ExrWriter, ConcurrentWritersDoNotMix) {
  test::ScratchDir dir;
  std::vector<std::vector<std::uint16_t>> maps(6);
  const auto own = [&](unsigned i) { return dir / ("own" + std::to_string(i)); };
  {
    std::vector<std::jthread> threads;  // joined at the end of the block
    for (unsigned i = 0; i < 6; ++i) {
      // Each writes its own file, then one target shared by all: the last to
      // commit wins whole.
      threads.emplace_back([&, i] {
        maps[i] = random_codes(300 * 200 * 3, 100 + i);
        writeExr(own(i), 300, 200, 3, maps[i], i % 2 ? kExrHalf : kExrFloat);
        writeExr(dir / "shared", 300, 200, 3, maps[i], i % 2 ? kExrHalf : kExrFloat);
      });
    }
  }
  int matches = 0;
  for (unsigned i = 0; i < 6; ++i) {
    expect_file_holds(own(i), 300, 200, 3, maps[i], i % 2 ? kExrHalf : kExrFloat);
    matches += read_text_file(own(i)) == read_text_file(dir / "shared") ? 1 : 0;
  }
  EXPECT_EQ(matches, 1);
  EXPECT_EQ(list_names(dir.path()).size(), 7u);
}

}  // namespace
}  // namespace kv
