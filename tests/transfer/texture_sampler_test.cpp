// Texture reads: the filters, bilinear weights, address modes, exact texels
// at their centres, and how a mean is stored in each component type.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "image/half.h"
#include "transfer/texture_sampler.h"
#include "transfer/transfer_evaluator.h"
#include "transfer_test_util.h"

namespace kv::transfer {
namespace {

TexelImage row_of(std::vector<std::uint8_t> values) {
  TexelImage image = test::flat_image(static_cast<int>(values.size()), 1, 0);
  image.data = std::move(values);
  return image;
}

double read(const TexelImage& image, double u, double v, SamplerSettings s, bool* found = nullptr) {
  const SourceTexture source(&image);
  TexelSample sample;
  const bool ok = sample_texture(source, u, v, s, sample);
  if (found != nullptr) {
    *found = ok;
  }
  if (ok && sample.texel >= 0) {
    texel_values(*sample.image, sample.texel, sample.values.data());
  }
  return ok ? sample.values[0] : -1.0;
}

TEST(TextureSampler, BilinearWeightsQuantisedToEightBitsOrExact) {
  EXPECT_EQ(weight_fraction(0.3, BilinearWeights::gpu8), 77.0 / 256.0);
  EXPECT_EQ(weight_fraction(1.5 / 256.0, BilinearWeights::gpu8), 2.0 / 256.0);  // ties to even
  EXPECT_EQ(weight_fraction(2.5 / 256.0, BilinearWeights::gpu8), 2.0 / 256.0);
  EXPECT_EQ(weight_fraction(0.999, BilinearWeights::gpu8), 1.0);
  EXPECT_EQ(weight_fraction(0.3, BilinearWeights::exact), 0.3);
  EXPECT_EQ(weight_fraction(1e-12, BilinearWeights::exact), 0.0);
  EXPECT_EQ(weight_fraction(1.0 - 1e-12, BilinearWeights::exact), 1.0);

  const TexelImage image = row_of({0, 255});
  // u = 0.4 on two texels: x = 0.3 past the first centre.
  SamplerSettings s{SampleFilter::bilinear, AddressMode::clamp, BilinearWeights::exact};
  EXPECT_DOUBLE_EQ(read(image, 0.4, 0.5, s), 0.3 * 255.0);
  s.weights = BilinearWeights::gpu8;
  EXPECT_EQ(read(image, 0.4, 0.5, s), 77.0 / 256.0 * 255.0);
  // Repeat wraps the left neighbour of texel 0 onto texel 1.
  s.address = AddressMode::repeat;
  EXPECT_EQ(read(image, 0.0, 0.5, s), 127.5);
  s.address = AddressMode::clamp;
  EXPECT_EQ(read(image, 0.0, 0.5, s), 0.0);
}

TEST(TextureSampler, EightBitTexelsBlendInWholeNumbersExactlyAsInDoubles) {
  // The same codes as u8 (whole-number blend) and as u16 (the general blend).
  const TexelImage narrow = test::pattern_image(7, 5, 4, ComponentType::kU8);
  TexelImage wide = narrow;
  wide.type = ComponentType::kU16;
  wide.data.resize(narrow.data.size() * 2);
  for (std::size_t i = 0; i < narrow.data.size(); ++i) {
    const std::uint16_t code = narrow.data[i];
    std::memcpy(wide.data.data() + 2 * i, &code, 2);
  }
  const SourceTexture a(&narrow);
  const SourceTexture b(&wide);
  const SamplerSettings s{SampleFilter::bilinear, AddressMode::repeat, BilinearWeights::gpu8};
  std::uint32_t state = 7;
  int blended = 0;
  for (int i = 0; i < 2000; ++i) {
    state = state * 1664525u + 1013904223u;
    const double u = static_cast<double>(state >> 8) / 16777216.0 * 3.0 - 1.0;
    state = state * 1664525u + 1013904223u;
    const double v = static_cast<double>(state >> 8) / 16777216.0 * 3.0 - 1.0;
    TexelSample x;
    TexelSample y;
    ASSERT_TRUE(sample_texture(a, u, v, s, x));
    ASSERT_TRUE(sample_texture(b, u, v, s, y));
    ASSERT_EQ(x.texel, y.texel);
    if (x.texel < 0) {
      ++blended;
      EXPECT_EQ(x.values, y.values) << u << ", " << v;
    }
  }
  EXPECT_GT(blended, 1900);
}

TEST(TextureSampler, NearestAndTheAddressModes) {
  const TexelImage image = row_of({10, 20, 30, 40});
  SamplerSettings s{SampleFilter::nearest, AddressMode::repeat, BilinearWeights::gpu8};
  EXPECT_EQ(read(image, 0.0, 0.5, s), 10.0);
  EXPECT_EQ(read(image, 0.2499, 0.5, s), 10.0);
  EXPECT_EQ(read(image, 0.25, 0.5, s), 20.0);
  EXPECT_EQ(read(image, 1.25, 0.5, s), 20.0);
  EXPECT_EQ(read(image, -0.25, 7.5, s), 40.0);
  EXPECT_EQ(read(image, -1e-20, 0.5, s), 40.0);  // wraps to just below 1: the last texel
  s.address = AddressMode::clamp;
  EXPECT_EQ(read(image, -3.0, 0.5, s), 10.0);
  EXPECT_EQ(read(image, 5.0, -2.0, s), 40.0);
  s.address = AddressMode::window;
  bool found = true;
  EXPECT_EQ(read(image, 1.0, 0.5, s, &found), 40.0);  // the edge is inside
  EXPECT_TRUE(found);
  read(image, 1.01, 0.5, s, &found);
  EXPECT_FALSE(found);
  read(image, 0.5, -0.01, s, &found);
  EXPECT_FALSE(found);
  read(image, std::numeric_limits<double>::quiet_NaN(), 0.5, s, &found);
  EXPECT_FALSE(found);
}

TEST(TextureSampler, TexelCentresReadTheirTexelAloneEvenBesideNaN) {
  TexelImage image;
  image.width = 3;
  image.height = 1;
  image.channels = 1;
  image.type = ComponentType::kF16;
  const std::uint16_t bits[3] = {0x7e00, 0x0001, 0x7c00};  // NaN, 2^-24, infinity
  image.data.resize(6);
  std::memcpy(image.data.data(), bits, 6);
  for (const BilinearWeights w : {BilinearWeights::gpu8, BilinearWeights::exact}) {
    const SourceTexture source(&image);
    TexelSample sample;
    ASSERT_TRUE(sample_texture(source, 0.5 + 1e-14, 0.5,
                               SamplerSettings{SampleFilter::bilinear, AddressMode::clamp, w},
                               sample));
    EXPECT_EQ(sample.texel, 1);
    texel_values(*sample.image, sample.texel, sample.values.data());
    EXPECT_EQ(sample.values[0], 0x1p-24);
    EXPECT_EQ(sample.image, &image);
  }
}

TEST(TextureSampler, MeansAreStoredWithTheRoundingOfTheirType) {
  TexelImage u8 = test::flat_image(6, 1, 0);
  const double means[6] = {2.5, 3.5, -1.0, 300.0, std::nan(""), 254.5};
  for (std::size_t i = 0; i < 6; ++i) {
    store_component(u8, i, means[i]);
  }
  EXPECT_EQ(u8.data, (std::vector<std::uint8_t>{2, 4, 0, 255, 0, 254}));
  TexelImage u16 = test::pattern_image(2, 1, 1, ComponentType::kU16);
  store_component(u16, 0, 65534.5);
  store_component(u16, 1, 70000.0);
  std::uint16_t codes[2];
  std::memcpy(codes, u16.data.data(), 4);
  EXPECT_EQ(codes[0], 65534);
  EXPECT_EQ(codes[1], 65535);
  TexelImage f16 = test::pattern_image(2, 1, 1, ComponentType::kF16);
  store_component(f16, 0, 1.0 + 0x1p-11);            // halfway between two halves: the even one
  store_component(f16, 1, 1.0 + 0x1p-11 + 0x1p-40);  // just past halfway: up, in one rounding
  std::uint16_t halves[2];
  std::memcpy(halves, f16.data.data(), 4);
  EXPECT_EQ(halves[0], 0x3c00);
  EXPECT_EQ(halves[1], 0x3c01);
  TexelImage f32 = test::pattern_image(1, 1, 1, ComponentType::kF32);
  store_component(f32, 0, 1.0 / 3.0);
  float value = 0.0f;
  std::memcpy(&value, f32.data.data(), 4);
  EXPECT_EQ(value, 1.0f / 3.0f);
}

TEST(TextureSampler, SourceTilesByTheUvsTileColumnAndRow) {
  const TexelImage base = row_of({1});
  const TexelImage tile_1002 = row_of({2});
  const TexelImage tile_1011 = row_of({3, 4});
  SourceTexture source(&base);
  source.add_tile(1002, &tile_1002);
  source.add_tile(1011, &tile_1011);
  const SamplerSettings s{SampleFilter::nearest, AddressMode::window, BilinearWeights::gpu8};
  TexelSample sample;
  const auto value_at = [&](double u, double v) {
    EXPECT_TRUE(sample_texture(source, u, v, s, sample));
    return sample.image->data[static_cast<std::size_t>(sample.texel)];
  };
  EXPECT_EQ(value_at(1.5, 0.5), 2);
  EXPECT_EQ(value_at(0.75, 1.5), 4);                          // tile 1011, right half
  EXPECT_EQ(value_at(0.5, 0.5), 1);                           // 1001 is the texture itself
  EXPECT_FALSE(sample_texture(source, 2.5, 0.5, s, sample));  // 1003 is not listed: outside
}

}  // namespace
}  // namespace kv::transfer
