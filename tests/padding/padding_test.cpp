// Padding: the ring mode (dilate_mean, dilate_mean_image, pad_image), the
// nearest-valid-texel modes, sRGB means, half-float images and the entry checks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <random>
#include <string>

#include "image/half.h"
#include "padding/padding.h"
#include "support/message_of.h"

namespace kv {
namespace {

using Mask = std::vector<std::uint8_t>;
using Values = std::vector<double>;

// An image that owns its bytes; values are given and read as doubles in the
// component's own units.
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
    std::byte* at = &bytes[(texel * c + channel) * component_bytes(type)];
    if (type == ComponentType::kU8) {
      *at = static_cast<std::byte>(v);
    } else if (type == ComponentType::kF32) {
      const auto f = static_cast<float>(v);
      std::memcpy(at, &f, 4);
    } else {
      const std::uint16_t code =
          type == ComponentType::kU16 ? static_cast<std::uint16_t>(v) : double_to_half_bits(v);
      std::memcpy(at, &code, 2);
    }
  }
  double get(std::size_t texel, std::int32_t channel = 0) const {
    const std::byte* at = &bytes[(texel * c + channel) * component_bytes(type)];
    if (type == ComponentType::kU8) {
      return std::to_integer<int>(*at);
    }
    if (type == ComponentType::kF32) {
      float f;
      std::memcpy(&f, at, 4);
      return f;
    }
    std::uint16_t code;
    std::memcpy(&code, at, 2);
    return type == ComponentType::kU16 ? code : half_bits_to_double(code);
  }
  void put(std::size_t texel, const Values& v) {
    for (std::size_t k = 0; k < v.size(); ++k) {
      set(texel, static_cast<std::int32_t>(k), v[k]);
    }
  }
  // Every channel of one texel.
  Values texel(std::size_t i) const {
    Values out;
    for (std::int32_t k = 0; k < c; ++k) {
      out.push_back(get(i, k));
    }
    return out;
  }
  // Channel 0 of every texel.
  Values row() const {
    Values out;
    for (std::size_t i = 0; i < static_cast<std::size_t>(w) * h; ++i) {
      out.push_back(get(i));
    }
    return out;
  }
};

PaddingSettings mode(PaddingMode m, std::int32_t width, bool srgb = false) {
  PaddingSettings s;
  s.mode = m;
  s.width = width;
  s.srgb = srgb;
  return s;
}

// A one-row image of one channel holding `values`.
TestImage line(const Values& values, ComponentType type = ComponentType::kU16) {
  TestImage image(static_cast<std::int32_t>(values.size()), 1, 1, type);
  for (std::size_t i = 0; i < values.size(); ++i) {
    image.set(i, 0, values[i]);
  }
  return image;
}

// Pads a one-row, one-channel image of `values` on one thread; the mask and
// the row afterwards.
using Padded = std::pair<Mask, Values>;
Padded pad_line(const Values& values, const Mask& valid, const PaddingSettings& s,
                ComponentType type = ComponentType::kU16) {
  TestImage image = line(values, type);
  Mask mask = pad_image(image.view(), valid, s, 1);
  return {mask, image.row()};
}

MapU16 make_map(std::int32_t w, std::int32_t h, std::int32_t c, std::uint16_t fill) {
  return MapU16{w, h, c, std::vector<std::uint16_t>(static_cast<std::size_t>(w) * h * c, fill)};
}

void expect_error(const std::function<void()>& fn, const std::string& message) {
  EXPECT_EQ(test::message_of(fn), message);
}

// A plain, sequential ring dilation written straight from the rule, against
// which the pooled one is checked. Ring r is the empty texels beside ring
// r - 1 (ring 0: the valid texels); each takes the mean of its 8 neighbours
// in ring r - 1, coordinates clamped into the image (a clamped neighbour
// counts again), kept unrounded and rounded half up once at the end.
Mask reference_ring(MapU16& map, const Mask& valid, int width) {
  static const int dx[8] = {-1, 1, 0, 0, -1, 1, -1, 1};
  static const int dy[8] = {0, 0, -1, 1, -1, -1, 1, 1};
  const int w = map.width, h = map.height, ch = map.channels;
  std::vector<int> ring_of(valid.size(), -1);
  for (std::size_t i = 0; i < valid.size(); ++i) {
    ring_of[i] = valid[i] ? 0 : -1;
  }
  std::vector<double> value(map.codes.begin(), map.codes.end());
  const auto neighbour = [&](int i, int k) {
    return std::clamp(i / w + dy[k], 0, h - 1) * w + std::clamp(i % w + dx[k], 0, w - 1);
  };
  for (int r = 1; r <= width; ++r) {
    std::vector<int> ring;
    std::vector<double> mean;
    for (int i = 0; i < w * h; ++i) {
      int count = 0;
      std::vector<double> sum(ch, 0.0);
      for (int k = 0; k < 8 && ring_of[i] < 0; ++k) {
        const int n = neighbour(i, k);
        if (ring_of[n] == r - 1) {
          ++count;
          for (int c = 0; c < ch; ++c) {
            sum[c] += value[n * ch + c];
          }
        }
      }
      if (count > 0) {
        ring.push_back(i);
        for (int c = 0; c < ch; ++c) {
          mean.push_back(sum[c] / count);
        }
      }
    }
    for (std::size_t j = 0; j < ring.size(); ++j) {
      ring_of[ring[j]] = r;
      std::copy_n(mean.begin() + j * ch, ch, value.begin() + ring[j] * ch);
    }
  }
  Mask mask(valid.size());
  for (std::size_t i = 0; i < valid.size(); ++i) {
    mask[i] = ring_of[i] >= 0 ? 1 : 0;
    for (int c = 0; c < ch && ring_of[i] > 0; ++c) {
      const double m = value[i * ch + c];
      map.codes[i * ch + c] =
          m <= 0 ? 0 : (m >= 65535 ? 65535 : static_cast<std::uint16_t>(std::floor(m + 0.5)));
    }
  }
  return mask;
}

// Random valid texels with random codes: `blobs` discs, or (blobs 0) single
// texels, about one in `one_in`, so the first ring holds most of the image.
Mask random_valid(MapU16& map, std::uint32_t seed, int blobs, std::uint32_t one_in = 0) {
  std::mt19937 rng(seed);
  const int w = map.width, h = map.height;
  Mask valid(static_cast<std::size_t>(w) * h, 0);
  for (int b = 0; b < blobs; ++b) {
    const int cx = static_cast<int>(rng() % w), cy = static_cast<int>(rng() % h);
    const int r = 1 + static_cast<int>(rng() % 6);
    for (int y = std::max(0, cy - r); y <= std::min(h - 1, cy + r); ++y) {
      for (int x = std::max(0, cx - r); x <= std::min(w - 1, cx + r); ++x) {
        if ((x - cx) * (x - cx) + (y - cy) * (y - cy) <= r * r) {
          valid[static_cast<std::size_t>(y) * w + x] = static_cast<std::uint8_t>(1 + rng() % 200);
        }
      }
    }
  }
  for (std::size_t i = 0; i < valid.size(); ++i) {
    if (one_in > 0) {
      valid[i] = rng() % one_in == 0 ? 1 : 0;
    }
    for (int c = 0; c < map.channels; ++c) {
      map.codes[i * map.channels + c] = static_cast<std::uint16_t>(valid[i] ? rng() % 65536 : 77);
    }
  }
  return valid;
}

TEST(RingPadding, ClampedNeighboursAndOneRoundingHalfUpAtTheEnd) {
  // Row 0 valid (100, 1000, 40); row 1 is the first ring. At (0, 1) the
  // neighbours (x, y-1) and the clamped (x-1, y-1) are both (0, 0):
  // (100 + 100 + 1000) / 3 = 400, where skipping would give 550.
  // (1, 1): (1000 + 100 + 40) / 3 = 380; (2, 1): (40 + 1000 + 40) / 3 = 360.
  MapU16 map = make_map(3, 2, 1, 0);
  map.codes = {100, 1000, 40, 0, 0, 0};
  EXPECT_EQ(dilate_mean(map, Mask{1, 1, 1, 0, 0, 0}, 1, 1), Mask(6, 1));
  EXPECT_EQ(map.codes, (std::vector<std::uint16_t>{100, 1000, 40, 400, 380, 360}));

  // 3 x 3, row 0 valid (0, 1, 2). Ring 1 means: 1/3, 1, 5/3. Ring 2:
  // (0,2) = (1/3 + 1/3 + 1)/3 = 5/9 -> 1 (rounding ring 1 first would give
  // 0); (1,2) = 1; (2,2) = 13/9 -> 1 (rounding first: 5/3 -> 2 gives 2).
  map = make_map(3, 3, 1, 9);
  map.codes[0] = 0;
  map.codes[1] = 1;
  map.codes[2] = 2;
  dilate_mean(map, Mask{1, 1, 1, 0, 0, 0, 0, 0, 0}, 2, 1);
  EXPECT_EQ(map.codes, (std::vector<std::uint16_t>{0, 1, 2, 0, 1, 2, 1, 1, 1}));

  // One empty texel between two sources: the clamped neighbours count each
  // side three times, so the mean is (a + b) / 2: 10.5 -> 11, 65534.5 -> 65535.
  map = make_map(3, 1, 2, 0);
  map.codes = {10, 65535, 0, 0, 11, 65534};
  dilate_mean(map, Mask{1, 0, 1}, 1, 1);
  EXPECT_EQ(map.codes, (std::vector<std::uint16_t>{10, 65535, 11, 65535, 11, 65534}));
}

TEST(RingPadding, MatchesPlainReferenceAcrossBlocksAndTasks) {
  struct Scene {
    MapU16 map;
    Mask valid;
    int width;
  };
  std::vector<Scene> scenes;
  // Large enough for several 32-row blocks and rings of more than 16,384
  // texels, so chunk seams and ordered joins are exercised. Scattered texels
  // make a first ring of about 35,000 texels: three tasks of 16,384.
  const std::array<int, 4> randoms[] = {{1, 3, 60, 0},  {2, 3, 60, 0}, {5, 3, 60, 0},
                                        {40, 3, 60, 0}, {1, 2, 0, 12}, {3, 2, 0, 12}};
  for (const auto& [width, channels, blobs, one_in] : randoms) {
    MapU16 map = make_map(301, 203, channels, 0);
    const Mask valid = random_valid(map, 1234u + static_cast<std::uint32_t>(width), blobs,
                                    static_cast<std::uint32_t>(one_in));
    scenes.push_back({map, valid, width});
  }
  // Width 0 (a mask value of 9 still comes back as 1), a full and an empty
  // image: nothing changes.
  MapU16 ramp = make_map(5, 4, 2, 5);
  for (std::size_t i = 0; i < ramp.codes.size(); ++i) {
    ramp.codes[i] = static_cast<std::uint16_t>(i * 1000);
  }
  Mask one(20, 0);
  one[5] = 9;
  scenes.push_back({ramp, one, 0});
  scenes.push_back({ramp, Mask(20, 1), 8});
  scenes.push_back({ramp, Mask(20, 0), 8});
  // One texel of a 7 x 7 image fills rings 1 and 2 with its value; the
  // outermost border would be ring 3.
  MapU16 single = make_map(7, 7, 3, 11);
  single.codes[24 * 3] = 1000;
  single.codes[24 * 3 + 2] = 65535;
  Mask centre(49, 0);
  centre[24] = 1;
  scenes.push_back({single, centre, 2});
  for (const Scene& k : scenes) {
    MapU16 expected = k.map;
    const auto expected_mask = reference_ring(expected, k.valid, k.width);
    for (const int threads : {1, 2}) {
      MapU16 map = k.map;
      EXPECT_EQ(dilate_mean(map, k.valid, k.width, threads), expected_mask);
      EXPECT_EQ(map.codes, expected.codes) << "width " << k.width << " threads " << threads;
      // The same through the image entry.
      map = k.map;
      const ImageView image{map.width, map.height, map.channels, ComponentType::kU16,
                            std::as_writable_bytes(std::span(map.codes))};
      EXPECT_EQ(pad_image(image, k.valid, mode(PaddingMode::ring, k.width), threads),
                expected_mask);
      EXPECT_EQ(map.codes, expected.codes) << "width " << k.width << " threads " << threads;
    }
  }
}

TEST(RingPadding, EveryComponentType) {
  // Two sources 1 and 2 with an empty texel between: the mean 1.5 is kept
  // exactly in float images and rounded up in integer ones.
  const WorkerPool pool(1);
  for (const auto& [type, expected] :
       {std::pair{ComponentType::kU8, 2.0}, std::pair{ComponentType::kU16, 2.0},
        std::pair{ComponentType::kF16, 1.5}, std::pair{ComponentType::kF32, 1.5}}) {
    TestImage image = line({1, 100, 2}, type);
    dilate_mean_image(image.view(), Mask{1, 0, 1}, 1, false, pool);
    EXPECT_EQ(image.get(1), expected) << static_cast<int>(type);
  }
}

TEST(PaddingChecks, MessagesOfEveryEntry) {
  std::vector<std::uint16_t> codes(12, 0);
  const auto bytes = std::as_writable_bytes(std::span(codes));
  const ImageView image{4, 3, 1, ComponentType::kU16, bytes};
  const WorkerPool pool(1);
  const std::string mask_message = "padding: the valid mask does not match the image";
  const std::string image_message = "padding: image or mask size mismatch (or image too large)";
  const auto pad = [&](const ImageView& view, std::size_t mask, PaddingMode m, int width) {
    return [&pool, view, mask, m, width] { pad_image(view, Mask(mask, 0), mode(m, width), pool); };
  };
  expect_error(pad(image, 11, PaddingMode::ring, 3), mask_message);
  // Checked before any mode runs; the mask before the width.
  expect_error(pad(image, 13, PaddingMode::passthrough, 3), mask_message);
  expect_error(pad(image, 2, PaddingMode::passthrough, -1), mask_message);
  expect_error(pad(image, 12, PaddingMode::passthrough, -1),
               "padding: the width must not be negative");
  for (const ImageView& bad : {ImageView{4, 3, 1, ComponentType::kU16, bytes.first(11)},
                               ImageView{4, 3, 1, static_cast<ComponentType>(7), bytes},
                               ImageView{4, 3, 0, ComponentType::kU16, {}}}) {
    expect_error(pad(bad, 12, PaddingMode::ring, 3), image_message);
  }

  const Mask valid(6, 0);
  const auto dilate = [&](MapU16 map, std::size_t mask, int width, int expected_channels) {
    expect_error(
        [&] { dilate_mean(map, std::span(valid).first(mask), width, 1, expected_channels); },
        "padding: map or mask size mismatch (or image too large)");
  };
  dilate(make_map(3, 2, 2, 0), 5, 1, 0);   // mask too short
  dilate(make_map(3, 2, 2, 0), 6, -1, 0);  // negative width
  dilate(make_map(3, 2, 2, 0), 6, 1, 3);   // not the channels asked for
  MapU16 bad = make_map(3, 2, 2, 0);
  bad.codes.pop_back();
  dilate(bad, 6, 1, 0);
  for (MapU16 wrong : {MapU16{0, 2, 2, {}}, MapU16{3, 2, 0, {}}, MapU16{65536, 65536, 1, {}}}) {
    dilate(wrong, 6, 1, 0);  // zero width, no channels, W * H above 2^32 - 1
  }
  MapU16 ok = make_map(3, 2, 2, 0);
  EXPECT_NO_THROW(dilate_mean(ok, valid, 1, 1, 2));  // the channels asked for

  Mask small(6);
  const ImageView u8{3, 2, 1, ComponentType::kU8, std::as_writable_bytes(std::span(small))};
  expect_error([&] { dilate_mean_image(u8, std::span(valid).first(4), 1, false, pool); },
               image_message);
  expect_error([&] { dilate_mean_image(u8, valid, -2, false, pool); }, image_message);
}

// ---- the modes built on the nearest valid texel, sRGB and half floats ----------

// Lowest-index nearest valid texel by trying every valid texel.
NearestValid brute_nearest(int w, int h, const Mask& valid) {
  NearestValid out;
  for (int t = 0; t < w * h; ++t) {
    std::uint32_t best = NearestValid::kNone;
    std::uint64_t best_d = ~std::uint64_t{0};
    for (int i = 0; i < w * h; ++i) {
      const std::int64_t dx = i % w - t % w, dy = i / w - t / w;
      const auto d = static_cast<std::uint64_t>(dx * dx + dy * dy);
      if (valid[i] && (best == NearestValid::kNone || d < best_d)) {
        best = static_cast<std::uint32_t>(i);
        best_d = d;
      }
    }
    out.nearest.push_back(best);
    out.distance2.push_back(best_d);
  }
  return out;
}

TEST(NearestValidTexels, MatchesBruteForceWithLowestIndexTies) {
  const WorkerPool one(1);
  const WorkerPool two(2);
  std::mt19937 rng(5);
  const std::array<int, 3> sizes[] = {{1, 1, 1},    {1, 40, 7},    {40, 1, 7}, {37, 70, 25},
                                      {70, 37, 60}, {66, 65, 400}, {9, 9, 3}};
  for (const auto& [w, h, one_in] : sizes) {
    Mask valid(static_cast<std::size_t>(w) * h);
    for (auto& v : valid) {
      v = rng() % static_cast<unsigned>(one_in) == 0 ? 1 : 0;
    }
    valid[valid.size() / 2] = 1;
    const NearestValid expected = brute_nearest(w, h, valid);
    for (const WorkerPool* pool : {&one, &two}) {
      const NearestValid got = nearest_valid_texels(w, h, valid, *pool);
      EXPECT_EQ(got.distance2, expected.distance2) << w << "x" << h;
      EXPECT_EQ(got.nearest, expected.nearest) << w << "x" << h;
    }
  }
  // Ties are frequent in the small images; the brute force keeps the lowest
  // index. Without a valid texel there is no nearest one.
  EXPECT_EQ(nearest_valid_texels(3, 3, Mask(9, 0), one).nearest,
            std::vector<std::uint32_t>(9, NearestValid::kNone));
}

TEST(PaddingModes, PassthroughAndInfinite) {
  EXPECT_EQ(pad_line({100, 101, 102, 103}, {0, 5, 0, 0}, mode(PaddingMode::passthrough, 32)),
            Padded({0, 1, 0, 0}, {100, 101, 102, 103}));
  // 10 _ _ _ 50, width ignored: x = 2 is equally near both and takes the
  // left (lower index).
  EXPECT_EQ(pad_line({10, 0, 0, 0, 50}, {1, 0, 0, 0, 1}, mode(PaddingMode::infinite, 0)),
            Padded(Mask(5, 1), {10, 10, 10, 50, 50}));
  // Without a valid texel nothing changes.
  EXPECT_EQ(pad_line({0, 42, 0}, Mask(3, 0), mode(PaddingMode::infinite, 5), ComponentType::kU8),
            Padded(Mask(3, 0), {0, 42, 0}));

  // Every channel is copied bytes for bytes, also from half floats.
  TestImage halves(3, 2, 2, ComponentType::kF16);
  halves.put(5, {0.1, -3.25});
  pad_image(halves.view(), Mask{0, 0, 0, 0, 0, 1}, mode(PaddingMode::infinite, 1), 2);
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(halves.texel(i), (Values{half_bits_to_double(double_to_half_bits(0.1)), -3.25}));
  }
}

TEST(PaddingModes, ColorBeyondTheSquaredDistanceLimit) {
  // Valid (0,0) of 3 x 3, width 2: squared distances up to 1 take the value,
  // so (1,0) and (0,1) copy it and the diagonal (1,1), at 2, gets the colour.
  TestImage image(3, 3, 1, ComponentType::kU16);
  image.set(0, 0, 9);
  PaddingSettings s = mode(PaddingMode::color, 2);
  s.color = {1000};
  EXPECT_EQ(pad_image(image.view(), Mask{1, 0, 0, 0, 0, 0, 0, 0, 0}, s, 1), Mask(9, 1));
  EXPECT_EQ(image.row(), (Values{9, 9, 1000, 9, 1000, 1000, 1000, 1000, 1000}));
  // 1 x 7, width 3: x = 1, 2 (distances 1, 4) copy; the rest is colour.
  // Width 0 and width 1 take no nearest value at all.
  const Values copied = {9, 9, 9, 1000, 1000, 1000, 1000};
  const Values none = {9, 1000, 1000, 1000, 1000, 1000, 1000};
  for (const auto& [width, expected] : {std::pair{3, copied}, {1, none}, {0, none}}) {
    s.width = width;
    EXPECT_EQ(pad_line({9, 0, 0, 0, 0, 0, 0}, {1, 0, 0, 0, 0, 0, 0}, s).second, expected) << width;
  }

  // Without a valid texel every texel takes the colour.
  TestImage blank(2, 2, 1, ComponentType::kU8);
  s.color = {66};
  EXPECT_EQ(pad_image(blank.view(), Mask(4, 0), s, 1), Mask(4, 1));
  EXPECT_EQ(blank.row(), Values(4, 66));
}

TEST(PaddingModes, ColorIsStoredInTheComponentType) {
  PaddingSettings s = mode(PaddingMode::color, 0);
  // u8: 7.5 rounds half up, 300 clamps, -4 gives 0; the fourth channel has no
  // value and gets 0.
  TestImage bytes(2, 1, 4, ComponentType::kU8);
  bytes.put(0, Values(4, 50));
  bytes.put(1, Values(4, 77));
  s.color = {7.5, 300, -4};
  pad_image(bytes.view(), Mask{1, 0}, s, 1);
  EXPECT_EQ(bytes.texel(1), (Values{8, 255, 0, 0}));
  EXPECT_EQ(bytes.texel(0), Values(4, 50));  // the valid texel is left alone

  TestImage floats(2, 1, 1, ComponentType::kF32);
  s.color = {0.1};
  pad_image(floats.view(), Mask{1, 0}, s, 1);
  EXPECT_EQ(floats.get(1), static_cast<double>(0.1f));

  // Half floats take the colour rounded once: 1 + 2^-11 + 2^-40 is just past
  // the tie and goes up, where a float step would have made a tie and gone
  // down to 1.
  TestImage halves(2, 1, 1, ComponentType::kF16);
  s.color = {0x1.002p0 + 0x1p-40};
  pad_image(halves.view(), Mask{1, 0}, s, 1);
  EXPECT_EQ(halves.get(1), 0x1.004p0);
}

TEST(PaddingModes, TransparentZeroesBeyondTheLimit) {
  TestImage image(4, 1, 4, ComponentType::kU8);
  const Values texel = {10, 20, 30, 255};
  image.put(0, texel);
  for (int i = 1; i < 4; ++i) {
    image.put(i, Values(4, 99));
  }
  EXPECT_EQ(pad_image(image.view(), Mask{1, 0, 0, 0}, mode(PaddingMode::transparent, 2), 1),
            (Mask{1, 1, 0, 0}));
  EXPECT_EQ(image.texel(1), texel);
  EXPECT_EQ(image.texel(2), Values(4, 0));
  EXPECT_EQ(image.texel(3), Values(4, 0));
  // Without a valid texel everything is zeroed, and nothing holds a value.
  EXPECT_EQ(
      pad_line({5, 6, 7, 8}, Mask(4, 0), mode(PaddingMode::transparent, 4), ComponentType::kU8),
      Padded(Mask(4, 0), Values(4, 0)));
}

TEST(PaddingModes, DiffusionByHandAndInLinearLight) {
  // 1 x 4, sources 0 and 200 at the ends, width 0. Pull: level 1 = (0, 200).
  // Push: x = 1 takes 3/4 * 0 + 1/4 * 200 = 50; x = 2 takes 3/4 * 200 = 150.
  EXPECT_EQ(pad_line({0, 0, 0, 200}, {1, 0, 0, 1}, mode(PaddingMode::diffusion, 0)),
            Padded(Mask(4, 1), {0, 50, 150, 200}));
  // The same in linear light: 0.25 -> 136.96 -> 137 and 0.75 -> 224.61 -> 225.
  EXPECT_EQ(pad_line({0, 0, 0, 255}, {1, 0, 0, 1}, mode(PaddingMode::diffusion, 0, true),
                     ComponentType::kU8)
                .second,
            (Values{0, 137, 225, 255}));

  // 1 x 6, width 2: x = 1 and x = 4 copy their neighbour. Pull: level 1 =
  // (0, -, 200), level 2 = (0, 200), level 3 = 100. Push: level 1 middle =
  // 3/4 * 0 + 1/4 * 200 = 50; then x = 2 gets 3/4 * 50 + 1/4 * 0 = 37.5 -> 38
  // and x = 3 gets 3/4 * 50 + 1/4 * 200 = 87.5 -> 88.
  EXPECT_EQ(pad_line({0, 0, 0, 0, 0, 200}, {1, 0, 0, 0, 0, 1}, mode(PaddingMode::diffusion, 2)),
            Padded(Mask(6, 1), {0, 0, 38, 88, 200, 200}));
  // Nothing to diffuse from: the image stays as it is.
  EXPECT_EQ(pad_line({0, 0, 0, 5}, Mask(4, 0), mode(PaddingMode::diffusion, 3)),
            Padded(Mask(4, 0), {0, 0, 0, 5}));

  // On scattered sources every texel stays within their range, and a
  // constant channel stays constant.
  TestImage image(83, 61, 2, ComponentType::kF32);
  std::mt19937 rng(8);
  Mask valid(83 * 61, 0);
  for (std::size_t i = 0; i < valid.size(); ++i) {
    valid[i] = rng() % 40 == 0 ? 1 : 0;
    image.set(i, 0, valid[i] ? 10.0 + static_cast<double>(rng() % 100) : -1000.0);
    image.set(i, 1, valid[i] ? 0.5 : -1000.0);
  }
  EXPECT_EQ(pad_image(image.view(), valid, mode(PaddingMode::diffusion, 2), 2),
            Mask(valid.size(), 1));
  for (std::size_t i = 0; i < valid.size(); ++i) {
    ASSERT_GE(image.get(i, 0), 10.0) << i;
    ASSERT_LE(image.get(i, 0), 109.0) << i;
    ASSERT_EQ(image.get(i, 1), 0.5) << i;
  }
}

TEST(PaddingSrgb, RingMeansInLinearLight) {
  // 0 and 255 average to linear 0.5, which encodes to 187.516 -> 188 (128
  // without the flag); 100 and 200 give 160.2 -> 160.
  for (const auto& [a, b, srgb, expected] : {std::tuple{0.0, 255.0, true, 188.0},
                                             {0.0, 255.0, false, 128.0},
                                             {100.0, 200.0, true, 160.0}}) {
    EXPECT_EQ(pad_line({a, 0, b}, {1, 0, 1}, mode(PaddingMode::ring, 1, srgb), ComponentType::kU8)
                  .second[1],
              expected)
        << a << " " << b << " " << srgb;
  }
  const PaddingSettings s = mode(PaddingMode::ring, 1, true);
  // 16-bit: linear 0.5 -> 48191.62 -> 48192. Float images ignore the flag.
  EXPECT_EQ(pad_line({0, 0, 65535}, {1, 0, 1}, s).second[1], 48192);
  EXPECT_EQ(pad_line({0, 0, 1}, {1, 0, 1}, s, ComponentType::kF32).second[1], 0.5);
  // Alpha (the last of two or four channels) stays linear: 127.5 -> 128.
  for (const int channels : {2, 4}) {
    TestImage rgba(3, 1, channels, ComponentType::kU8);
    rgba.put(2, Values(static_cast<std::size_t>(channels), 255));
    pad_image(rgba.view(), Mask{1, 0, 1}, s, 1);
    Values expected(static_cast<std::size_t>(channels), 188);
    expected.back() = 128;
    EXPECT_EQ(rgba.texel(1), expected);
  }

  for (const double top : {255.0, 65535.0}) {
    for (int code = 0; code <= static_cast<int>(top); ++code) {
      ASSERT_EQ(std::floor(linear_to_srgb(srgb_to_linear(code / top)) * top + 0.5), code) << top;
    }
  }
  EXPECT_EQ(srgb_to_linear(0.04045), 0.04045 / 12.92);
  EXPECT_NEAR(srgb_to_linear(0.5), 0.21404114048223255, 1e-15);
  EXPECT_EQ(linear_to_srgb(-0.5), 0.0);
  EXPECT_EQ(linear_to_srgb(2.0), 1.0);
}

TEST(PaddingThreads, EveryModeIsTheSameOnOneAndTwoThreads) {
  std::mt19937 rng(21);
  TestImage base(263, 141, 3, ComponentType::kU16);
  TestImage base8(263, 141, 4, ComponentType::kU8);
  Mask valid(263 * 141, 0);
  for (std::size_t i = 0; i < valid.size(); ++i) {
    const int x = static_cast<int>(i % 263);
    const int y = static_cast<int>(i / 263);
    valid[i] = ((x / 30 + y / 20) % 3 == 0 && rng() % 5 != 0) ? 1 : 0;
    for (int c = 0; c < 4; ++c) {
      base8.set(i, c, valid[i] ? static_cast<double>(rng() % 256) : 1.0);
      base.set(i, c % 3, valid[i] ? static_cast<double>(rng() % 65536) : 1.0);
    }
  }
  for (const PaddingMode m :
       {PaddingMode::ring, PaddingMode::passthrough, PaddingMode::infinite,
        PaddingMode::transparent, PaddingMode::color, PaddingMode::diffusion}) {
    for (const bool srgb : {false, true}) {
      const TestImage& source = srgb ? base8 : base;
      TestImage one = source;
      TestImage two = source;
      const auto mask_one = pad_image(one.view(), valid, mode(m, 9, srgb), 1);
      EXPECT_EQ(mask_one, pad_image(two.view(), valid, mode(m, 9, srgb), 2)) << static_cast<int>(m);
      EXPECT_EQ(one.bytes, two.bytes) << static_cast<int>(m);
      EXPECT_EQ(one.bytes == source.bytes, m == PaddingMode::passthrough) << static_cast<int>(m);
    }
  }
}

}  // namespace
}  // namespace kv
