// The nearest-valid-texel search and the padding modes other than ring:
// passthrough, infinite, transparent, color, diffusion; sRGB means and half
// floats.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>

#include "bake/padding.h"
#include "core/error.h"

namespace kv {
namespace {

// An image that owns its bytes; values are given and read as doubles.
struct TestImage {
  std::int32_t w;
  std::int32_t h;
  std::int32_t c;
  ComponentType type;
  std::vector<std::byte> bytes;

  TestImage(std::int32_t width, std::int32_t height, std::int32_t channels, ComponentType t)
      : w(width),
        h(height),
        c(channels),
        type(t),
        bytes(static_cast<std::size_t>(width) * height * channels * component_bytes(t)) {}

  ImageView view() { return ImageView{w, h, c, type, bytes}; }

  void set(std::size_t texel, std::int32_t channel, double v) {
    const std::size_t at = (texel * c + channel) * component_bytes(type);
    if (type == ComponentType::kU8) {
      bytes[at] = static_cast<std::byte>(v);
    } else if (type == ComponentType::kU16) {
      const auto code = static_cast<std::uint16_t>(v);
      std::memcpy(&bytes[at], &code, 2);
    } else if (type == ComponentType::kF16) {
      const std::uint16_t code = double_to_half(v);
      std::memcpy(&bytes[at], &code, 2);
    } else {
      const auto f = static_cast<float>(v);
      std::memcpy(&bytes[at], &f, 4);
    }
  }
  double get(std::size_t texel, std::int32_t channel = 0) const {
    const std::size_t at = (texel * c + channel) * component_bytes(type);
    if (type == ComponentType::kU8) {
      return std::to_integer<int>(bytes[at]);
    }
    if (type == ComponentType::kF32) {
      float f;
      std::memcpy(&f, &bytes[at], 4);
      return f;
    }
    std::uint16_t code;
    std::memcpy(&code, &bytes[at], 2);
    return type == ComponentType::kU16 ? code : half_to_double(code);
  }
  // Channel 0 of every texel of a one-channel image.
  std::vector<double> row() const {
    std::vector<double> out;
    for (std::size_t i = 0; i < static_cast<std::size_t>(w) * h; ++i) {
      out.push_back(get(i));
    }
    return out;
  }
};

PaddingSettings mode(PaddingMode m, std::int32_t width) {
  PaddingSettings s;
  s.mode = m;
  s.width = width;
  return s;
}

// Lowest-index nearest valid texel by trying every valid texel.
NearestValid brute_nearest(int w, int h, const std::vector<std::uint8_t>& valid) {
  NearestValid out;
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      std::uint32_t best = NearestValid::kNone;
      std::uint64_t best_d = 0;
      for (int i = 0; i < w * h; ++i) {
        if (!valid[i]) {
          continue;
        }
        const std::int64_t dx = i % w - x;
        const std::int64_t dy = i / w - y;
        const auto d = static_cast<std::uint64_t>(dx * dx + dy * dy);
        if (best == NearestValid::kNone || d < best_d) {
          best = static_cast<std::uint32_t>(i);
          best_d = d;
        }
      }
      out.nearest.push_back(best);
      out.distance2.push_back(best == NearestValid::kNone ? ~std::uint64_t{0} : best_d);
    }
  }
  return out;
}

TEST(NearestValidTexels, MatchesBruteForceWithLowestIndexTies) {
  const WorkerPool one(1);
  const WorkerPool two(2);
  struct Size {
    int w;
    int h;
    int one_in;
  };
  std::mt19937 rng(5);
  for (const Size s : {Size{1, 1, 1}, Size{1, 40, 7}, Size{40, 1, 7}, Size{37, 70, 25},
                       Size{70, 37, 60}, Size{66, 65, 400}, Size{9, 9, 3}}) {
    std::vector<std::uint8_t> valid(static_cast<std::size_t>(s.w) * s.h);
    for (auto& v : valid) {
      v = rng() % static_cast<unsigned>(s.one_in) == 0 ? 1 : 0;
    }
    valid[valid.size() / 2] = 1;
    const NearestValid expected = brute_nearest(s.w, s.h, valid);
    const NearestValid got = nearest_valid_texels(s.w, s.h, valid, one);
    const NearestValid got_two = nearest_valid_texels(s.w, s.h, valid, two);
    for (std::size_t i = 0; i < valid.size(); ++i) {
      ASSERT_EQ(got.distance2[i], expected.distance2[i]) << s.w << "x" << s.h << " at " << i;
      ASSERT_EQ(got.nearest[i], expected.nearest[i]) << s.w << "x" << s.h << " at " << i;
    }
    EXPECT_EQ(got_two.nearest, got.nearest);
    EXPECT_EQ(got_two.distance2, got.distance2);
  }
}

TEST(NearestValidTexels, TiesGoToTheTopmostThenLeftmostTexel) {
  const WorkerPool pool(1);
  // 3 x 3. (2,0) and (0,2) are both at squared distance 4 from (0,0): the
  // upper one wins although the other is further left.
  std::vector<std::uint8_t> valid(9, 0);
  valid[2] = valid[6] = 1;
  NearestValid nv = nearest_valid_texels(3, 3, valid, pool);
  EXPECT_EQ(nv.nearest[0], 2u);
  EXPECT_EQ(nv.distance2[0], 4u);
  EXPECT_EQ(nv.nearest[4], 2u);  // centre: both at 2
  EXPECT_EQ(nv.nearest[8], 2u);  // (2,2): (2,0) at 4, (0,2) at 4
  // Left and right of the centre: the left one.
  valid.assign(9, 0);
  valid[3] = valid[5] = 1;
  nv = nearest_valid_texels(3, 3, valid, pool);
  EXPECT_EQ(nv.nearest[4], 3u);
  EXPECT_EQ(nv.nearest[1], 3u);  // (1,0): both at 2
  // Four corners around the centre: the top-left one.
  valid.assign(9, 0);
  valid[0] = valid[2] = valid[6] = valid[8] = 1;
  nv = nearest_valid_texels(3, 3, valid, pool);
  EXPECT_EQ(nv.nearest[4], 0u);
  EXPECT_EQ(nv.nearest[7], 6u);  // (1,2): (0,2) and (2,2) at 1
  // No valid texel at all.
  nv = nearest_valid_texels(3, 3, std::vector<std::uint8_t>(9, 0), pool);
  EXPECT_EQ(nv.nearest, std::vector<std::uint32_t>(9, NearestValid::kNone));
}

TEST(PaddingModes, PassthroughLeavesTheOutsideAsItWas) {
  TestImage image(4, 1, 1, ComponentType::kU16);
  for (int i = 0; i < 4; ++i) {
    image.set(i, 0, 100 + i);
  }
  const auto mask = pad_image(image.view(), std::vector<std::uint8_t>{0, 5, 0, 0},
                              mode(PaddingMode::passthrough, 32), 1);
  EXPECT_EQ(image.row(), (std::vector<double>{100, 101, 102, 103}));
  EXPECT_EQ(mask, (std::vector<std::uint8_t>{0, 1, 0, 0}));
}

TEST(PaddingModes, InfiniteTakesTheNearestValueEverywhere) {
  // 10 _ _ _ 50: x = 2 is equally near both and takes the left (lower index).
  TestImage image(5, 1, 1, ComponentType::kU16);
  image.set(0, 0, 10);
  image.set(4, 0, 50);
  const std::vector<std::uint8_t> valid = {1, 0, 0, 0, 1};
  const auto mask = pad_image(image.view(), valid, mode(PaddingMode::infinite, 0), 1);
  EXPECT_EQ(image.row(), (std::vector<double>{10, 10, 10, 50, 50}));
  EXPECT_EQ(mask, std::vector<std::uint8_t>(5, 1));

  // Every channel is copied bytes for bytes, also from half floats.
  TestImage halves(3, 2, 2, ComponentType::kF16);
  halves.set(5, 0, 0.1);
  halves.set(5, 1, -3.25);
  std::vector<std::uint8_t> one(6, 0);
  one[5] = 1;
  pad_image(halves.view(), one, mode(PaddingMode::infinite, 1), 2);
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(halves.get(i, 0), half_to_double(double_to_half(0.1)));
    EXPECT_EQ(halves.get(i, 1), -3.25);
  }

  // Without a valid texel nothing changes.
  TestImage none(3, 1, 1, ComponentType::kU8);
  none.set(1, 0, 42);
  EXPECT_EQ(
      pad_image(none.view(), std::vector<std::uint8_t>(3, 0), mode(PaddingMode::infinite, 5), 1),
      std::vector<std::uint8_t>(3, 0));
  EXPECT_EQ(none.row(), (std::vector<double>{0, 42, 0}));
}

TEST(PaddingModes, ColorBeyondTheSquaredDistanceLimit) {
  // Valid (0,0) of 3 x 3, width 2: squared distances up to 1 take the value,
  // so (1,0) and (0,1) copy it and the diagonal (1,1), at 2, gets the colour.
  TestImage image(3, 3, 1, ComponentType::kU16);
  image.set(0, 0, 9);
  std::vector<std::uint8_t> valid(9, 0);
  valid[0] = 1;
  PaddingSettings s = mode(PaddingMode::color, 2);
  s.color = {1000};
  const auto mask = pad_image(image.view(), valid, s, 1);
  EXPECT_EQ(image.row(), (std::vector<double>{9, 9, 1000, 9, 1000, 1000, 1000, 1000, 1000}));
  EXPECT_EQ(mask, std::vector<std::uint8_t>(9, 1));

  // 1 x 7 row, width 3: x = 1, 2 (distances 1, 4) copy; the rest is colour.
  TestImage line(7, 1, 1, ComponentType::kU16);
  line.set(0, 0, 9);
  s.width = 3;
  pad_image(line.view(), std::vector<std::uint8_t>{1, 0, 0, 0, 0, 0, 0}, s, 1);
  EXPECT_EQ(line.row(), (std::vector<double>{9, 9, 9, 1000, 1000, 1000, 1000}));

  // Width 0 and width 1 take no nearest value at all.
  for (const int width : {0, 1}) {
    TestImage small(3, 1, 1, ComponentType::kU16);
    small.set(0, 0, 9);
    s.width = width;
    pad_image(small.view(), std::vector<std::uint8_t>{1, 0, 0}, s, 1);
    EXPECT_EQ(small.row(), (std::vector<double>{9, 1000, 1000})) << width;
  }
}

TEST(PaddingModes, ColorIsStoredInTheComponentType) {
  PaddingSettings s = mode(PaddingMode::color, 0);
  // u8: 7.5 rounds half up, 300 clamps, -4 gives 0; the fourth channel has no
  // value and gets 0.
  TestImage bytes(2, 1, 4, ComponentType::kU8);
  for (int c = 0; c < 4; ++c) {
    bytes.set(0, c, 50);
    bytes.set(1, c, 77);
  }
  s.color = {7.5, 300, -4};
  pad_image(bytes.view(), std::vector<std::uint8_t>{1, 0}, s, 1);
  EXPECT_EQ(bytes.get(1, 0), 8);
  EXPECT_EQ(bytes.get(1, 1), 255);
  EXPECT_EQ(bytes.get(1, 2), 0);
  EXPECT_EQ(bytes.get(1, 3), 0);
  EXPECT_EQ(bytes.get(0, 1), 50);  // the valid texel is left alone

  TestImage floats(2, 1, 1, ComponentType::kF32);
  s.color = {0.1};
  pad_image(floats.view(), std::vector<std::uint8_t>{1, 0}, s, 1);
  EXPECT_EQ(floats.get(1), static_cast<double>(0.1f));

  // The default colour is the flat Normal (32768, 32768, 65535).
  TestImage normal(2, 1, 3, ComponentType::kU16);
  pad_image(normal.view(), std::vector<std::uint8_t>{1, 0},
            padding_settings_of(NormalBakeSettings{}), 1);
  EXPECT_EQ(normal.get(1, 0), 0);  // ring by default: one valid texel of code 0 fills it
  NormalBakeSettings bake;
  bake.padding = PaddingMode::color;
  bake.dilation = 0;
  pad_image(normal.view(), std::vector<std::uint8_t>{1, 0}, padding_settings_of(bake), 1);
  EXPECT_EQ(normal.get(1, 0), 32768);
  EXPECT_EQ(normal.get(1, 1), 32768);
  EXPECT_EQ(normal.get(1, 2), 65535);
}

TEST(PaddingModes, TransparentZeroesBeyondTheLimit) {
  TestImage image(4, 1, 4, ComponentType::kU8);
  const double texel[4] = {10, 20, 30, 255};
  for (int c = 0; c < 4; ++c) {
    image.set(0, c, texel[c]);
    for (int i = 1; i < 4; ++i) {
      image.set(i, c, 99);
    }
  }
  const auto mask = pad_image(image.view(), std::vector<std::uint8_t>{1, 0, 0, 0},
                              mode(PaddingMode::transparent, 2), 1);
  for (int c = 0; c < 4; ++c) {
    EXPECT_EQ(image.get(1, c), texel[c]);
    EXPECT_EQ(image.get(2, c), 0);
    EXPECT_EQ(image.get(3, c), 0);
  }
  EXPECT_EQ(mask, (std::vector<std::uint8_t>{1, 1, 0, 0}));
}

TEST(PaddingModes, DiffusionByHand) {
  // 1 x 4, sources 0 and 200 at the ends, width 0. Pull: level 1 = (0, 200).
  // Push: x = 1 takes 3/4 * 0 + 1/4 * 200 = 50; x = 2 takes 3/4 * 200 = 150.
  TestImage four(4, 1, 1, ComponentType::kU16);
  four.set(3, 0, 200);
  auto mask = pad_image(four.view(), std::vector<std::uint8_t>{1, 0, 0, 1},
                        mode(PaddingMode::diffusion, 0), 1);
  EXPECT_EQ(four.row(), (std::vector<double>{0, 50, 150, 200}));
  EXPECT_EQ(mask, std::vector<std::uint8_t>(4, 1));

  // 1 x 6, sources 0 and 200 at the ends, width 2: x = 1 and x = 4 copy their
  // neighbour. Pull: level 1 = (0, -, 200), level 2 = (0, 200), level 3 = 100.
  // Push: level 1 middle = 3/4 * 0 + 1/4 * 200 = 50; then x = 2 gets
  // 3/4 * 50 + 1/4 * 0 = 37.5 -> 38 and x = 3 gets 3/4 * 50 + 1/4 * 200 = 87.5 -> 88.
  TestImage six(6, 1, 1, ComponentType::kU16);
  six.set(5, 0, 200);
  mask = pad_image(six.view(), std::vector<std::uint8_t>{1, 0, 0, 0, 0, 1},
                   mode(PaddingMode::diffusion, 2), 1);
  EXPECT_EQ(six.row(), (std::vector<double>{0, 0, 38, 88, 200, 200}));

  // Nothing to diffuse from: the image stays as it is.
  TestImage none(2, 2, 1, ComponentType::kU16);
  none.set(3, 0, 5);
  mask =
      pad_image(none.view(), std::vector<std::uint8_t>(4, 0), mode(PaddingMode::diffusion, 3), 1);
  EXPECT_EQ(none.row(), (std::vector<double>{0, 0, 0, 5}));
  EXPECT_EQ(mask, std::vector<std::uint8_t>(4, 0));
}

TEST(PaddingModes, DiffusionStaysWithinTheSourceRange) {
  TestImage image(83, 61, 2, ComponentType::kF32);
  std::mt19937 rng(8);
  std::vector<std::uint8_t> valid(83 * 61, 0);
  for (std::size_t i = 0; i < valid.size(); ++i) {
    image.set(i, 0, -1000.0);
    image.set(i, 1, -1000.0);
    if (rng() % 40 == 0) {
      valid[i] = 1;
      image.set(i, 0, 10.0 + static_cast<double>(rng() % 100));
      image.set(i, 1, 0.5);
    }
  }
  const auto mask = pad_image(image.view(), valid, mode(PaddingMode::diffusion, 2), 2);
  EXPECT_EQ(mask, std::vector<std::uint8_t>(valid.size(), 1));
  for (std::size_t i = 0; i < valid.size(); ++i) {
    ASSERT_GE(image.get(i, 0), 10.0) << i;
    ASSERT_LE(image.get(i, 0), 109.0) << i;
    ASSERT_EQ(image.get(i, 1), 0.5) << i;  // a constant channel stays constant
  }
}

TEST(PaddingModes, NoValidTexelColorAndTransparentFillEverything) {
  TestImage image(2, 2, 1, ComponentType::kU8);
  PaddingSettings s = mode(PaddingMode::color, 4);
  s.color = {66};
  EXPECT_EQ(pad_image(image.view(), std::vector<std::uint8_t>(4, 0), s, 1),
            std::vector<std::uint8_t>(4, 1));
  EXPECT_EQ(image.row(), std::vector<double>(4, 66));
  EXPECT_EQ(pad_image(image.view(), std::vector<std::uint8_t>(4, 0),
                      mode(PaddingMode::transparent, 4), 1),
            std::vector<std::uint8_t>(4, 0));
  EXPECT_EQ(image.row(), std::vector<double>(4, 0));
}

TEST(PaddingSrgb, RingMeansInLinearLight) {
  // 0 and 255 average to linear 0.5, which encodes to 187.516 -> 188 (128
  // without the flag); 100 and 200 give 160.2 -> 160 (150 without).
  struct Case {
    double a;
    double b;
    bool srgb;
    double expected;
  };
  for (const Case k : {Case{0, 255, true, 188}, Case{0, 255, false, 128}, Case{100, 200, true, 160},
                       Case{100, 200, false, 150}}) {
    TestImage image(3, 1, 1, ComponentType::kU8);
    image.set(0, 0, k.a);
    image.set(2, 0, k.b);
    PaddingSettings s = mode(PaddingMode::ring, 1);
    s.srgb = k.srgb;
    pad_image(image.view(), std::vector<std::uint8_t>{1, 0, 1}, s, 1);
    EXPECT_EQ(image.get(1), k.expected) << k.a << " " << k.b << " " << k.srgb;
  }
  // 16-bit: linear 0.5 -> 48191.62 -> 48192.
  TestImage wide(3, 1, 1, ComponentType::kU16);
  wide.set(2, 0, 65535);
  PaddingSettings s = mode(PaddingMode::ring, 1);
  s.srgb = true;
  pad_image(wide.view(), std::vector<std::uint8_t>{1, 0, 1}, s, 1);
  EXPECT_EQ(wide.get(1), 48192);
  // Alpha (the last of two or four channels) stays linear: 127.5 -> 128.
  for (const int channels : {2, 4}) {
    TestImage rgba(3, 1, channels, ComponentType::kU8);
    for (int c = 0; c < channels; ++c) {
      rgba.set(2, c, 255);
    }
    pad_image(rgba.view(), std::vector<std::uint8_t>{1, 0, 1}, s, 1);
    for (int c = 0; c < channels - 1; ++c) {
      EXPECT_EQ(rgba.get(1, c), 188) << channels;
    }
    EXPECT_EQ(rgba.get(1, channels - 1), 128) << channels;
  }
  // Float images ignore the flag.
  TestImage floats(3, 1, 1, ComponentType::kF32);
  floats.set(2, 0, 1.0);
  pad_image(floats.view(), std::vector<std::uint8_t>{1, 0, 1}, s, 1);
  EXPECT_EQ(floats.get(1), 0.5);
}

TEST(PaddingSrgb, DiffusionInLinearLight) {
  // As the hand case above, in linear light: 0.25 -> 136.96 -> 137 and
  // 0.75 -> 224.61 -> 225.
  TestImage image(4, 1, 1, ComponentType::kU8);
  image.set(3, 0, 255);
  PaddingSettings s = mode(PaddingMode::diffusion, 0);
  s.srgb = true;
  pad_image(image.view(), std::vector<std::uint8_t>{1, 0, 0, 1}, s, 1);
  EXPECT_EQ(image.row(), (std::vector<double>{0, 137, 225, 255}));
}

TEST(PaddingSrgb, EveryCodeSurvivesTheRoundTrip) {
  for (const double top : {255.0, 65535.0}) {
    for (int code = 0; code <= static_cast<int>(top); ++code) {
      const double back = linear_to_srgb(srgb_to_linear(code / top)) * top;
      ASSERT_EQ(std::floor(back + 0.5), code) << top;
    }
  }
  EXPECT_EQ(srgb_to_linear(0.04045), 0.04045 / 12.92);
  EXPECT_NEAR(srgb_to_linear(0.5), 0.21404114048223255, 1e-15);
  EXPECT_EQ(linear_to_srgb(-0.5), 0.0);
  EXPECT_EQ(linear_to_srgb(2.0), 1.0);
}

TEST(HalfFloat, RoundsToNearestEven) {
  EXPECT_EQ(double_to_half(1.0), 0x3C00);
  EXPECT_EQ(double_to_half(-2.0), 0xC000);
  EXPECT_EQ(double_to_half(0.0), 0x0000);
  EXPECT_EQ(double_to_half(-0.0), 0x8000);
  EXPECT_EQ(double_to_half(65504.0), 0x7BFF);
  EXPECT_EQ(double_to_half(65519.99), 0x7BFF);
  EXPECT_EQ(double_to_half(65520.0), 0x7C00);                         // halfway: even is infinity
  EXPECT_EQ(double_to_half(1.0 + std::ldexp(1.0, -11)), 0x3C00);      // halfway, even below
  EXPECT_EQ(double_to_half(1.0 + 3 * std::ldexp(1.0, -11)), 0x3C02);  // halfway, even above
  EXPECT_EQ(double_to_half(std::ldexp(1.0, -24)), 0x0001);
  EXPECT_EQ(double_to_half(std::ldexp(1.0, -25)), 0x0000);  // halfway to 0
  EXPECT_EQ(double_to_half(std::ldexp(1.5, -25)), 0x0001);
  EXPECT_EQ(double_to_half(std::ldexp(1023.5, -24)), 0x0400);  // up into the normals
  EXPECT_EQ(double_to_half(1.9996), 0x4000);                   // carries into the exponent
  EXPECT_EQ(double_to_half(INFINITY), 0x7C00);
  const std::uint16_t nan = double_to_half(NAN);
  EXPECT_EQ(nan & 0x7C00, 0x7C00);
  EXPECT_NE(nan & 0x03FF, 0);
  for (std::uint32_t bits = 0; bits < 0x10000; ++bits) {
    const auto h = static_cast<std::uint16_t>(bits);
    if ((h & 0x7C00) == 0x7C00 && (h & 0x03FF) != 0) {
      EXPECT_TRUE(std::isnan(half_to_double(h)));
      continue;
    }
    ASSERT_EQ(double_to_half(half_to_double(h)), h) << bits;
  }
  EXPECT_EQ(half_to_double(0x0001), std::ldexp(1.0, -24));
  EXPECT_EQ(half_to_double(0x3555), 0.333251953125);
}

TEST(PaddingThreads, EveryModeIsTheSameOnOneAndTwoThreads) {
  std::mt19937 rng(21);
  TestImage base(263, 141, 3, ComponentType::kU16);
  TestImage base8(263, 141, 4, ComponentType::kU8);
  std::vector<std::uint8_t> valid(263 * 141, 0);
  for (std::size_t i = 0; i < valid.size(); ++i) {
    const int x = static_cast<int>(i % 263);
    const int y = static_cast<int>(i / 263);
    valid[i] = ((x / 30 + y / 20) % 3 == 0 && rng() % 5 != 0) ? 1 : 0;
    for (int c = 0; c < 3; ++c) {
      base.set(i, c, valid[i] ? static_cast<double>(rng() % 65536) : 1.0);
    }
    for (int c = 0; c < 4; ++c) {
      base8.set(i, c, valid[i] ? static_cast<double>(rng() % 256) : 1.0);
    }
  }
  for (const PaddingMode m :
       {PaddingMode::ring, PaddingMode::passthrough, PaddingMode::infinite,
        PaddingMode::transparent, PaddingMode::color, PaddingMode::diffusion}) {
    for (const bool srgb : {false, true}) {
      PaddingSettings s = mode(m, 9);
      s.srgb = srgb;
      TestImage one = srgb ? base8 : base;
      TestImage two = one;
      const auto mask_one = pad_image(one.view(), valid, s, 1);
      const auto mask_two = pad_image(two.view(), valid, s, 2);
      EXPECT_EQ(mask_one, mask_two) << static_cast<int>(m);
      EXPECT_EQ(one.bytes, two.bytes) << static_cast<int>(m);
      if (m != PaddingMode::passthrough) {
        EXPECT_NE(one.bytes, (srgb ? base8 : base).bytes) << static_cast<int>(m);
      }
    }
  }
}

}  // namespace
}  // namespace kv
