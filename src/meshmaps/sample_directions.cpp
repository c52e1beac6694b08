#include "meshmaps/sample_directions.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>

#include "core/error.h"
#include "image/png.h"
#include "platform/platform.h"

namespace kv::meshmaps {
namespace {

constexpr std::size_t kNoiseValues = NoiseTable::kSide * NoiseTable::kSide * 4;

// The additive steps of the plastic-number sequence: offsets taken from one
// noise value per texel stay spread out across the channels and sub-samples.
constexpr double kStep1 = 0.7548776662466927;
constexpr double kStep2 = 0.5698402909980532;

double fraction(double x) {
  return x - std::floor(x);
}

std::uint32_t mix(std::uint32_t x) {
  x ^= x >> 16;
  x *= 0x7feb352du;
  x ^= x >> 15;
  x *= 0x846ca68bu;
  x ^= x >> 16;
  return x;
}

double radical_inverse2(std::uint32_t i) {
  i = (i << 16) | (i >> 16);
  i = ((i & 0x00ff00ffu) << 8) | ((i & 0xff00ff00u) >> 8);
  i = ((i & 0x0f0f0f0fu) << 4) | ((i & 0xf0f0f0f0u) >> 4);
  i = ((i & 0x33333333u) << 2) | ((i & 0xccccccccu) >> 2);
  i = ((i & 0x55555555u) << 1) | ((i & 0xaaaaaaaau) >> 1);
  return static_cast<double>(i) * (1.0 / 4294967296.0);
}

}  // namespace

std::uint32_t hash32(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d) {
  std::uint32_t h = mix(a + 0x9e3779b9u);
  h = mix(h ^ (b + 0x85ebca6bu));
  h = mix(h ^ (c + 0xc2b2ae35u));
  return mix(h ^ (d + 0x27d4eb2fu));
}

NoiseTable::NoiseTable(std::vector<float> values) : values_(std::move(values)) {
  if (values_.size() != kNoiseValues) {
    throw Error("meshmaps: the noise table must hold 256 x 256 x 4 values");
  }
}

NoiseTable NoiseTable::from_codes(std::span<const std::uint8_t> codes) {
  if (codes.size() != kSide * kSide) {
    throw Error("meshmaps: the .x noise must hold 256 x 256 byte codes");
  }
  std::vector<float> values(kNoiseValues);
  for (std::size_t i = 0; i < codes.size(); ++i) {
    const double v = static_cast<double>(codes[i]) / 256.0;
    values[i * 4 + 0] = static_cast<float>(v);
    values[i * 4 + 1] = static_cast<float>(fraction(v + kStep1));
    values[i * 4 + 2] = static_cast<float>(fraction(v + kStep2));
    values[i * 4 + 3] = static_cast<float>(fraction(v + kStep1 + kStep2));
  }
  return NoiseTable(std::move(values));
}

NoiseTable NoiseTable::read_png(const std::filesystem::path& path) {
  static const char* const kMessage = "--noise needs an 8- or 16-bit 256 x 256 PNG";
  TexelImage image;
  try {
    image = readPng(path);
  } catch (const Error&) {
    throw Error(kMessage);
  }
  if (image.width != static_cast<int>(kSide) || image.height != static_cast<int>(kSide) ||
      (image.type != ComponentType::kU8 && image.type != ComponentType::kU16) ||
      image.channels < 1) {
    throw Error(kMessage);
  }
  const auto channels = static_cast<std::size_t>(image.channels);
  const bool wide = image.type == ComponentType::kU16;
  const double scale = wide ? 65536.0 : 256.0;
  std::vector<float> values(kNoiseValues);
  for (std::size_t t = 0; t < kSide * kSide; ++t) {
    for (std::size_t k = 0; k < 4; ++k) {
      // Fewer than four channels: the last one stands for the rest, turned.
      const std::size_t c = std::min(k, channels - 1);
      const std::size_t i = t * channels + c;
      double code = 0.0;
      if (wide) {
        std::uint16_t v = 0;
        std::memcpy(&v, image.data.data() + i * 2, 2);
        code = static_cast<double>(v);
      } else {
        code = static_cast<double>(image.data[i]);
      }
      values[t * 4 + k] =
          static_cast<float>(fraction(code / scale + kStep1 * static_cast<double>(k - c)));
    }
  }
  return NoiseTable(std::move(values));
}

NoiseTable NoiseTable::read_raw(const std::filesystem::path& path) {
  int error = 0;
  const auto bytes = platform::read_file(path, &error);
  if (!bytes || bytes->size() != kSide * kSide) {
    throw Error("--noise-x needs a raw file of exactly 65536 bytes");
  }
  const auto* data = reinterpret_cast<const std::uint8_t*>(bytes->data());
  return from_codes(std::span(data, bytes->size()));
}

std::array<float, 4> NoiseTable::at(std::int32_t x, std::int32_t y) const {
  const std::size_t i =
      (static_cast<std::size_t>(y) & 255u) * kSide + (static_cast<std::size_t>(x) & 255u);
  return {values_[i * 4], values_[i * 4 + 1], values_[i * 4 + 2], values_[i * 4 + 3]};
}

std::array<double, 2> sample_rotation(std::int32_t x, std::int32_t y, std::uint32_t sample,
                                      std::uint32_t map, const NoiseTable* noise) {
  if (noise != nullptr) {
    const std::array<float, 4> n = noise->at(x, y);
    const double s = static_cast<double>(sample + map * 7u);
    return {fraction(static_cast<double>(n[0]) + s * kStep1),
            fraction(static_cast<double>(n[1]) + s * kStep2)};
  }
  const std::uint32_t h1 =
      hash32(static_cast<std::uint32_t>(x), static_cast<std::uint32_t>(y), sample, map);
  const std::uint32_t h2 = mix(h1 ^ 0x68e31da4u);
  return {static_cast<double>(h1) * (1.0 / 4294967296.0),
          static_cast<double>(h2) * (1.0 / 4294967296.0)};
}

std::vector<std::array<double, 2>> point_set(std::int32_t count) {
  std::vector<std::array<double, 2>> points(static_cast<std::size_t>(count));
  for (std::int32_t i = 0; i < count; ++i) {
    points[static_cast<std::size_t>(i)] = {
        (static_cast<double>(i) + 0.5) / static_cast<double>(count),
        radical_inverse2(static_cast<std::uint32_t>(i))};
  }
  return points;
}

void tangent_basis(const Vec3f& normal, Vec3d& t, Vec3d& b) {
  // Duff et al.'s branchless basis: continuous except across z = 0.
  const Vec3d n = widen(normal);
  const double sign = std::copysign(1.0, n[2]);
  const double a = -1.0 / (sign + n[2]);
  const double c = n[0] * n[1] * a;
  t = {1.0 + sign * n[0] * n[0] * a, sign * c, -sign * n[0]};
  b = {c, sign + n[1] * n[1] * a, -n[1]};
}

DirectionSet direction_set(std::int32_t count, float spread, Distribution distribution) {
  DirectionSet set;
  const double half_angle = static_cast<double>(spread) * 0.5 * std::numbers::pi / 180.0;
  set.cos_max = std::cos(half_angle);
  set.sin2_max = std::sin(half_angle) * std::sin(half_angle);
  set.distribution = distribution;
  for (const auto& p : point_set(count)) {
    set.u1.push_back(p[0]);
    set.cos_phi.push_back(std::cos(2.0 * std::numbers::pi * p[1]));
    set.sin_phi.push_back(std::sin(2.0 * std::numbers::pi * p[1]));
  }
  return set;
}

void hemisphere_directions(const DirectionSet& set, const std::array<double, 2>& rotation,
                           const Vec3f& normal, std::vector<Vec3f>& directions,
                           std::vector<double>& cosines) {
  Vec3d t{};
  Vec3d b{};
  tangent_basis(normal, t, b);
  const Vec3d n = widen(normal);
  const double turn = 2.0 * std::numbers::pi * rotation[1];
  const double cos_turn = std::cos(turn);
  const double sin_turn = std::sin(turn);
  const std::size_t count = set.u1.size();
  directions.resize(count);
  cosines.resize(count);
  for (std::size_t i = 0; i < count; ++i) {
    const double u = fraction(set.u1[i] + rotation[0]);
    // Cosine: density proportional to cos(theta) over the cap, so sin^2 is
    // uniform; uniform: cos(theta) is.
    const double cos_theta = set.distribution == Distribution::cosine
                                 ? std::sqrt(std::max(0.0, 1.0 - u * set.sin2_max))
                                 : 1.0 - u * (1.0 - set.cos_max);
    const double sin_theta = std::sqrt(std::max(0.0, 1.0 - cos_theta * cos_theta));
    const double ct = (set.cos_phi[i] * cos_turn - set.sin_phi[i] * sin_turn) * sin_theta;
    const double cb = (set.sin_phi[i] * cos_turn + set.cos_phi[i] * sin_turn) * sin_theta;
    Vec3f d{};
    for (std::size_t k = 0; k < 3; ++k) {
      d[k] = static_cast<float>(t[k] * ct + b[k] * cb + n[k] * cos_theta);
    }
    normalize_in_place(d);
    directions[i] = d;
    cosines[i] = cos_theta;
  }
}

}  // namespace kv::meshmaps
