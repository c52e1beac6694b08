// The texel file: every reader check in its order and message, exact round
// trips of every component type, and the fixed-size destination.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <limits>

#include "image/half.h"
#include "image/kvt_file.h"
#include "image_test_util.h"
#include "support/message_of.h"
#include "support/test_support.h"

namespace kv {
namespace {

using test::list_names;
using test::message_of;
using test::read_text_file;
using test::write_text_file;

std::string header(std::uint32_t version, std::uint32_t type, std::uint32_t w, std::uint32_t h,
                   std::uint32_t c, std::uint32_t reserved) {
  std::string bytes("KVTEX1\0\0", 8);
  for (const std::uint32_t v : {version, type, w, h, c, reserved}) {
    bytes.append(reinterpret_cast<const char*>(&v), 4);
  }
  return bytes;
}

TexelImage image_of(int w, int h, int c, ComponentType type) {
  TexelImage image;
  image.width = w;
  image.height = h;
  image.channels = c;
  image.type = type;
  image.data.resize(image.expected_bytes());
  for (std::size_t i = 0; i < image.data.size(); ++i) {
    image.data[i] = static_cast<std::uint8_t>(i * 37 + 11);
  }
  return image;
}

TEST(KvtFile, EveryHeaderCheckInOrderWithItsMessage) {
  const test::ScratchDir dir;
  // The header alone, from a file and from memory, fails as the whole read.
  const auto read_bytes = [&](const std::string& bytes) {
    write_text_file(dir / "t.kvt", bytes);
    const std::string message = message_of([&] { read_kvt(dir / "t.kvt"); });
    EXPECT_EQ(message_of([&] { read_kvt_header(dir / "t.kvt"); }), message);
    const auto* data = reinterpret_cast<const std::uint8_t*>(bytes.data());
    EXPECT_EQ(message_of([&] { parse_kvt_header({data, bytes.size()}); }), message);
    EXPECT_EQ(message_of([&] { parse_kvt({data, bytes.size()}); }), message);
    return message;
  };
  const std::string texels(2 * 2 * 4 * 2, '\x7f');
  EXPECT_EQ(read_bytes(header(1, 2, 2, 2, 4, 0).substr(0, 31)), ".kvt: not a korvane texel file");
  std::string bad_magic = header(1, 2, 2, 2, 4, 0) + texels;
  bad_magic[6] = '1';  // the two bytes after "KVTEX1" must be zero
  EXPECT_EQ(read_bytes(bad_magic), ".kvt: not a korvane texel file");
  // A later field's fault does not hide an earlier one's.
  EXPECT_EQ(read_bytes(header(2, 9, 2, 2, 4, 1) + texels), ".kvt: unsupported version");
  EXPECT_EQ(read_bytes(header(1, 0, 2, 2, 4, 1) + texels), ".kvt: unknown component type");
  EXPECT_EQ(read_bytes(header(1, 5, 2, 2, 4, 0) + texels), ".kvt: unknown component type");
  EXPECT_EQ(read_bytes(header(1, 2, 99999, 2, 4, 1) + texels),
            ".kvt: reserved header field is not 0");
  EXPECT_EQ(read_bytes(header(1, 2, 16385, 2, 4, 0) + texels),
            ".kvt: size or channel count out of range");
  EXPECT_EQ(read_bytes(header(1, 2, 2, 16385, 4, 0)), ".kvt: size or channel count out of range");
  EXPECT_EQ(read_bytes(header(1, 2, 2, 2, 5, 0) + texels),
            ".kvt: size or channel count out of range");
  EXPECT_EQ(read_bytes(header(1, 2, 0, 2, 4, 0)), "texture: each side must be 1 to 16384 texels");
  EXPECT_EQ(read_bytes(header(1, 2, 2, 2, 0, 0)), "texture: 1 to 4 channels");
  EXPECT_EQ(read_bytes(header(1, 2, 2, 2, 4, 0) + texels + "x"),
            ".kvt: data size does not match the header");
  EXPECT_EQ(read_bytes(header(1, 2, 2, 2, 4, 0) + texels.substr(1)),
            ".kvt: data size does not match the header");
  // The largest header is judged by the file's length, never allocated for.
  EXPECT_EQ(read_bytes(header(1, 4, 16384, 16384, 4, 0)),
            ".kvt: data size does not match the header");
  EXPECT_EQ(read_bytes(header(1, 2, 2, 2, 4, 0) + texels), "(no error)");
  const TexelImage shape = read_kvt_header(dir / "t.kvt");
  EXPECT_EQ(std::tuple(shape.width, shape.height, shape.channels, shape.type, shape.data.size()),
            std::tuple(2, 2, 4, ComponentType::kU16, std::size_t{0}));
  EXPECT_EQ(message_of([&] { read_kvt_header(dir / "none.kvt"); }).rfind("cannot open ", 0), 0u);
}

TEST(KvtFile, TwoByTwoRgbaU16IsSixtyFourBytesAndEveryTypeRoundTripsExactly) {
  const test::ScratchDir dir;
  EXPECT_EQ(kvt_file_bytes(image_of(2, 2, 4, ComponentType::kU16)), 64u);
  for (const ComponentType type :
       {ComponentType::kU8, ComponentType::kU16, ComponentType::kF16, ComponentType::kF32}) {
    for (int channels = 1; channels <= 4; ++channels) {
      const TexelImage image = image_of(3, 2, channels, type);
      write_kvt(dir / "rt.kvt", image);
      const std::string file = read_text_file(dir / "rt.kvt");
      ASSERT_EQ(file.size(), 32 + image.data.size());
      EXPECT_EQ(file.substr(0, 8), std::string("KVTEX1\0\0", 8));
      EXPECT_EQ(file.substr(8, 24),
                header(1, static_cast<std::uint32_t>(type), 3, 2, channels, 0).substr(8));
      const TexelImage back = read_kvt(dir / "rt.kvt");
      EXPECT_EQ(back.type, type);
      EXPECT_EQ(back.channels, channels);
      EXPECT_EQ(back.width, 3);
      EXPECT_EQ(back.height, 2);
      EXPECT_EQ(back.data, image.data);
    }
  }
  EXPECT_EQ(list_names(dir.path()), std::vector<std::string>{"rt.kvt"});  // no .tmp left
}

TEST(KvtFile, HalfFloatsWidenExactlyWithSubnormalsInfinitiesAndNaN) {
  // Bits as stored are kept; their values widen exactly.
  EXPECT_EQ(half_bits_to_double(0x0001), 0x1p-24);
  EXPECT_EQ(half_bits_to_double(0x03ff), 1023 * 0x1p-24);
  EXPECT_EQ(half_bits_to_double(0x7c00), std::numeric_limits<double>::infinity());
  EXPECT_TRUE(std::isnan(half_bits_to_double(0x7e01)));
  TexelImage image = image_of(2, 1, 2, ComponentType::kF16);
  const std::array<std::uint16_t, 4> bits = {0x0001, 0xfc00, 0x7e01, 0x8000};
  std::memcpy(image.data.data(), bits.data(), 8);
  std::vector<std::uint8_t> section(kvt_file_bytes(image));
  write_kvt_into(section, image);
  EXPECT_EQ(parse_kvt(section).data, image.data);
}

TEST(KvtFile, FixedDestinationsAndWritesWithoutTexels) {
  const TexelImage image = image_of(2, 2, 4, ComponentType::kU16);
  std::vector<std::uint8_t> small(63);
  EXPECT_EQ(message_of([&] { write_kvt_into(small, image); }),
            ".kvt: the destination must hold exactly 64 bytes, not 63");
  std::vector<std::uint8_t> large(65);
  EXPECT_EQ(message_of([&] { write_kvt_into(large, image); }),
            ".kvt: the destination must hold exactly 64 bytes, not 65");
  TexelImage empty = image;
  empty.data.clear();
  EXPECT_EQ(message_of([&] { write_kvt_into(large, empty); }), ".kvt: no texel data");
  const test::ScratchDir dir;
  EXPECT_EQ(message_of([&] { write_kvt(dir / "e.kvt", empty); }), ".kvt: no texel data");
  TexelImage wide = image_of(16385, 1, 1, ComponentType::kU8);
  EXPECT_EQ(message_of([&] { write_kvt(dir / "w.kvt", wide); }),
            "texture: each side must be 1 to 16384 texels");
  EXPECT_TRUE(list_names(dir.path()).empty());
  TexelImage odd = image;
  odd.type = static_cast<ComponentType>(7);
  EXPECT_EQ(message_of([&] { check_texture(odd); }), "texture: unknown component type");
  EXPECT_EQ(message_of([&] { parse_kvt(std::span<const std::uint8_t>(small.data(), 31)); }),
            ".kvt: not a korvane texel file");
}

}  // namespace
}  // namespace kv
