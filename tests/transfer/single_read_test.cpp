// The single-read fast paths against a plain computation of the transfer's
// sampling rules: the same stored bytes for every component type, channel
// count, filter, weights and address mode, on random textures and UVs.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "image/half.h"
#include "transfer/texture_sampler.h"
#include "transfer/transfer_evaluator.h"

namespace kv::transfer {
namespace {

TexelImage random_image(int w, int h, int channels, ComponentType type, std::mt19937& rng) {
  TexelImage image;
  image.width = w;
  image.height = h;
  image.channels = channels;
  image.type = type;
  image.data.resize(image.expected_bytes());
  if (type == ComponentType::kF32) {
    std::uniform_real_distribution<float> value(-1000.0f, 1000.0f);
    for (std::size_t i = 0; i < image.data.size(); i += 4) {
      const float f = value(rng);
      std::memcpy(image.data.data() + i, &f, 4);
    }
    return image;
  }
  for (std::uint8_t& byte : image.data) {
    byte = static_cast<std::uint8_t>(rng());
  }
  // Codes at both ends, where rounding clamps.
  std::fill_n(image.data.begin(), component_bytes(type), std::uint8_t{0xff});
  return image;
}

double value_at(const TexelImage& image, std::int64_t texel, int c) {
  const std::size_t index = static_cast<std::size_t>(texel) * image.channels + c;
  const std::uint8_t* p = image.data.data() + index * component_bytes(image.type);
  std::uint16_t u16 = 0;
  float f32 = 0.0f;
  switch (image.type) {
    case ComponentType::kU8:
      return *p;
    case ComponentType::kU16:
      std::memcpy(&u16, p, 2);
      return u16;
    case ComponentType::kF16:
      std::memcpy(&u16, p, 2);
      return half_bits_to_double(u16);
    case ComponentType::kF32:
      std::memcpy(&f32, p, 4);
      return f32;
  }
  return 0.0;
}

void store_reference(const TexelImage& image, const std::array<double, 4>& v,
                     std::vector<std::uint8_t>& out) {
  out.clear();
  for (int c = 0; c < image.channels; ++c) {
    const double x = v[static_cast<std::size_t>(c)];
    std::uint8_t bytes[4] = {};
    if (image.type == ComponentType::kU8 || image.type == ComponentType::kU16) {
      const double top = image.type == ComponentType::kU8 ? 255.0 : 65535.0;
      const double code = std::isnan(x) ? 0.0 : std::nearbyint(std::clamp(x, 0.0, top));
      const auto whole = static_cast<std::uint16_t>(code);
      std::memcpy(bytes, &whole, 2);
    } else if (image.type == ComponentType::kF16) {
      const std::uint16_t half = double_to_half_bits(x);
      std::memcpy(bytes, &half, 2);
    } else {
      const auto f = static_cast<float>(x);
      std::memcpy(bytes, &f, 4);
    }
    out.insert(out.end(), bytes, bytes + component_bytes(image.type));
  }
}

std::int64_t wrap(std::int64_t i, std::int64_t n, AddressMode mode) {
  if (mode == AddressMode::repeat) {
    return ((i % n) + n) % n;
  }
  return std::clamp<std::int64_t>(i, 0, n - 1);
}

// The stored bytes of one read as the rules say, straight from them; false
// where the read gives no value.
bool reference_read(const TexelImage& image, double u, double v, const SamplerSettings& s,
                    std::vector<std::uint8_t>& out) {
  if (!std::isfinite(u) || !std::isfinite(v)) {
    return false;
  }
  if (s.address == AddressMode::window && (u < 0.0 || u > 1.0 || v < 0.0 || v > 1.0)) {
    return false;
  }
  if (s.address == AddressMode::repeat) {
    u -= std::floor(u);
    v -= std::floor(v);
  }
  const std::int64_t w = image.width;
  const std::int64_t h = image.height;
  const std::size_t texel_bytes = component_bytes(image.type) * image.channels;
  auto copy = [&](std::int64_t texel) {
    const auto* first = image.data.data() + static_cast<std::size_t>(texel) * texel_bytes;
    out.assign(first, first + texel_bytes);
  };
  if (s.filter == SampleFilter::nearest) {
    const auto x = std::clamp<std::int64_t>(
        static_cast<std::int64_t>(std::floor(u * static_cast<double>(w))), 0, w - 1);
    const auto y = std::clamp<std::int64_t>(
        static_cast<std::int64_t>(std::floor((1.0 - v) * static_cast<double>(h))), 0, h - 1);
    copy(y * w + x);
    return true;
  }
  const double x = u * static_cast<double>(w) - 0.5;
  const double y = (1.0 - v) * static_cast<double>(h) - 0.5;
  auto fraction = [&](double f) {
    if (s.weights == BilinearWeights::gpu8) {
      return std::nearbyint(f * 256.0) / 256.0;
    }
    return f <= 1e-9 ? 0.0 : (f >= 1.0 - 1e-9 ? 1.0 : f);
  };
  const double fx = fraction(x - std::floor(x));
  const double fy = fraction(y - std::floor(y));
  const auto x0 = static_cast<std::int64_t>(std::floor(x));
  const auto y0 = static_cast<std::int64_t>(std::floor(y));
  const std::array<double, 4> weights = {(1 - fx) * (1 - fy), fx * (1 - fy), (1 - fx) * fy,
                                         fx * fy};
  std::array<double, 4> sum{};
  for (std::size_t k = 0; k < 4; ++k) {
    const std::int64_t texel = wrap(y0 + static_cast<std::int64_t>(k / 2), h, s.address) * w +
                               wrap(x0 + static_cast<std::int64_t>(k % 2), w, s.address);
    if (weights[k] == 1.0) {
      copy(texel);
      return true;
    }
    for (int c = 0; c < image.channels && weights[k] != 0.0; ++c) {
      sum[static_cast<std::size_t>(c)] += weights[k] * value_at(image, texel, c);
    }
  }
  store_reference(image, sum, out);
  return true;
}

// What the evaluator stores from one read when no fast path exists.
bool general_read(const TexelImage& image, double u, double v, const SamplerSettings& s,
                  std::vector<std::uint8_t>& out) {
  TexelSample sample;
  if (!sample_texture(SourceTexture(&image), u, v, s, sample)) {
    return false;
  }
  const std::size_t texel_bytes = component_bytes(image.type) * image.channels;
  if (sample.texel >= 0) {
    const auto* first = image.data.data() + static_cast<std::size_t>(sample.texel) * texel_bytes;
    out.assign(first, first + texel_bytes);
    return true;
  }
  TexelImage one;
  one.width = one.height = 1;
  one.channels = image.channels;
  one.type = image.type;
  one.data.assign(texel_bytes, 0);
  store_texel_values(one, 0, sample.values.data());
  out = one.data;
  return true;
}

// UVs on texel centres, on edges, at gpu8 ties, anywhere, outside the square
// and not finite.
std::vector<std::array<double, 2>> random_uvs(int w, int h, std::mt19937& rng) {
  std::uniform_int_distribution<int> texel(-2 * std::max(w, h), 3 * std::max(w, h));
  std::uniform_int_distribution<int> step(0, 512);
  std::uniform_real_distribution<double> anywhere(-1.5, 2.5);
  std::vector<std::array<double, 2>> uvs;
  for (int i = 0; i < 600; ++i) {
    const double px = texel(rng) + step(rng) / 512.0;
    const double py = texel(rng) + step(rng) / 512.0;
    uvs.push_back({(px + 0.5) / w, 1.0 - (py + 0.5) / h});
    uvs.push_back({anywhere(rng), anywhere(rng)});
  }
  // Just below a whole texel, where the 256ths round up to the next texel,
  // and in the half texel before the first, where the fraction is x + 1.
  for (int i = 0; i < 60; ++i) {
    const double below = texel(rng) + 1.0 - std::ldexp(1.0, -(9 + i % 40));
    const double before = -std::ldexp(1.0, -(2 + i % 50)) - step(rng) / 1024.0;
    uvs.push_back({(below + 0.5) / w, 1.0 - (before + 0.5) / h});
    uvs.push_back({(before + 0.5) / w, 1.0 - (below + 0.5) / h});
  }
  uvs.push_back({std::nan(""), 0.5});
  uvs.push_back({0.5, std::numeric_limits<double>::infinity()});
  uvs.push_back({1.0, 0.0});
  return uvs;
}

std::string case_name(const SamplerSettings& s, ComponentType type, int channels) {
  return "filter " + std::to_string(static_cast<int>(s.filter)) + " address " +
         std::to_string(static_cast<int>(s.address)) + " weights " +
         std::to_string(static_cast<int>(s.weights)) + " type " +
         std::to_string(static_cast<int>(type)) + " channels " + std::to_string(channels);
}

TEST(SingleRead, FastAndGeneralPathsStoreTheBytesOfAPlainComputation) {
  std::mt19937 rng(20261124);
  int fast_cases = 0;
  for (const ComponentType type :
       {ComponentType::kU8, ComponentType::kU16, ComponentType::kF16, ComponentType::kF32}) {
    for (int channels = 1; channels <= 4; ++channels) {
      const TexelImage image = random_image(5, 3, channels, type, rng);
      const std::vector<std::array<double, 2>> uvs = random_uvs(5, 3, rng);
      for (const SampleFilter filter : {SampleFilter::nearest, SampleFilter::bilinear}) {
        for (const AddressMode address :
             {AddressMode::repeat, AddressMode::clamp, AddressMode::window}) {
          for (const BilinearWeights weights : {BilinearWeights::gpu8, BilinearWeights::exact}) {
            const SamplerSettings s{filter, address, weights};
            SCOPED_TRACE(case_name(s, type, channels));
            const StoreRead fast = store_read_for(s, type, channels);
            fast_cases += fast != nullptr ? 1 : 0;
            for (const auto& [u, v] : uvs) {
              std::vector<std::uint8_t> want;
              std::vector<std::uint8_t> general;
              const bool found = reference_read(image, u, v, s, want);
              ASSERT_EQ(general_read(image, u, v, s, general), found) << u << " " << v;
              if (!found) {
                continue;
              }
              ASSERT_EQ(general, want) << u << " " << v;
              if (fast != nullptr) {
                std::vector<std::uint8_t> got(want.size() + 1, 0xa5);
                ASSERT_TRUE(fast(SourceTexture(&image), u, v, s, got.data()));
                EXPECT_EQ(got.back(), 0xa5) << "wrote past the texel";
                got.pop_back();
                ASSERT_EQ(got, want) << u << " " << v;
              }
            }
          }
        }
      }
    }
  }
  // Nearest for every type, bilinear gpu8 for u8 and u16: 4 * 4 * 3 * 2 + 2 * 4 * 3.
  EXPECT_EQ(fast_cases, 120);
}

TEST(SingleRead, FastPathsGiveNoValueWhereTheGeneralPathGivesNone) {
  std::mt19937 rng(7);
  const TexelImage image = random_image(4, 4, 4, ComponentType::kU8, rng);
  const SamplerSettings s{SampleFilter::bilinear, AddressMode::window, BilinearWeights::gpu8};
  const StoreRead fast = store_read_for(s, ComponentType::kU8, 4);
  ASSERT_NE(fast, nullptr);
  std::array<std::uint8_t, 4> dest = {1, 2, 3, 4};
  for (const auto& [u, v] : std::vector<std::array<double, 2>>{
           {-0.01, 0.5}, {0.5, 1.01}, {std::nan(""), 0.5}, {0.5, -1e300}}) {
    EXPECT_FALSE(fast(SourceTexture(&image), u, v, s, dest.data())) << u << " " << v;
  }
  EXPECT_EQ(dest, (std::array<std::uint8_t, 4>{1, 2, 3, 4}));  // left untouched
}

}  // namespace
}  // namespace kv::transfer
