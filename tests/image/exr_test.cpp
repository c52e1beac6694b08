#include "image/exr.h"

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
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "image/half.h"
#include "image/image_test_util.h"

namespace kv {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using test::error_of;
using test::random_codes;

// A file read back through the OpenEXR library: each channel's type and raw
// value bits, rows top first.
struct ExrContents {
  int width = 0;
  int height = 0;
  std::vector<Imf::PixelType> types;
  std::map<std::string, std::vector<std::uint32_t>> bits;
};

ExrContents read_exr(const fs::path& path) {
  Imf::InputFile file(path.c_str());
  const Imath::Box2i window = file.header().dataWindow();
  ExrContents contents;
  contents.width = window.max.x - window.min.x + 1;
  contents.height = window.max.y - window.min.y + 1;
  Imf::FrameBuffer frame;
  for (auto it = file.header().channels().begin(); it != file.header().channels().end(); ++it) {
    contents.types.push_back(it.channel().type);
    auto& bits = contents.bits[it.name()];
    bits.assign(static_cast<std::size_t>(contents.width) * contents.height, 0);
    // Half values land in the low two bytes of their zeroed 32-bit slots.
    frame.insert(it.name(), Imf::Slice(it.channel().type, reinterpret_cast<char*>(bits.data()), 4,
                                       4 * static_cast<std::size_t>(contents.width)));
  }
  file.setFrameBuffer(frame);
  file.readPixels(window.min.y, window.max.y);
  return contents;
}

float code_value(std::uint16_t code) {
  return static_cast<float>(static_cast<double>(code) / 65535.0);
}

// Bits the file should hold for a value, converted by the reader's own half.
std::uint32_t expected_bits(float value, int pixel_type) {
  return pixel_type == kExrFloat ? std::bit_cast<std::uint32_t>(value) : half(value).bits();
}

// Compares every value of a code map with what the reader finds in the file.
void expect_codes_in_file(const fs::path& path, int width, int height, int channels,
                          const std::vector<std::uint16_t>& codes, int pixel_type) {
  const ExrContents file = read_exr(path);
  ASSERT_EQ(file.width, width);
  ASSERT_EQ(file.height, height);
  EXPECT_EQ(file.types, std::vector<Imf::PixelType>(
                            channels, pixel_type == kExrFloat ? Imf::FLOAT : Imf::HALF));
  for (int c = 0; c < channels; ++c) {
    const std::string name = channels == 1 ? "Y" : std::string(1, "RGBA"[c]);
    ASSERT_EQ(file.bits.count(name), 1u) << name;
    const auto& values = file.bits.at(name);
    std::size_t mismatches = 0;
    for (std::size_t t = 0; t < values.size(); ++t) {
      const std::uint16_t code = codes[t * static_cast<std::size_t>(channels) + c];
      mismatches += values[t] != expected_bits(code_value(code), pixel_type) ? 1 : 0;
    }
    EXPECT_EQ(mismatches, 0u) << "channel " << name;
  }
}

template <typename T>
T value_at(const std::string& bytes, std::size_t offset) {
  T value{};
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

TEST(ExrWriter, ByteLayoutOfASmallRgbFile) {
  test::ScratchDir dir;
  // Two texels per line, two lines, R G B interleaved.
  const std::vector<std::uint16_t> codes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  writeExr(dir / "small.exr", 2, 2, 3, codes, kExrFloat);
  const std::string bytes = test::read_text_file(dir / "small.exr");

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
  ASSERT_EQ(expected.size(), 329u);
  ASSERT_EQ(bytes.size(), 329u + 2 * (8 + 24));
  EXPECT_EQ(bytes.substr(0, 329), expected);

  // Each chunk starts with its line and byte size; the reader checks the values.
  for (std::uint32_t y = 0; y < 2; ++y) {
    EXPECT_EQ(value_at<std::uint32_t>(bytes, 329 + 32 * y), y);
    EXPECT_EQ(value_at<std::uint32_t>(bytes, 333 + 32 * y), 24u);
  }
  expect_codes_in_file(dir / "small.exr", 2, 2, 3, codes, kExrFloat);
}

TEST(ExrWriter, ChannelCountsPixelTypesAndCodeTables) {
  test::ScratchDir dir;
  for (int channels : {1, 3, 4}) {
    for (int type : {kExrHalf, kExrFloat}) {
      const fs::path path = dir / ("map" + std::to_string(channels) + std::to_string(type));
      const std::vector<std::uint16_t> codes = random_codes(7 * 5 * channels, channels + 10 * type);
      writeExr(path, 7, 5, channels, codes, type);
      const std::string bytes = test::read_text_file(path);
      // The channel list in file order: 18 bytes a channel, then its end.
      EXPECT_EQ(value_at<std::uint32_t>(bytes, 24), 18u * channels + 1) << path;
      const std::string order = channels == 1 ? "Y" : channels == 3 ? "BGR" : "ABGR";
      for (int k = 0; k < channels; ++k) {
        EXPECT_EQ(bytes.substr(28 + 18 * k, 2), order.substr(k, 1) + '\0') << path;
        EXPECT_EQ(value_at<std::uint32_t>(bytes, 30 + 18 * k), type == kExrFloat ? 2u : 1u);
      }
      const std::size_t header = 259 + 18 * channels;
      const std::size_t chunk = 8 + 7 * channels * (type == kExrFloat ? 4 : 2);
      for (std::size_t y = 0; y < 5; ++y) {
        EXPECT_EQ(value_at<std::uint64_t>(bytes, header + 8 * y), header + 40 + y * chunk) << path;
      }
      EXPECT_EQ(bytes.size(), header + 40 + 5 * chunk) << path;
      expect_codes_in_file(path, 7, 5, channels, codes, type);
    }
  }

  // Every code agrees with the reader's own conversion; white is exactly one.
  const float* floats = exr_code_floats();
  const std::uint16_t* halves = exr_code_halves();
  EXPECT_EQ(floats[65535], 1.0f);
  EXPECT_EQ(halves[65535], 0x3c00u);
  for (std::uint32_t c = 0; c < 65536; ++c) {
    const float value = code_value(static_cast<std::uint16_t>(c));
    ASSERT_EQ(std::bit_cast<std::uint32_t>(floats[c]), std::bit_cast<std::uint32_t>(value)) << c;
    ASSERT_EQ(halves[c], half(value).bits()) << c;
  }
}

TEST(ExrWriter, ChunkBuffersSplitAtWholeLines) {
  test::ScratchDir dir;
  // 262 lines of 16008 bytes fit in one 4 MiB buffer: 600 lines need three,
  // the last one short.
  const std::vector<std::uint16_t> codes = random_codes(1000 * 600 * 4, 5);
  writeExr(dir / "buffers.exr", 1000, 600, 4, codes, kExrFloat, 2);
  expect_codes_in_file(dir / "buffers.exr", 1000, 600, 4, codes, kExrFloat);
  const std::string bytes = test::read_text_file(dir / "buffers.exr");
  writeExr(dir / "one_thread.exr", 1000, 600, 4, codes, kExrFloat, 1);
  EXPECT_TRUE(test::read_text_file(dir / "one_thread.exr") == bytes);
  std::vector<float> samples(codes.size());
  for (std::size_t i = 0; i < samples.size(); ++i) {
    samples[i] = static_cast<float>(codes[i]) * 0.001f - 20.0f;
  }
  writeExrFloat(dir / "float1.exr", 1000, 600, 4, samples.data(), samples.size(), kExrHalf, 1);
  writeExrFloat(dir / "float2.exr", 1000, 600, 4, samples.data(), samples.size(), kExrHalf, 2);
  EXPECT_TRUE(test::read_text_file(dir / "float1.exr") == test::read_text_file(dir / "float2.exr"));
  EXPECT_EQ(bytes.size(), 331u + 600 * 8 + 600 * 16008u);
  for (std::uint32_t y = 0; y < 600; ++y) {
    const auto offset = value_at<std::uint64_t>(bytes, 331 + 8 * y);
    ASSERT_EQ(offset, 331u + 4800u + y * 16008u);
    ASSERT_EQ(value_at<std::uint32_t>(bytes, offset), y);
    ASSERT_EQ(value_at<std::uint32_t>(bytes, offset + 4), 16000u);
  }

  // One line larger than a buffer is written on its own.
  const std::vector<std::uint16_t> wide = random_codes(1100000 * 2, 6);
  writeExr(dir / "wide.exr", 1100000, 2, 1, wide, kExrFloat);
  expect_codes_in_file(dir / "wide.exr", 1100000, 2, 1, wide, kExrFloat);

  // A tall map whose offset table alone is larger than a buffer.
  const std::vector<std::uint16_t> tall = random_codes(600000, 8);
  writeExr(dir / "tall.exr", 1, 600000, 1, tall, kExrHalf);
  expect_codes_in_file(dir / "tall.exr", 1, 600000, 1, tall, kExrHalf);
  // The reader reads lines in turn without the table, so the table is checked
  // here: one channel, a header of 277 bytes.
  const std::string tall_bytes = test::read_text_file(dir / "tall.exr");
  ASSERT_EQ(tall_bytes.size(), 277 + 600000 * 8 + 600000 * 10u);
  std::size_t wrong = 0;
  for (std::uint64_t y = 0; y < 600000; ++y) {
    wrong += value_at<std::uint64_t>(tall_bytes, 277 + 8 * y) != 277 + 600000 * 8 + y * 10 ? 1 : 0;
  }
  EXPECT_EQ(wrong, 0u);
}

TEST(ExrWriter, ValidationReasonsInOrder) {
  test::ScratchDir dir;
  const std::vector<std::uint16_t> codes(12);
  const auto write = [&](const fs::path& path, int w, int h, int c, std::size_t n, int type) {
    return error_of(
        [&] { writeExr(path, w, h, c, std::span<const std::uint16_t>(codes.data(), n), type); });
  };
  const fs::path out = dir / "out.exr";
  const std::string head = "Cannot write EXR " + out.string() + ": ";
  EXPECT_EQ(write("", 0, 0, 0, 0, 9), "Cannot write EXR : the output path is empty");
  EXPECT_EQ(write(dir.path().string() + "/", 0, 0, 0, 0, 9),
            "Cannot write EXR " + dir.path().string() + "/: the output path has no file name");
  EXPECT_EQ(write("maps\\", 2, 2, 3, 12, 1),
            "Cannot write EXR maps\\: the output path has no file name");
  EXPECT_EQ(write(out, 0, 5, 0, 0, 9), head + "width and height must be positive, got 0 x 5");
  EXPECT_EQ(write(out, 3, -1, 3, 0, 1), head + "width and height must be positive, got 3 x -1");
  EXPECT_EQ(write(out, 2, 2, 2, 12, 9),
            head + "the channel count must be 1 (Y), 3 (R, G, B) or 4 (R, G, B, A), got 2");
  EXPECT_EQ(write(out, 2, 2, 3, 12, 2), head + "unknown pixel type 2");
  EXPECT_EQ(write(out, 2, 2, 3, 12, -1), head + "unknown pixel type -1");
  EXPECT_EQ(write(out, 600000000, 1, 4, 12, kExrFloat),
            head +
                "one scanline would need 9600000000 bytes, more than an EXR chunk can hold "
                "(2147483647)");
  // The same width in half fits a chunk and fails on the count instead.
  EXPECT_EQ(write(out, 268435455, 1, 4, 12, kExrHalf),
            head + "the map holds 12 codes, but 268435455 x 1 x 4 needs 1073741820");
  EXPECT_EQ(write(out, 2, 2, 3, 11, kExrFloat),
            head + "the map holds 11 codes, but 2 x 2 x 3 needs 12");
  EXPECT_TRUE(test::list_names(dir.path()).empty());
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
    const ExrContents file = read_exr(out);
    ASSERT_EQ(file.bits.size(), 3u);
    for (std::size_t i = 0; i < samples.size(); ++i) {
      ASSERT_EQ(file.bits.at(std::string(1, "RGB"[i % 3]))[i / 3], expected_bits(samples[i], type))
          << "sample " << i << " type " << type;
    }
  }

  const std::string head = "Cannot write EXR " + out.string() + ": ";
  const auto write = [&](const float* data, int w, int h, int c, std::size_t n) {
    return error_of([&] { writeExrFloat(out, w, h, c, data, n, kExrHalf); });
  };
  EXPECT_EQ(write(nullptr, 50, 40, 3, samples.size()), head + "the sample pointer is null");
  test::write_text_file(out, "old");
  // An infinity is reported before a NaN in a later block;
  // index 3 * (50 * 30 + 7) + 2 is texel (7, 30), blue.
  const float inf = std::numeric_limits<float>::infinity();
  const std::string only_finite = "; only finite values can be written";
  samples[3 * (50 * 30 + 7) + 2] = -inf;
  samples[samples.size() - 1] = std::numeric_limits<float>::quiet_NaN();
  EXPECT_EQ(write(samples.data(), 50, 40, 3, samples.size()),
            head + "the sample at x 7, y 30, channel B is infinite" + only_finite);
  samples[3 * (50 * 30 + 7) + 2] = 0.5f;
  EXPECT_EQ(write(samples.data(), 50, 40, 3, samples.size()),
            head + "the sample at x 49, y 39, channel B is NaN" + only_finite);
  // Non-finite samples at the first index of a block of 4096, then also at
  // the last index of the block before.
  std::vector<float> grey(4096 * 2, 0.25f);
  for (const auto& [bad, where] : {std::pair{4096, "x 0, y 64"}, std::pair{4095, "x 63, y 63"}}) {
    grey[bad] = std::numeric_limits<float>::signaling_NaN();
    EXPECT_EQ(write(grey.data(), 64, 128, 1, grey.size()),
              head + "the sample at " + where + ", channel Y is NaN" + only_finite);
  }
  std::vector<float> rgba(4 * 3, 0.0f);
  rgba[4 * 2 + 3] = inf;
  EXPECT_EQ(write(rgba.data(), 3, 1, 4, rgba.size()),
            head + "the sample at x 2, y 0, channel A is infinite" + only_finite);
  EXPECT_EQ(test::read_text_file(out), "old");
  EXPECT_EQ(test::list_names(dir.path()), std::vector<std::string>{"float.exr"});
}

TEST(HalfConversion, AgreesWithTheReaderEverywhere) {
  std::mt19937 random(3);
  std::vector<std::uint32_t> patterns = {
      0x00000000u, 0x80000000u, 0x7f800000u, 0xff800000u, 0x7fc00000u, 0x477fe000u, 0x477fefffu,
      0x477ff000u, 0x38800000u, 0x387fffffu, 0x33000000u, 0x33000001u, 0x337fffffu, 0x32ffffffu,
      0x3f800000u, 0x3f801000u, 0x3f803000u, 0x3f802fffu, 0xc77fefffu, 0x38001000u};
  for (int i = 0; i < 2000000; ++i) {
    patterns.push_back(static_cast<std::uint32_t>(random()));
  }
  for (std::uint32_t e = 100; e < 145; ++e) {  // dense around the half range
    for (int i = 0; i < 20000; ++i) {
      patterns.push_back((e << 23) | (static_cast<std::uint32_t>(random()) & 0x807fffffu));
    }
  }
  for (std::uint32_t bits : patterns) {
    const float value = std::bit_cast<float>(bits);
    if (std::isnan(value)) {
      half h;
      h.setBits(float_to_half_bits(value));
      EXPECT_TRUE(h.isNan()) << std::hex << bits;
      continue;
    }
    ASSERT_EQ(float_to_half_bits(value), half(value).bits()) << std::hex << bits;
  }
}

TEST(ExrWriter, TargetsAndTheirFolders) {
  test::ScratchDir dir;
  const std::vector<std::uint16_t> codes{1, 2, 3};
  const auto write = [&](const fs::path& path) {
    return error_of([&] { writeExr(path, 1, 1, 3, codes, kExrFloat); });
  };
  const fs::path folder = dir / "taken.exr";
  fs::create_directory(folder);
  EXPECT_EQ(write(folder),
            "Cannot write EXR " + folder.string() + ": a folder with this name exists");
  EXPECT_TRUE(fs::is_empty(folder));

  // Read-only means no write permission bit; that holds for root as well.
  const fs::path locked = dir / "locked.exr";
  test::write_text_file(locked, "previous map");
  fs::permissions(locked, fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
  EXPECT_EQ(write(locked),
            "Cannot write EXR " + locked.string() + ": the existing file is read-only");
  EXPECT_EQ(test::read_text_file(locked), "previous map");
  // Any write bit makes the file writable, and it is replaced.
  fs::permissions(locked, fs::perms::group_write, fs::perm_options::add);
  EXPECT_EQ(write(locked), "(no error)");
  expect_codes_in_file(locked, 1, 1, 3, codes, kExrFloat);
  EXPECT_EQ(test::list_names(dir.path()), (std::vector<std::string>{"locked.exr", "taken.exr"}));

  // A file where a parent folder should be.
  const fs::path blocked = locked / "inner" / "map.exr";
  EXPECT_EQ(write(blocked), "Cannot write EXR " + blocked.string() +
                                ": could not create the folder " + (locked / "inner").string() +
                                ": Not a directory");

  // Missing parent folders are created; a bare name has none to create.
  const fs::path nested = dir / "a" / "b" / "map.exr";
  EXPECT_EQ(write(nested), "(no error)");
  expect_codes_in_file(nested, 1, 1, 3, codes, kExrFloat);
  const fs::path previous = fs::current_path();
  fs::current_path(dir.path());
  EXPECT_EQ(write("plain.exr"), "(no error)");
  fs::current_path(previous);
  expect_codes_in_file(dir / "plain.exr", 1, 1, 3, codes, kExrFloat);
}

TEST(ExrWriter, ConcurrentWritersDoNotMix) {
  test::ScratchDir dir;
  std::vector<std::vector<std::uint16_t>> maps;
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < 6; ++i) {
    maps.push_back(random_codes(300 * 200 * 3, 100 + i));
  }
  for (unsigned i = 0; i < 6; ++i) {
    // Each writes its own file, then one target shared by all: the last to
    // commit wins whole.
    threads.emplace_back([&, i] {
      writeExr(dir / ("own" + std::to_string(i)), 300, 200, 3, maps[i],
               i % 2 ? kExrHalf : kExrFloat);
      writeExr(dir / "shared", 300, 200, 3, maps[i], i % 2 ? kExrHalf : kExrFloat);
    });
  }
  for (auto& t : threads) {
    t.join();
  }
  const std::string shared = test::read_text_file(dir / "shared");
  int matches = 0;
  for (unsigned i = 0; i < 6; ++i) {
    const fs::path own = dir / ("own" + std::to_string(i));
    expect_codes_in_file(own, 300, 200, 3, maps[i], i % 2 ? kExrHalf : kExrFloat);
    matches += test::read_text_file(own) == shared ? 1 : 0;
  }
  EXPECT_EQ(matches, 1);
  EXPECT_EQ(test::list_names(dir.path()).size(), 7u);
}

TEST(ExrWriter, FailedWriteKeepsTheOldFile) {
  test::expect_failed_write_keeps_old_file([](const std::string& target) {
    const std::vector<std::uint16_t> codes = random_codes(512 * 512 * 3, 9);
    const std::string message = error_of([&] { writeExr(target, 512, 512, 3, codes, kExrFloat); });
    const std::string head = "Cannot write EXR " + target +
                             ": could not write the temporary file " + target + "." +
                             std::to_string(platform::process_id()) + "-";
    EXPECT_EQ(message.substr(0, head.size()), head) << message;
    EXPECT_TRUE(message.ends_with(".tmp: File too large")) << message;
  });
}

}  // namespace
}  // namespace kv
