#include "transfer/texture_sampler.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>

#include "image/half.h"

namespace kv::transfer {
namespace {

constexpr std::int32_t kFirstTile = 1001;
constexpr std::int32_t kTileCount = 999;
// Beyond this a UV cannot name a texel of any texture; such values are taken
// as no value rather than overflow an index.
constexpr double kLargestUv = 1e9;

// A texel index of an axis of n texels under the address mode. Repeat has
// already wrapped the UV, so an index is at most one texel outside.
std::int64_t address_index(std::int64_t i, std::int64_t n, AddressMode mode) {
  if (mode == AddressMode::repeat) {
    if (i < 0) {
      return i + n;
    }
    return i >= n ? i - n : i;
  }
  return std::clamp<std::int64_t>(i, 0, n - 1);
}

// floor(x) for |x| below 2^62, without a library call.
double floor_of(double x) {
  const auto whole = static_cast<double>(static_cast<std::int64_t>(x));
  return whole > x ? whole - 1.0 : whole;
}

}  // namespace

void texel_values(const TexelImage& image, std::int64_t texel, double* out) {
  const auto first = static_cast<std::size_t>(texel) * static_cast<std::size_t>(image.channels);
  const std::uint8_t* data = image.data.data();
  switch (image.type) {
    case ComponentType::kU8:
      for (int c = 0; c < image.channels; ++c) {
        out[c] = static_cast<double>(data[first + c]);
      }
      return;
    case ComponentType::kU16:
    case ComponentType::kF16:
    case ComponentType::kF32:
      for (int c = 0; c < image.channels; ++c) {
        out[c] = component_value(image, first + c);
      }
      return;
  }
}

namespace {

void read_texel(const TexelImage& image, std::int64_t texel, TexelSample& out) {
  out.image = &image;
  out.texel = texel;
}

// Every address mode has put the UV on the square (or beside it, for clamp):
// clamping the index is all that is left.
std::int64_t nearest_texel(const TexelImage& image, double u, double v) {
  const std::int64_t w = image.width;
  const std::int64_t h = image.height;
  const auto x = static_cast<std::int64_t>(floor_of(u * static_cast<double>(w)));
  const auto y = static_cast<std::int64_t>(floor_of((1.0 - v) * static_cast<double>(h)));
  // u - floor(u) may round up to 1: that texel is the last one, not the first.
  return std::clamp<std::int64_t>(y, 0, h - 1) * w + std::clamp<std::int64_t>(x, 0, w - 1);
}

// With 8-bit weights on 8-bit texels every product and every sum is a whole
// multiple of 2^-16 below 2^24, so whole numbers give exactly the value the
// doubles give, for a fraction of the work. weights: in units of 2^-16.
void blend_u8(const TexelImage& image, const std::array<std::int64_t, 4>& texels,
              const std::array<std::uint32_t, 4>& weights, TexelSample& out) {
  const auto channels = static_cast<std::size_t>(image.channels);
  std::array<const std::uint8_t*, 4> taps{};
  for (std::size_t k = 0; k < 4; ++k) {
    taps[k] = image.data.data() + static_cast<std::size_t>(texels[k]) * channels;
  }
  out.values = {0.0, 0.0, 0.0, 0.0};
  // Channel by channel, so that each sum stays in a register.
  for (std::size_t c = 0; c < channels; ++c) {
    const std::uint32_t sum = weights[0] * taps[0][c] + weights[1] * taps[1][c] +
                              weights[2] * taps[2][c] + weights[3] * taps[3][c];
    out.values[c] = static_cast<double>(sum) * 0x1p-16;
  }
}

void sample_bilinear(const TexelImage& image, double u, double v, const SamplerSettings& s,
                     TexelSample& out) {
  const std::int64_t w = image.width;
  const std::int64_t h = image.height;
  const double x = u * static_cast<double>(w) - 0.5;
  const double y = (1.0 - v) * static_cast<double>(h) - 0.5;
  const double x_floor = floor_of(x);
  const double y_floor = floor_of(y);
  const double fx = weight_fraction(x - x_floor, s.weights);
  const double fy = weight_fraction(y - y_floor, s.weights);
  const auto x0 = static_cast<std::int64_t>(x_floor);
  const auto y0 = static_cast<std::int64_t>(y_floor);
  const std::array<std::int64_t, 2> xs = {address_index(x0, w, s.address),
                                          address_index(x0 + 1, w, s.address)};
  const std::array<std::int64_t, 2> ys = {address_index(y0, h, s.address),
                                          address_index(y0 + 1, h, s.address)};
  const std::array<double, 4> weights = {(1.0 - fx) * (1.0 - fy), fx * (1.0 - fy), (1.0 - fx) * fy,
                                         fx * fy};
  // A weight of 1 is a texel read alone: its bytes, even NaN or infinity.
  for (std::size_t k = 0; k < 4; ++k) {
    if (weights[k] == 1.0) {
      read_texel(image, ys[k / 2] * w + xs[k % 2], out);
      return;
    }
  }
  out.image = nullptr;
  out.texel = -1;
  if (s.weights == BilinearWeights::gpu8 && image.type == ComponentType::kU8) {
    const std::array<std::int64_t, 4> texels = {ys[0] * w + xs[0], ys[0] * w + xs[1],
                                                ys[1] * w + xs[0], ys[1] * w + xs[1]};
    const auto ax = static_cast<std::uint32_t>(fx * 256.0);
    const auto ay = static_cast<std::uint32_t>(fy * 256.0);
    blend_u8(image, texels, {(256 - ax) * (256 - ay), ax * (256 - ay), (256 - ax) * ay, ax * ay},
             out);
    return;
  }
  out.values = {0.0, 0.0, 0.0, 0.0};
  std::array<double, 4> tap{};
  for (std::size_t k = 0; k < 4; ++k) {
    if (weights[k] == 0.0) {
      continue;  // 0 * infinity would spoil the neighbours' mean
    }
    texel_values(image, ys[k / 2] * w + xs[k % 2], tap.data());
    for (int c = 0; c < image.channels; ++c) {
      out.values[static_cast<std::size_t>(c)] += weights[k] * tap[static_cast<std::size_t>(c)];
    }
  }
}

}  // namespace

void SourceTexture::add_tile(std::int32_t tile, const TexelImage* image) {
  if (tiles_.empty()) {
    tiles_.assign(kTileCount, nullptr);
  }
  tiles_[static_cast<std::size_t>(tile - kFirstTile)] = image;
}

const TexelImage& SourceTexture::tile_for(double& u, double& v) const {
  const double column = floor_of(u);
  const double row = floor_of(v);
  if (column < 0.0 || column > 9.0 || row < 0.0 || row > 99.0) {
    return *image_;
  }
  const auto index = static_cast<std::size_t>(row * 10.0 + column);
  if (index >= tiles_.size() || tiles_[index] == nullptr) {
    return *image_;
  }
  u -= column;
  v -= row;
  return *tiles_[index];
}

double weight_fraction(double f, BilinearWeights weights) {
  if (weights == BilinearWeights::gpu8) {
    return round_half_even(f * 256.0) / 256.0;
  }
  constexpr double kWhole = 1e-9;
  if (f <= kWhole) {
    return 0.0;
  }
  return f >= 1.0 - kWhole ? 1.0 : f;
}

double component_value(const TexelImage& image, std::size_t index) {
  const std::uint8_t* data = image.data.data();
  switch (image.type) {
    case ComponentType::kU8:
      return static_cast<double>(data[index]);
    case ComponentType::kU16: {
      std::uint16_t value = 0;
      std::memcpy(&value, data + index * 2, 2);
      return static_cast<double>(value);
    }
    case ComponentType::kF16: {
      std::uint16_t bits = 0;
      std::memcpy(&bits, data + index * 2, 2);
      return half_bits_to_double(bits);
    }
    case ComponentType::kF32: {
      float value = 0.0f;
      std::memcpy(&value, data + index * 4, 4);
      return static_cast<double>(value);
    }
  }
  return 0.0;
}

namespace {

// The image a UV reads and the UV moved onto it by the address mode; null
// when the point gives no value. Inlined, as the readers below, into the
// run loops that call them once per texel.
[[gnu::always_inline]] inline const TexelImage* place_uv(const SourceTexture& source, double& u,
                                                         double& v, AddressMode address) {
  if (!(std::fabs(u) <= kLargestUv) || !(std::fabs(v) <= kLargestUv)) {
    return nullptr;
  }
  const TexelImage& image = source.image_for(u, v);
  if (address == AddressMode::window) {
    if (u < 0.0 || u > 1.0 || v < 0.0 || v > 1.0) {
      return nullptr;
    }
  } else if (address == AddressMode::repeat) {
    u -= floor_of(u);
    v -= floor_of(v);
  }
  return &image;
}

// The readers below take the address mode as a constant, so that each one's
// per-texel branches on it fold away.
template <std::size_t Bytes, AddressMode Address>
[[gnu::always_inline]] inline bool store_nearest(const SourceTexture& source, double u, double v,
                                                 const SamplerSettings&, std::uint8_t* dest) {
  const TexelImage* image = place_uv(source, u, v, Address);
  if (image == nullptr) {
    return false;
  }
  std::memcpy(dest,
              image->data.data() + static_cast<std::size_t>(nearest_texel(*image, u, v)) * Bytes,
              Bytes);
  return true;
}

// The first of a bilinear read's two texels along an axis and the
// second's weight in 256ths, for a blend equal to the one from floor_of(x)
// and the fraction over it rounded half to even. Adding 2^52 rounds to a
// whole number and leaves it in the low bits of the sum. For x >= 0 the
// fraction is exact, so rounding x * 256 (exact too, and below 2^52 for
// any UV place_uv lets through) gives the same 256ths; where they round up
// to a whole texel this names the next texel with weight 0, which blends to
// the same codes. Below 0 the fraction x + 1 may round, and is kept.
struct AxisTap {
  std::int64_t first = 0;
  std::uint32_t weight = 0;
};

// Texture sides are at most 16384 texels.
static_assert(kLargestUv * 16384.0 * 256.0 < 0x1p52, "x * 256 must stay below 2^52");

[[gnu::always_inline]] inline AxisTap axis_tap(double x) {
  constexpr std::uint64_t kMantissa = (std::uint64_t{1} << 52) - 1;
  if (x >= 0.0) {
    const std::uint64_t whole = std::bit_cast<std::uint64_t>(x * 256.0 + 0x1p52) & kMantissa;
    return {static_cast<std::int64_t>(whole >> 8), static_cast<std::uint32_t>(whole & 0xffu)};
  }
  const auto whole = static_cast<std::int64_t>(x);
  const std::int64_t first = whole - static_cast<std::int64_t>(static_cast<double>(whole) > x);
  const double code = (x - static_cast<double>(first)) * 256.0 + 0x1p52;
  return {first, static_cast<std::uint32_t>(std::bit_cast<std::uint64_t>(code) & 0x1ffu)};
}

// The four bytes of a word in the 16-bit lanes of a double word.
[[gnu::always_inline]] inline std::uint64_t spread_bytes(std::uint32_t word) {
  std::uint64_t x = word;
  x = (x | (x << 16)) & 0x0000ffff0000ffffu;
  return (x | (x << 8)) & 0x00ff00ff00ff00ffu;
}

// The 8-bit-weight blend of up to four u8 channels at once, each channel in
// its own lane of a whole number: the sum splits exactly into a blend along
// x, whose lanes stay below 2^16, and one along y, done in 32-bit lanes
// (below 2^24). Each lane then rounds half to even as the channel loop does.
template <int Channels>
[[gnu::always_inline]] inline void blend_u8_lanes(const std::uint8_t* t00, const std::uint8_t* t01,
                                                  const std::uint8_t* t10, const std::uint8_t* t11,
                                                  std::uint64_t ax, std::uint64_t ay,
                                                  std::uint8_t* dest) {
  const auto load = [](const std::uint8_t* texel) {
    std::uint32_t word = 0;
    std::memcpy(&word, texel, Channels);
    return spread_bytes(word);
  };
  const std::uint64_t top = (256 - ax) * load(t00) + ax * load(t01);
  const std::uint64_t bottom = (256 - ax) * load(t10) + ax * load(t11);
  constexpr std::uint64_t kLow = 0x0000ffff0000ffffu;
  const auto blend_y = [ay](std::uint64_t a, std::uint64_t b) {
    const std::uint64_t sum = (256 - ay) * a + ay * b;
    const std::uint64_t even = (sum >> 16) & 0x0000000100000001u;
    return ((sum + 0x00007fff00007fffu + even) >> 16) & 0x000000ff000000ffu;
  };
  const std::uint64_t codes = blend_y(top & kLow, bottom & kLow) |
                              (blend_y((top >> 16) & kLow, (bottom >> 16) & kLow) << 8);
  const auto word = static_cast<std::uint32_t>(codes | (codes >> 16));
  std::memcpy(dest, &word, Channels);
}

// The same blend channel by channel, for codes too wide for shared lanes.
template <typename Code, typename Sum, int Channels>
[[gnu::always_inline]] inline void blend_channels(const std::uint8_t* p00, const std::uint8_t* p01,
                                                  const std::uint8_t* p10, const std::uint8_t* p11,
                                                  Sum ax, Sum ay, std::uint8_t* dest) {
  constexpr std::size_t kTexelBytes = sizeof(Code) * Channels;
  Code t00[Channels];
  Code t01[Channels];
  Code t10[Channels];
  Code t11[Channels];
  std::memcpy(t00, p00, kTexelBytes);
  std::memcpy(t01, p01, kTexelBytes);
  std::memcpy(t10, p10, kTexelBytes);
  std::memcpy(t11, p11, kTexelBytes);
  const Sum w00 = (256 - ax) * (256 - ay);
  const Sum w01 = ax * (256 - ay);
  const Sum w10 = (256 - ax) * ay;
  const Sum w11 = ax * ay;
  // Straight into the output: bytes gathered on the stack and then copied
  // as one word would wait for the store forwarding that fails on them.
  for (int c = 0; c < Channels; ++c) {
    const Sum sum = w00 * t00[c] + w01 * t01[c] + w10 * t10[c] + w11 * t11[c];
    // Half to even: the rest carries into the whole part when above one
    // half, or at one half when the whole part is odd.
    const auto code = static_cast<Code>((sum + 0x7fffu + ((sum >> 16) & 1u)) >> 16);
    std::memcpy(dest + static_cast<std::size_t>(c) * sizeof(Code), &code, sizeof(Code));
  }
}

// The 8-bit-weight blend of u8 or u16 codes in whole numbers: every weight
// is a multiple of 2^-16 and every product and sum below 2^53 in doubles,
// so the doubles' sum is exactly sum / 2^16, and rounding it half to even
// is the same as rounding the whole number. A weight of 1 gives the texel's
// own code, as its copied bytes would.
template <typename Code, typename Sum, int Channels, AddressMode Address>
[[gnu::always_inline]] inline bool store_bilinear_gpu8(const SourceTexture& source, double u,
                                                       double v, const SamplerSettings&,
                                                       std::uint8_t* dest) {
  const TexelImage* image = place_uv(source, u, v, Address);
  if (image == nullptr) {
    return false;
  }
  const std::int64_t w = image->width;
  const std::int64_t h = image->height;
  const double x = u * static_cast<double>(w) - 0.5;
  const double y = (1.0 - v) * static_cast<double>(h) - 0.5;
  const AxisTap tx = axis_tap(x);
  const AxisTap ty = axis_tap(y);
  const Sum ax = tx.weight;
  const Sum ay = ty.weight;
  const std::int64_t x0 = tx.first;
  const std::int64_t y0 = ty.first;
  const auto xa = static_cast<std::size_t>(address_index(x0, w, Address));
  const auto xb = static_cast<std::size_t>(address_index(x0 + 1, w, Address));
  const auto row_a = static_cast<std::size_t>(address_index(y0, h, Address) * w);
  const auto row_b = static_cast<std::size_t>(address_index(y0 + 1, h, Address) * w);
  constexpr std::size_t kTexelBytes = sizeof(Code) * Channels;
  const std::uint8_t* data = image->data.data();
  const std::uint8_t* t00 = data + (row_a + xa) * kTexelBytes;
  const std::uint8_t* t01 = data + (row_a + xb) * kTexelBytes;
  const std::uint8_t* t10 = data + (row_b + xa) * kTexelBytes;
  const std::uint8_t* t11 = data + (row_b + xb) * kTexelBytes;
  if constexpr (sizeof(Code) == 1) {
    blend_u8_lanes<Channels>(t00, t01, t10, t11, ax, ay, dest);
  } else {
    blend_channels<Code, Sum, Channels>(t00, t01, t10, t11, ax, ay, dest);
  }
  return true;
}

// A run read with the texel reader inlined into the loop: no call per
// texel, and neighbouring texels' arithmetic overlaps.
template <StoreRead Read, std::size_t TexelBytes>
std::uint32_t store_run(const SourceTexture& source, const SamplerSettings& settings,
                        const RunPoint* points, std::size_t count, std::uint8_t* row,
                        std::uint8_t* valid_row) {
  std::uint32_t stored = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const RunPoint& p = points[i];
    const auto x = static_cast<std::size_t>(p.x);
    if (Read(source, p.u, p.v, settings, row + x * TexelBytes)) {
      valid_row[x] = 1;
      ++stored;
    }
  }
  return stored;
}

// One reader for a single texel and the same reader for a run.
struct Readers {
  StoreRead one = nullptr;
  StoreRun run = nullptr;
};

template <StoreRead Read, std::size_t TexelBytes>
constexpr Readers readers_of() {
  return {Read, &store_run<Read, TexelBytes>};
}

// Sum: wide enough for 2^16 times the largest code.
template <typename Code, typename Sum, AddressMode A>
Readers bilinear_for(int channels) {
  switch (channels) {
    case 1:
      return readers_of<&store_bilinear_gpu8<Code, Sum, 1, A>, sizeof(Code)>();
    case 2:
      return readers_of<&store_bilinear_gpu8<Code, Sum, 2, A>, 2 * sizeof(Code)>();
    case 3:
      return readers_of<&store_bilinear_gpu8<Code, Sum, 3, A>, 3 * sizeof(Code)>();
    case 4:
      return readers_of<&store_bilinear_gpu8<Code, Sum, 4, A>, 4 * sizeof(Code)>();
    default:
      return {};
  }
}

template <AddressMode A>
Readers nearest_for(std::size_t bytes) {
  switch (bytes) {
    case 1:
      return readers_of<&store_nearest<1, A>, 1>();
    case 2:
      return readers_of<&store_nearest<2, A>, 2>();
    case 3:
      return readers_of<&store_nearest<3, A>, 3>();
    case 4:
      return readers_of<&store_nearest<4, A>, 4>();
    case 6:
      return readers_of<&store_nearest<6, A>, 6>();
    case 8:
      return readers_of<&store_nearest<8, A>, 8>();
    case 12:
      return readers_of<&store_nearest<12, A>, 12>();
    case 16:
      return readers_of<&store_nearest<16, A>, 16>();
    default:
      return {};
  }
}

template <AddressMode A>
Readers readers_at(const SamplerSettings& settings, ComponentType type, int channels) {
  if (channels < 1 || channels > 4) {
    return {};
  }
  if (settings.filter == SampleFilter::nearest) {
    return nearest_for<A>(component_bytes(type) * static_cast<std::size_t>(channels));
  }
  if (settings.weights != BilinearWeights::gpu8) {
    return {};
  }
  if (type == ComponentType::kU8) {
    return bilinear_for<std::uint8_t, std::uint32_t, A>(channels);
  }
  return type == ComponentType::kU16 ? bilinear_for<std::uint16_t, std::uint64_t, A>(channels)
                                     : Readers{};
}

Readers readers_for(const SamplerSettings& settings, ComponentType type, int channels) {
  switch (settings.address) {
    case AddressMode::repeat:
      return readers_at<AddressMode::repeat>(settings, type, channels);
    case AddressMode::clamp:
      return readers_at<AddressMode::clamp>(settings, type, channels);
    case AddressMode::window:
      return readers_at<AddressMode::window>(settings, type, channels);
  }
  return {};
}

}  // namespace

StoreRead store_read_for(const SamplerSettings& settings, ComponentType type, int channels) {
  return readers_for(settings, type, channels).one;
}

StoreRun store_run_for(const SamplerSettings& settings, ComponentType type, int channels) {
  return readers_for(settings, type, channels).run;
}

bool sample_texture(const SourceTexture& source, double u, double v,
                    const SamplerSettings& settings, TexelSample& out) {
  const TexelImage* image = place_uv(source, u, v, settings.address);
  if (image == nullptr) {
    return false;
  }
  if (settings.filter == SampleFilter::nearest) {
    read_texel(*image, nearest_texel(*image, u, v), out);
  } else {
    sample_bilinear(*image, u, v, settings, out);
  }
  return true;
}

}  // namespace kv::transfer
