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

#include "core/error.h"
#include "image/half.h"
#include "image/image_test_util.h"
#include "support/test_support.h"

namespace kv {
namespace {

namespace fs = std::filesystem;

// A file read back through the OpenEXR library: the channel names in the
// file's order and each channel's raw value bits, rows top first.
struct ExrContents {
  int width = 0;
  int height = 0;
  std::vector<std::string> names;
  std::vector<Imf::PixelType> types;
  std::map<std::string, std::vector<std::uint32_t>> bits;
};

ExrContents read_exr(const fs::path& path) {
  Imf::InputFile file(path.c_str());
  const Imath::Box2i window = file.header().dataWindow();
  ExrContents contents;
  contents.width = window.max.x - window.min.x + 1;
  contents.height = window.max.y - window.min.y + 1;
  const auto count = static_cast<std::size_t>(contents.width) * contents.height;
  std::map<std::string, std::vector<float>> floats;
  std::map<std::string, std::vector<std::uint16_t>> halves;
  Imf::FrameBuffer frame;
  for (auto it = file.header().channels().begin(); it != file.header().channels().end(); ++it) {
    const std::string name = it.name();
    contents.names.push_back(name);
    contents.types.push_back(it.channel().type);
    if (it.channel().type == Imf::FLOAT) {
      floats[name].assign(count, 0.0f);
      frame.insert(name, Imf::Slice(Imf::FLOAT, reinterpret_cast<char*>(floats[name].data()),
                                    sizeof(float), sizeof(float) * contents.width));
    } else {
      halves[name].assign(count, 0);
      frame.insert(name, Imf::Slice(Imf::HALF, reinterpret_cast<char*>(halves[name].data()),
                                    sizeof(std::uint16_t), sizeof(std::uint16_t) * contents.width));
    }
  }
  file.setFrameBuffer(frame);
  file.readPixels(window.min.y, window.max.y);
  for (const auto& [name, values] : floats) {
    for (float v : values) {
      contents.bits[name].push_back(std::bit_cast<std::uint32_t>(v));
    }
  }
  for (const auto& [name, values] : halves) {
    contents.bits[name].assign(values.begin(), values.end());
  }
  return contents;
}

float code_value(std::uint16_t code) {
  return static_cast<float>(static_cast<double>(code) / 65535.0);
}

// Bits the file should hold for a value, converted by the reader's own half.
std::uint32_t expected_bits(float value, int pixel_type) {
  if (pixel_type == kExrFloat) {
    return std::bit_cast<std::uint32_t>(value);
  }
  return half(value).bits();
}

std::vector<std::uint16_t> random_codes(std::size_t count, unsigned seed) {
  std::mt19937 random(seed);
  std::vector<std::uint16_t> codes(count);
  for (auto& c : codes) {
    c = static_cast<std::uint16_t>(random() & 0xffffu);
  }
  return codes;
}

// Compares every value of a code map with what the reader finds in the file.
void expect_codes_in_file(const fs::path& path, int width, int height, int channels,
                          const std::vector<std::uint16_t>& codes, int pixel_type) {
  const ExrContents file = read_exr(path);
  ASSERT_EQ(file.width, width);
  ASSERT_EQ(file.height, height);
  const char* names[] = {"R", "G", "B", "A"};
  for (int c = 0; c < channels; ++c) {
    const std::string name = channels == 1 ? "Y" : names[c];
    ASSERT_EQ(file.bits.count(name), 1u) << name;
    const auto& values = file.bits.at(name);
    std::size_t mismatches = 0;
    for (std::size_t t = 0; t < values.size(); ++t) {
      const std::uint16_t code = codes[t * static_cast<std::size_t>(channels) + c];
      if (values[t] != expected_bits(code_value(code), pixel_type)) {
        ++mismatches;
      }
    }
    EXPECT_EQ(mismatches, 0u) << "channel " << name;
  }
}

std::string error_of(const std::function<void()>& write) {
  try {
    write();
  } catch (const Error& e) {
    return e.what();
  }
  return "(no error)";
}

std::string bytes_of(const fs::path& path) {
  return test::read_text_file(path);
}

std::uint32_t u32_at(const std::string& bytes, std::size_t offset) {
  std::uint32_t value = 0;
  std::memcpy(&value, bytes.data() + offset, 4);
  return value;
}
std::uint64_t u64_at(const std::string& bytes, std::size_t offset) {
  std::uint64_t value = 0;
  std::memcpy(&value, bytes.data() + offset, 8);
  return value;
}
float f32_at(const std::string& bytes, std::size_t offset) {
  return std::bit_cast<float>(u32_at(bytes, offset));
}

TEST(ExrWriter, OneTexelMapsHoldTheCodeValue) {
  test::ScratchDir dir;
  const std::vector<std::uint16_t> white{65535};
  writeExr(dir / "white.exr", 1, 1, 1, white, kExrFloat);
  ExrContents file = read_exr(dir / "white.exr");
  ASSERT_EQ(file.names, std::vector<std::string>{"Y"});
  EXPECT_EQ(file.types[0], Imf::FLOAT);
  EXPECT_EQ(std::bit_cast<float>(file.bits["Y"][0]), 1.0f);

  const std::vector<std::uint16_t> middle{32768};
  writeExr(dir / "middle.exr", 1, 1, 1, middle, kExrFloat);
  file = read_exr(dir / "middle.exr");
  EXPECT_EQ(std::bit_cast<float>(file.bits["Y"][0]), static_cast<float>(32768.0 / 65535.0));
  EXPECT_NE(std::bit_cast<float>(file.bits["Y"][0]), 32768.0f / 65535.0f * 1.0000001f);

  writeExr(dir / "middle_half.exr", 1, 1, 1, middle, kExrHalf);
  file = read_exr(dir / "middle_half.exr");
  EXPECT_EQ(file.types[0], Imf::HALF);
  EXPECT_EQ(file.bits["Y"][0], half(static_cast<float>(32768.0 / 65535.0)).bits());
}

TEST(ExrWriter, ByteLayoutOfASmallRgbFile) {
  test::ScratchDir dir;
  // Two texels per line, two lines, R G B interleaved.
  const std::vector<std::uint16_t> codes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  writeExr(dir / "small.exr", 2, 2, 3, codes, kExrFloat);
  const std::string bytes = bytes_of(dir / "small.exr");

  // Worked out by hand: 8 bytes of magic and version, then the attributes
  // channels 75, compression 29, dataWindow 37, displayWindow 40,
  // lineOrder 25, pixelAspectRatio 31, screenWindowCenter 35,
  // screenWindowWidth 32, and the closing zero byte: 313 bytes.
  ASSERT_EQ(bytes.size(), 313u + 2 * 8 + 2 * (8 + 24));
  EXPECT_EQ(u32_at(bytes, 0), 20000630u);
  EXPECT_EQ(u32_at(bytes, 4), 2u);
  const std::string channels_attr = std::string("channels\0chlist\0", 16);
  EXPECT_EQ(bytes.substr(8, 16), channels_attr);
  EXPECT_EQ(u32_at(bytes, 24), 55u);
  const std::string one_channel_tail("\x02\0\0\0\0\0\0\0\x01\0\0\0\x01\0\0\0", 16);
  EXPECT_EQ(bytes.substr(28, 18), "B" + std::string(1, '\0') + one_channel_tail);
  EXPECT_EQ(bytes.substr(46, 18), "G" + std::string(1, '\0') + one_channel_tail);
  EXPECT_EQ(bytes.substr(64, 18), "R" + std::string(1, '\0') + one_channel_tail);
  EXPECT_EQ(bytes[82], '\0');
  EXPECT_EQ(bytes.substr(83, 29), std::string("compression\0compression\0\x01\0\0\0\0", 29));
  EXPECT_EQ(bytes.substr(112, 21), std::string("dataWindow\0box2i\0\x10\0\0\0", 21));
  EXPECT_EQ(u32_at(bytes, 133), 0u);
  EXPECT_EQ(u32_at(bytes, 137), 0u);
  EXPECT_EQ(u32_at(bytes, 141), 1u);
  EXPECT_EQ(u32_at(bytes, 145), 1u);
  EXPECT_EQ(bytes.substr(149, 24), std::string("displayWindow\0box2i\0\x10\0\0\0", 24));
  EXPECT_EQ(bytes.substr(149 + 24, 16), bytes.substr(133, 16));
  EXPECT_EQ(bytes.substr(189, 25), std::string("lineOrder\0lineOrder\0\x01\0\0\0\0", 25));
  EXPECT_EQ(bytes.substr(214, 27), std::string("pixelAspectRatio\0float\0\x04\0\0\0", 27));
  EXPECT_EQ(f32_at(bytes, 241), 1.0f);
  EXPECT_EQ(bytes.substr(245, 27), std::string("screenWindowCenter\0v2f\0\x08\0\0\0", 27));
  EXPECT_EQ(u64_at(bytes, 272), 0u);
  EXPECT_EQ(bytes.substr(280, 28), std::string("screenWindowWidth\0float\0\x04\0\0\0", 28));
  EXPECT_EQ(f32_at(bytes, 308), 1.0f);
  EXPECT_EQ(bytes[312], '\0');

  // Offset table, then one chunk per line: y, byte size, B values, G, R.
  EXPECT_EQ(u64_at(bytes, 313), 329u);
  EXPECT_EQ(u64_at(bytes, 321), 361u);
  for (std::uint32_t y = 0; y < 2; ++y) {
    const std::size_t chunk = 329 + 32 * y;
    EXPECT_EQ(u32_at(bytes, chunk), y);
    EXPECT_EQ(u32_at(bytes, chunk + 4), 24u);
    const std::size_t row = 6 * y;  // first code of the line
    const std::uint16_t expected[6] = {codes[row + 2], codes[row + 5], codes[row + 1],
                                       codes[row + 4], codes[row + 0], codes[row + 3]};
    for (std::size_t i = 0; i < 6; ++i) {
      EXPECT_EQ(f32_at(bytes, chunk + 8 + 4 * i), code_value(expected[i]))
          << "line " << y << " value " << i;
    }
  }
  expect_codes_in_file(dir / "small.exr", 2, 2, 3, codes, kExrFloat);
}

TEST(ExrWriter, HalfFilesAndFourChannelOrder) {
  test::ScratchDir dir;
  const std::vector<std::uint16_t> codes = random_codes(7 * 5 * 4, 11);
  writeExr(dir / "rgba.exr", 7, 5, 4, codes, kExrHalf);
  const std::string bytes = bytes_of(dir / "rgba.exr");
  // Four channels of 18 bytes each plus the list's end: 73; half is type 1.
  EXPECT_EQ(u32_at(bytes, 24), 73u);
  EXPECT_EQ(bytes.substr(28, 2), std::string("A\0", 2));
  EXPECT_EQ(u32_at(bytes, 30), 1u);
  EXPECT_EQ(bytes.substr(46, 2), std::string("B\0", 2));
  EXPECT_EQ(bytes.substr(64, 2), std::string("G\0", 2));
  EXPECT_EQ(bytes.substr(82, 2), std::string("R\0", 2));
  // Header 331 bytes, 5 offsets, chunks of 8 + 4 * 7 * 2 bytes.
  EXPECT_EQ(u64_at(bytes, 331), 331u + 40u);
  EXPECT_EQ(u64_at(bytes, 331 + 32), 331u + 40u + 4 * 64u);
  EXPECT_EQ(bytes.size(), 331u + 40u + 5 * 64u);
  expect_codes_in_file(dir / "rgba.exr", 7, 5, 4, codes, kExrHalf);

  // Code tables agree with the reader's own conversion for every code.
  const float* floats = exr_code_floats();
  const std::uint16_t* halves = exr_code_halves();
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
  const std::string bytes = bytes_of(dir / "buffers.exr");
  writeExr(dir / "one_thread.exr", 1000, 600, 4, codes, kExrFloat, 1);
  EXPECT_TRUE(bytes_of(dir / "one_thread.exr") == bytes);
  std::vector<float> samples(1000 * 600 * 4);
  for (std::size_t i = 0; i < samples.size(); ++i) {
    samples[i] = static_cast<float>(codes[i]) * 0.001f - 20.0f;
  }
  writeExrFloat(dir / "float1.exr", 1000, 600, 4, samples.data(), samples.size(), kExrHalf, 1);
  writeExrFloat(dir / "float2.exr", 1000, 600, 4, samples.data(), samples.size(), kExrHalf, 2);
  EXPECT_TRUE(bytes_of(dir / "float1.exr") == bytes_of(dir / "float2.exr"));
  EXPECT_EQ(bytes.size(), 331u + 600 * 8 + 600 * 16008u);
  for (std::uint32_t y : {261u, 262u, 263u, 523u, 524u, 599u}) {
    const std::uint64_t offset = u64_at(bytes, 331 + 8 * y);
    ASSERT_EQ(offset, 331u + 4800u + y * 16008u);
    EXPECT_EQ(u32_at(bytes, offset), y);
    EXPECT_EQ(u32_at(bytes, offset + 4), 16000u);
  }

  // One line larger than a buffer is written on its own.
  const std::vector<std::uint16_t> wide = random_codes(1100000 * 2, 6);
  writeExr(dir / "wide.exr", 1100000, 2, 1, wide, kExrFloat);
  expect_codes_in_file(dir / "wide.exr", 1100000, 2, 1, wide, kExrFloat);

  // A tall map whose offset table alone is larger than a buffer.
  const std::vector<std::uint16_t> tall = random_codes(600000, 8);
  writeExr(dir / "tall.exr", 1, 600000, 1, tall, kExrHalf);
  expect_codes_in_file(dir / "tall.exr", 1, 600000, 1, tall, kExrHalf);
  const std::string tall_bytes = bytes_of(dir / "tall.exr");
  const std::size_t tall_header = 313 - 2 * 18;  // one channel instead of three
  ASSERT_EQ(tall_bytes.size(), tall_header + 600000 * 8 + 600000 * 10u);
  EXPECT_EQ(u64_at(tall_bytes, tall_header + 8 * 599999), tall_header + 600000 * 8 + 599999 * 10u);
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
    ASSERT_EQ(file.names, (std::vector<std::string>{"B", "G", "R"}));
    const char* names[] = {"R", "G", "B"};
    for (std::size_t i = 0; i < samples.size(); ++i) {
      ASSERT_EQ(file.bits.at(names[i % 3])[i / 3], expected_bits(samples[i], type))
          << "sample " << i << " type " << type;
    }
  }

  const std::string head = "Cannot write EXR " + out.string() + ": ";
  EXPECT_EQ(error_of([&] { writeExrFloat(out, 50, 40, 3, nullptr, samples.size(), kExrFloat); }),
            head + "the sample pointer is null");
  test::write_text_file(out, "old");
  // An infinity in a later block is reported before a NaN in a later one;
  // index 3 * (50 * 30 + 7) + 2 is texel (7, 30), blue.
  const float inf = std::numeric_limits<float>::infinity();
  samples[3 * (50 * 30 + 7) + 2] = -inf;
  samples[samples.size() - 1] = std::numeric_limits<float>::quiet_NaN();
  EXPECT_EQ(error_of([&] { writeExrFloat(out, 50, 40, 3, samples.data(), samples.size(), 1); }),
            head +
                "the sample at x 7, y 30, channel B is infinite; only finite values can be "
                "written");
  samples[3 * (50 * 30 + 7) + 2] = 0.5f;
  EXPECT_EQ(error_of([&] { writeExrFloat(out, 50, 40, 3, samples.data(), samples.size(), 0); }),
            head +
                "the sample at x 49, y 39, channel B is NaN; only finite values can be "
                "written");
  // A non-finite sample at the first index of a block of 4096.
  std::vector<float> grey(4096 * 2, 0.25f);
  grey[4096] = std::numeric_limits<float>::signaling_NaN();
  EXPECT_EQ(error_of([&] { writeExrFloat(out, 64, 128, 1, grey.data(), grey.size(), 1); }),
            head + "the sample at x 0, y 64, channel Y is NaN; only finite values can be written");
  std::vector<float> rgba(4 * 3, 0.0f);
  rgba[4 * 2 + 3] = inf;
  EXPECT_EQ(error_of([&] { writeExrFloat(out, 3, 1, 4, rgba.data(), rgba.size(), 1); }),
            head +
                "the sample at x 2, y 0, channel A is infinite; only finite values can be "
                "written");
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

TEST(ExrWriter, RefusedTargetsStayUntouched) {
  test::ScratchDir dir;
  const std::vector<std::uint16_t> codes{1, 2, 3};
  const fs::path folder = dir / "taken.exr";
  fs::create_directory(folder);
  EXPECT_EQ(error_of([&] { writeExr(folder, 1, 1, 3, codes, kExrFloat); }),
            "Cannot write EXR " + folder.string() + ": a folder with this name exists");
  EXPECT_TRUE(fs::is_directory(folder));
  EXPECT_TRUE(fs::is_empty(folder));

  // Read-only means no write permission bit; that holds for root as well.
  const fs::path locked = dir / "locked.exr";
  test::write_text_file(locked, "previous map");
  fs::permissions(locked, fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
  EXPECT_EQ(error_of([&] { writeExr(locked, 1, 1, 3, codes, kExrFloat); }),
            "Cannot write EXR " + locked.string() + ": the existing file is read-only");
  EXPECT_EQ(test::read_text_file(locked), "previous map");

  // Any write bit makes the file writable, and it is replaced.
  fs::permissions(locked, fs::perms::group_write, fs::perm_options::add);
  writeExr(locked, 1, 1, 3, codes, kExrFloat);
  expect_codes_in_file(locked, 1, 1, 3, codes, kExrFloat);
  EXPECT_EQ(test::list_names(dir.path()), (std::vector<std::string>{"locked.exr", "taken.exr"}));

  // A file where a parent folder should be.
  const fs::path blocked = dir / "locked.exr" / "inner" / "map.exr";
  EXPECT_EQ(error_of([&] { writeExr(blocked, 1, 1, 3, codes, kExrFloat); }),
            "Cannot write EXR " + blocked.string() + ": could not create the folder " +
                (dir / "locked.exr" / "inner").string() + ": Not a directory");
}

TEST(ExrWriter, CreatesParentFoldersAndReplacesOldFiles) {
  test::ScratchDir dir;
  const fs::path nested = dir / "a" / "b" / "c" / "map.exr";
  const std::vector<std::uint16_t> first = random_codes(4 * 3, 1);
  writeExr(nested, 2, 2, 3, first, kExrFloat);
  expect_codes_in_file(nested, 2, 2, 3, first, kExrFloat);
  const std::vector<std::uint16_t> second = random_codes(6 * 1, 2);
  writeExr(nested, 6, 1, 1, second, kExrHalf);
  expect_codes_in_file(nested, 6, 1, 1, second, kExrHalf);
  EXPECT_EQ(test::list_names(nested.parent_path()), std::vector<std::string>{"map.exr"});

  // A relative name in the current folder has no parent to create.
  const fs::path previous = fs::current_path();
  fs::current_path(dir.path());
  writeExr("plain.exr", 2, 2, 3, first, kExrFloat);
  fs::current_path(previous);
  expect_codes_in_file(dir / "plain.exr", 2, 2, 3, first, kExrFloat);
}

TEST(ExrWriter, ConcurrentWritersDoNotMix) {
  test::ScratchDir dir;
  std::vector<std::vector<std::uint16_t>> maps;
  for (unsigned i = 0; i < 6; ++i) {
    maps.push_back(random_codes(300 * 200 * 3, 100 + i));
  }
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < maps.size(); ++i) {
    threads.emplace_back([&, i] {
      // Half of them share one target: the last to commit wins whole.
      const fs::path path = dir / (i % 2 == 0 ? "shared.exr" : "own" + std::to_string(i) + ".exr");
      writeExr(path, 300, 200, 3, maps[i], i % 2 == 0 ? kExrHalf : kExrFloat);
    });
  }
  for (auto& t : threads) {
    t.join();
  }
  for (unsigned i = 1; i < maps.size(); i += 2) {
    expect_codes_in_file(dir / ("own" + std::to_string(i) + ".exr"), 300, 200, 3, maps[i],
                         kExrFloat);
  }
  const ExrContents shared = read_exr(dir / "shared.exr");
  int matches = 0;
  for (unsigned i = 0; i < maps.size(); i += 2) {
    bool same = true;
    for (std::size_t t = 0; t < 300 * 200 && same; ++t) {
      same = shared.bits.at("R")[t] == half(code_value(maps[i][3 * t])).bits() &&
             shared.bits.at("B")[t] == half(code_value(maps[i][3 * t + 2])).bits();
    }
    matches += same ? 1 : 0;
  }
  EXPECT_EQ(matches, 1);
  EXPECT_EQ(test::list_names(dir.path()).size(), 4u);
}

// Runs only inside the child process of the next test, under a small file
// size limit: the write fails part way and nothing may be left behind.
TEST(ExrWriteFailureChild, FileSizeLimitFailsTheWrite) {
  const auto target = platform::get_env("KV_IMAGE_CHILD_TARGET");
  if (!target) {
    GTEST_SKIP() << "runs as the child of ExrWriter.FailedWriteLeavesNoTemporary";
  }
  const std::vector<std::uint16_t> codes = random_codes(512 * 512 * 3, 9);
  const std::string message = error_of([&] { writeExr(*target, 512, 512, 3, codes, kExrFloat); });
  const std::string head = "Cannot write EXR " + *target + ": could not write the temporary file " +
                           *target + "." + std::to_string(platform::process_id()) + "-";
  EXPECT_EQ(message.substr(0, head.size()), head) << message;
  const std::string tail = ".tmp: File too large";
  ASSERT_GE(message.size(), tail.size());
  EXPECT_EQ(message.substr(message.size() - tail.size()), tail) << message;
}

TEST(ExrWriter, FailedWriteLeavesNoTemporary) {
  test::ScratchDir dir;
  const fs::path target = dir / "map.exr";
  test::write_text_file(target, "the previous map");
  const std::string self = fs::read_symlink("/proc/self/exe").string();
  // SIGXFSZ ignored, so the over-limit write fails with EFBIG instead.
  const auto result =
      platform::run_process({"/bin/sh", "-c",
                             "trap '' XFSZ; ulimit -f 64 && exec \"$0\" "
                             "--gtest_filter=ExrWriteFailureChild.FileSizeLimitFailsTheWrite",
                             self},
                            "", {"KV_IMAGE_CHILD_TARGET=" + target.string()});
  EXPECT_EQ(result.exit_code, 0) << result.out << result.err;
  EXPECT_NE(result.out.find("[  PASSED  ] 1 test"), std::string::npos) << result.out;
  EXPECT_EQ(result.out.find("SKIPPED"), std::string::npos) << result.out;
  EXPECT_EQ(test::list_names(dir.path()), std::vector<std::string>{"map.exr"});
  EXPECT_EQ(test::read_text_file(target), "the previous map");
}

}  // namespace
}  // namespace kv
