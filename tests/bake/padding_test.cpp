// Ring padding (dilate_mean, dilate_mean_image, pad_image in ring mode) and
// the checks made at entry.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <random>
#include <string>

#include "bake/padding.h"
#include "core/error.h"

namespace kv {
namespace {

MapU16 make_map(std::int32_t w, std::int32_t h, std::int32_t c, std::uint16_t fill) {
  MapU16 map;
  map.width = w;
  map.height = h;
  map.channels = c;
  map.codes.assign(static_cast<std::size_t>(w) * h * c, fill);
  return map;
}

std::uint16_t code_at(const MapU16& map, int x, int y, int c = 0) {
  return map.codes[(static_cast<std::size_t>(y) * map.width + x) * map.channels + c];
}

void set_code(MapU16& map, int x, int y, int c, std::uint16_t v) {
  map.codes[(static_cast<std::size_t>(y) * map.width + x) * map.channels + c] = v;
}

void expect_error(const std::function<void()>& fn, const std::string& message) {
  try {
    fn();
    ADD_FAILURE() << "no error; expected: " << message;
  } catch (const Error& e) {
    EXPECT_EQ(e.what(), message);
  }
}

// A plain, sequential ring dilation over a whole-image scratch of means,
// written straight from the rule, against which the pooled one is checked.
std::vector<std::uint8_t> reference_ring(MapU16& map, const std::vector<std::uint8_t>& valid,
                                         int width) {
  static const int dx[8] = {-1, 1, 0, 0, -1, 1, -1, 1};
  static const int dy[8] = {0, 0, -1, 1, -1, -1, 1, 1};
  const int w = map.width;
  const int h = map.height;
  const int ch = map.channels;
  std::vector<int> state(valid.size());
  std::vector<double> scratch(map.codes.size(), 0.0);
  std::vector<std::uint8_t> mask(valid.size());
  for (std::size_t i = 0; i < valid.size(); ++i) {
    state[i] = valid[i] ? 1 : 0;
    mask[i] = valid[i] ? 1 : 0;
  }
  if (width == 0) {
    return mask;
  }
  std::vector<int> ring;
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      if (state[y * w + x] != 0) {
        continue;
      }
      for (int k = 0; k < 8; ++k) {
        const int nx = x + dx[k];
        const int ny = y + dy[k];
        if (nx >= 0 && nx < w && ny >= 0 && ny < h && state[ny * w + nx] == 1) {
          ring.push_back(y * w + x);
          break;
        }
      }
    }
  }
  for (int i : ring) {
    state[i] = 3;
  }
  std::vector<int> filled;
  for (int r = 1; r <= width && !ring.empty(); ++r) {
    const int mark = r == 1 ? 1 : 2;
    for (int i : ring) {
      const int x = i % w;
      const int y = i / w;
      int count = 0;
      std::vector<double> sum(ch, 0.0);
      for (int k = 0; k < 8; ++k) {
        const int n = std::clamp(y + dy[k], 0, h - 1) * w + std::clamp(x + dx[k], 0, w - 1);
        if (state[n] != mark) {
          continue;
        }
        ++count;
        for (int c = 0; c < ch; ++c) {
          sum[c] += mark == 1 ? static_cast<double>(map.codes[n * ch + c]) : scratch[n * ch + c];
        }
      }
      for (int c = 0; c < ch; ++c) {
        scratch[i * ch + c] = sum[c] / count;
      }
    }
    for (int i : ring) {
      state[i] = 2;
      mask[i] = 1;
      filled.push_back(i);
    }
    std::vector<int> next;
    for (int i : ring) {
      for (int k = 0; k < 8; ++k) {
        const int nx = i % w + dx[k];
        const int ny = i / w + dy[k];
        if (nx >= 0 && nx < w && ny >= 0 && ny < h && state[ny * w + nx] == 0) {
          state[ny * w + nx] = 3;
          next.push_back(ny * w + nx);
        }
      }
    }
    ring = next;
  }
  for (int i : filled) {
    for (int c = 0; c < ch; ++c) {
      const double m = scratch[i * ch + c];
      map.codes[i * ch + c] =
          m <= 0 ? 0 : (m >= 65535 ? 65535 : static_cast<std::uint16_t>(std::floor(m + 0.5)));
    }
  }
  return mask;
}

// Sparse random islands: a few blobs of valid texels with random codes.
std::vector<std::uint8_t> random_islands(MapU16& map, std::uint32_t seed, int blobs) {
  std::mt19937 rng(seed);
  std::vector<std::uint8_t> valid(static_cast<std::size_t>(map.width) * map.height, 0);
  for (int b = 0; b < blobs; ++b) {
    const int cx = static_cast<int>(rng() % map.width);
    const int cy = static_cast<int>(rng() % map.height);
    const int r = 1 + static_cast<int>(rng() % 6);
    for (int y = std::max(0, cy - r); y <= std::min(map.height - 1, cy + r); ++y) {
      for (int x = std::max(0, cx - r); x <= std::min(map.width - 1, cx + r); ++x) {
        if ((x - cx) * (x - cx) + (y - cy) * (y - cy) <= r * r) {
          valid[static_cast<std::size_t>(y) * map.width + x] =
              static_cast<std::uint8_t>(1 + rng() % 200);
        }
      }
    }
  }
  for (std::size_t i = 0; i < valid.size(); ++i) {
    for (int c = 0; c < map.channels; ++c) {
      map.codes[i * map.channels + c] =
          valid[i] ? static_cast<std::uint16_t>(rng() % 65536) : static_cast<std::uint16_t>(77);
    }
  }
  return valid;
}

// Scattered single texels, about one in `one_in`, so the first ring holds
// most of the image.
std::vector<std::uint8_t> random_scatter(MapU16& map, std::uint32_t seed, std::uint32_t one_in) {
  std::mt19937 rng(seed);
  std::vector<std::uint8_t> valid(static_cast<std::size_t>(map.width) * map.height, 0);
  for (std::size_t i = 0; i < valid.size(); ++i) {
    valid[i] = rng() % one_in == 0 ? 1 : 0;
    for (int c = 0; c < map.channels; ++c) {
      map.codes[i * map.channels + c] = static_cast<std::uint16_t>(valid[i] ? rng() % 65536 : 3);
    }
  }
  return valid;
}

TEST(RingPadding, WidthZeroChangesNothing) {
  MapU16 map = make_map(4, 3, 2, 5);
  std::vector<std::uint8_t> valid(12, 0);
  valid[5] = 9;
  set_code(map, 1, 1, 0, 40000);
  const MapU16 before = map;
  const auto mask = dilate_mean(map, valid, 0, 1);
  EXPECT_EQ(map.codes, before.codes);
  std::vector<std::uint8_t> expected(12, 0);
  expected[5] = 1;  // the mask is normalised to 0/1
  EXPECT_EQ(mask, expected);
}

TEST(RingPadding, SingleTexelFillsTwoRingsOfItsValue) {
  MapU16 map = make_map(7, 7, 3, 11);
  std::vector<std::uint8_t> valid(49, 0);
  valid[3 * 7 + 3] = 1;
  set_code(map, 3, 3, 0, 1000);
  set_code(map, 3, 3, 1, 2000);
  set_code(map, 3, 3, 2, 65535);
  const auto mask = dilate_mean(map, valid, 2, 2, 3);
  int filled = 0;
  for (int y = 0; y < 7; ++y) {
    for (int x = 0; x < 7; ++x) {
      const int ring = std::max(std::abs(x - 3), std::abs(y - 3));
      if (ring <= 2) {
        ++filled;
        EXPECT_EQ(mask[y * 7 + x], 1) << x << "," << y;
        EXPECT_EQ(code_at(map, x, y, 0), 1000) << x << "," << y;
        EXPECT_EQ(code_at(map, x, y, 1), 2000);
        EXPECT_EQ(code_at(map, x, y, 2), 65535);
      } else {  // the outermost border is ring 3: untouched
        EXPECT_EQ(mask[y * 7 + x], 0) << x << "," << y;
        EXPECT_EQ(code_at(map, x, y, 0), 11) << x << "," << y;
      }
    }
  }
  EXPECT_EQ(filled, 1 + 8 + 16);
}

TEST(RingPadding, BorderNeighboursAreClampedWithDoubleWeight) {
  // Row 0 valid (100, 1000, 40); row 1 is the first ring. At (0, 1) the
  // neighbours (x, y-1) and the clamped (x-1, y-1) are both (0, 0):
  // (100 + 100 + 1000) / 3 = 400, where skipping would give 550.
  // (1, 1): (1000 + 100 + 40) / 3 = 380.
  // (2, 1): (2,0), (1,0) and the clamped (3,0) -> (2,0): (40 + 1000 + 40) / 3 = 360.
  MapU16 map = make_map(3, 2, 1, 0);
  set_code(map, 0, 0, 0, 100);
  set_code(map, 1, 0, 0, 1000);
  set_code(map, 2, 0, 0, 40);
  const std::vector<std::uint8_t> valid = {1, 1, 1, 0, 0, 0};
  const auto mask = dilate_mean(map, valid, 1, 1);
  EXPECT_EQ(code_at(map, 0, 1), 400);
  EXPECT_EQ(code_at(map, 1, 1), 380);
  EXPECT_EQ(code_at(map, 2, 1), 360);
  EXPECT_EQ(mask, std::vector<std::uint8_t>(6, 1));
}

TEST(RingPadding, MeansAreRoundedOnceAtTheEnd) {
  // 3 x 3, row 0 valid (0, 1, 2). Ring 1 means: (0,1) = (0+0+1)/3 = 1/3,
  // (1,1) = (1+0+2)/3 = 1, (2,1) = (2+1+2)/3 = 5/3.
  // Ring 2: (0,2) = (1/3 + 1/3 + 1)/3 = 5/9 -> 1 (rounding ring 1 first
  // would give (0 + 0 + 1)/3 -> 0); (1,2) = (1 + 1/3 + 5/3)/3 = 1;
  // (2,2) = (5/3 + 1 + 5/3)/3 = 13/9 -> 1 (rounding first: 5/3 -> 2).
  MapU16 map = make_map(3, 3, 1, 9);
  set_code(map, 0, 0, 0, 0);
  set_code(map, 1, 0, 0, 1);
  set_code(map, 2, 0, 0, 2);
  const std::vector<std::uint8_t> valid = {1, 1, 1, 0, 0, 0, 0, 0, 0};
  dilate_mean(map, valid, 2, 1);
  const std::vector<std::uint16_t> expected = {0, 1, 2, 0, 1, 2, 1, 1, 1};
  EXPECT_EQ(map.codes, expected);
}

TEST(RingPadding, MeansRoundHalfUp) {
  // One empty texel between two sources, 1 x 3 (row): the clamped
  // neighbours count each side three times, so the mean is (a + b) / 2.
  MapU16 map = make_map(3, 1, 2, 0);
  set_code(map, 0, 0, 0, 10);
  set_code(map, 2, 0, 0, 11);  // 10.5 -> 11
  set_code(map, 0, 0, 1, 65535);
  set_code(map, 2, 0, 1, 65534);  // 65534.5 -> 65535
  dilate_mean(map, std::vector<std::uint8_t>{1, 0, 1}, 1, 1);
  EXPECT_EQ(code_at(map, 1, 0, 0), 11);
  EXPECT_EQ(code_at(map, 1, 0, 1), 65535);
}

TEST(RingPadding, FullAndEmptyImagesAreLeftAlone) {
  MapU16 full = make_map(5, 4, 1, 0);
  for (std::size_t i = 0; i < full.codes.size(); ++i) {
    full.codes[i] = static_cast<std::uint16_t>(i * 1000);
  }
  const MapU16 full_before = full;
  EXPECT_EQ(dilate_mean(full, std::vector<std::uint8_t>(20, 1), 8, 2),
            std::vector<std::uint8_t>(20, 1));
  EXPECT_EQ(full.codes, full_before.codes);

  MapU16 empty = make_map(5, 4, 1, 123);
  EXPECT_EQ(dilate_mean(empty, std::vector<std::uint8_t>(20, 0), 8, 2),
            std::vector<std::uint8_t>(20, 0));
  EXPECT_EQ(empty.codes, std::vector<std::uint16_t>(20, 123));
}

TEST(RingPadding, StopsAfterWidthRings) {
  // A valid column at x = 0 of a 10-wide map: width 3 fills x = 1..3 only.
  MapU16 map = make_map(10, 2, 1, 7);
  std::vector<std::uint8_t> valid(20, 0);
  valid[0] = valid[10] = 1;
  set_code(map, 0, 0, 0, 500);
  set_code(map, 0, 1, 0, 500);
  const auto mask = dilate_mean(map, valid, 3, 1);
  for (int y = 0; y < 2; ++y) {
    for (int x = 0; x < 10; ++x) {
      EXPECT_EQ(mask[y * 10 + x], x <= 3 ? 1 : 0) << x;
      EXPECT_EQ(code_at(map, x, y), x <= 3 ? 500 : 7) << x;
    }
  }
}

TEST(RingPadding, MatchesPlainReferenceAcrossBlocksAndTasks) {
  // Large enough for several 32-row blocks and rings of more than 16,384
  // texels, so chunk seams and ordered joins are exercised.
  for (const int width : {1, 2, 5, 40}) {
    MapU16 map = make_map(301, 203, 3, 0);
    const auto valid = random_islands(map, 1234u + static_cast<std::uint32_t>(width), 60);
    MapU16 expected_map = map;
    const auto expected_mask = reference_ring(expected_map, valid, width);
    MapU16 one = map;
    MapU16 two = map;
    EXPECT_EQ(dilate_mean(one, valid, width, 1), expected_mask);
    EXPECT_EQ(one.codes, expected_map.codes) << "width " << width;
    EXPECT_EQ(dilate_mean(two, valid, width, 2), expected_mask);
    EXPECT_EQ(two.codes, one.codes) << "width " << width;
  }
  // First ring of about 35,000 texels: three tasks of 16,384.
  for (const int width : {1, 3}) {
    MapU16 map = make_map(301, 203, 2, 0);
    const auto valid = random_scatter(map, 77u, 12);
    MapU16 expected_map = map;
    const auto expected_mask = reference_ring(expected_map, valid, width);
    MapU16 two = map;
    EXPECT_EQ(dilate_mean(two, valid, width, 2), expected_mask);
    EXPECT_EQ(two.codes, expected_map.codes) << "width " << width;
  }
}

TEST(RingPadding, ImageOfEveryComponentType) {
  // Two sources 1 and 2 with an empty texel between: the mean 1.5 is kept
  // exactly in float images and rounded up in integer ones.
  struct Case {
    ComponentType type;
    double expected;
  };
  for (const Case& k : {Case{ComponentType::kU8, 2.0}, Case{ComponentType::kU16, 2.0},
                        Case{ComponentType::kF16, 1.5}, Case{ComponentType::kF32, 1.5}}) {
    const std::size_t bytes = component_bytes(k.type);
    std::vector<std::byte> data(3 * bytes);
    auto put = [&](int texel, double v) {
      if (k.type == ComponentType::kU8) {
        data[texel] = static_cast<std::byte>(v);
      } else if (k.type == ComponentType::kU16) {
        const auto c = static_cast<std::uint16_t>(v);
        std::memcpy(&data[texel * 2], &c, 2);
      } else if (k.type == ComponentType::kF16) {
        const std::uint16_t c = double_to_half(v);
        std::memcpy(&data[texel * 2], &c, 2);
      } else {
        const auto f = static_cast<float>(v);
        std::memcpy(&data[texel * 4], &f, 4);
      }
    };
    put(0, 1.0);
    put(1, 100.0);
    put(2, 2.0);
    const ImageView image{3, 1, 1, k.type, data};
    const WorkerPool pool(1);
    dilate_mean_image(image, std::vector<std::uint8_t>{1, 0, 1}, 1, false, pool);
    double got = 0;
    if (k.type == ComponentType::kU8) {
      got = std::to_integer<int>(data[1]);
    } else if (k.type == ComponentType::kU16 || k.type == ComponentType::kF16) {
      std::uint16_t c;
      std::memcpy(&c, &data[2], 2);
      got = k.type == ComponentType::kU16 ? c : half_to_double(c);
    } else {
      float f;
      std::memcpy(&f, &data[4], 4);
      got = f;
    }
    EXPECT_EQ(got, k.expected) << static_cast<int>(k.type);
  }
}

TEST(RingPadding, PadImageRingModeEqualsDilateMean) {
  MapU16 map = make_map(97, 71, 2, 0);
  const auto valid = random_islands(map, 99u, 12);
  MapU16 direct = map;
  const auto direct_mask = dilate_mean(direct, valid, 6, 2);
  PaddingSettings settings;
  settings.mode = PaddingMode::ring;
  settings.width = 6;
  const ImageView image{map.width, map.height, map.channels, ComponentType::kU16,
                        std::as_writable_bytes(std::span(map.codes))};
  EXPECT_EQ(pad_image(image, valid, settings, 2), direct_mask);
  EXPECT_EQ(map.codes, direct.codes);
}

TEST(PaddingChecks, PadImageMessages) {
  std::vector<std::uint16_t> codes(12, 0);
  const ImageView image{4, 3, 1, ComponentType::kU16, std::as_writable_bytes(std::span(codes))};
  PaddingSettings settings;
  const WorkerPool pool(1);
  expect_error([&] { pad_image(image, std::vector<std::uint8_t>(11, 0), settings, pool); },
               "padding: the valid mask does not match the image");
  settings.mode = PaddingMode::passthrough;  // checked before any mode runs
  expect_error([&] { pad_image(image, std::vector<std::uint8_t>(13, 0), settings, pool); },
               "padding: the valid mask does not match the image");
  settings.width = -1;
  expect_error([&] { pad_image(image, std::vector<std::uint8_t>(12, 0), settings, pool); },
               "padding: the width must not be negative");
  // Both wrong: the mask is checked first.
  expect_error([&] { pad_image(image, std::vector<std::uint8_t>(2, 0), settings, pool); },
               "padding: the valid mask does not match the image");
  settings.width = 3;
  const ImageView short_bytes{4, 3, 1, ComponentType::kU16,
                              std::as_writable_bytes(std::span(codes).first(11))};
  expect_error([&] { pad_image(short_bytes, std::vector<std::uint8_t>(12, 0), settings, pool); },
               "padding: image or mask size mismatch (or image too large)");
  const ImageView bad_type{4, 3, 1, static_cast<ComponentType>(7),
                           std::as_writable_bytes(std::span(codes))};
  expect_error([&] { pad_image(bad_type, std::vector<std::uint8_t>(12, 0), settings, pool); },
               "padding: image or mask size mismatch (or image too large)");
  const ImageView no_channels{4, 3, 0, ComponentType::kU16, {}};
  expect_error([&] { pad_image(no_channels, std::vector<std::uint8_t>(12, 0), settings, pool); },
               "padding: image or mask size mismatch (or image too large)");
}

TEST(PaddingChecks, DilateMeanMessages) {
  const std::string message = "padding: map or mask size mismatch (or image too large)";
  const std::vector<std::uint8_t> valid(6, 0);
  auto run = [&](MapU16 map, std::span<const std::uint8_t> mask, int width, int expected) {
    expect_error([&] { dilate_mean(map, mask, width, 1, expected); }, message);
  };
  run(make_map(3, 2, 2, 0), std::span(valid).first(5), 1, 0);  // mask too short
  run(make_map(3, 2, 2, 0), valid, -1, 0);                     // negative width
  run(make_map(3, 2, 2, 0), valid, 1, 3);                      // not the channels asked for
  MapU16 short_codes = make_map(3, 2, 2, 0);
  short_codes.codes.pop_back();
  run(short_codes, valid, 1, 0);
  MapU16 zero_width = make_map(3, 2, 2, 0);
  zero_width.width = 0;
  run(zero_width, valid, 1, 0);
  MapU16 no_channels = make_map(3, 2, 2, 0);
  no_channels.channels = 0;
  run(no_channels, valid, 1, 0);
  // W * H above 2^32 - 1 is refused before anything is touched.
  MapU16 huge;
  huge.width = 65536;
  huge.height = 65536;
  huge.channels = 1;
  run(huge, valid, 1, 0);
  // The requested channel count, when it matches, passes.
  MapU16 ok = make_map(3, 2, 2, 0);
  EXPECT_NO_THROW(dilate_mean(ok, valid, 1, 1, 2));

  std::vector<std::uint8_t> bytes(6);
  const ImageView image{3, 2, 1, ComponentType::kU8, std::as_writable_bytes(std::span(bytes))};
  const WorkerPool pool(1);
  expect_error([&] { dilate_mean_image(image, std::span(valid).first(4), 1, false, pool); },
               "padding: image or mask size mismatch (or image too large)");
  expect_error([&] { dilate_mean_image(image, valid, -2, false, pool); },
               "padding: image or mask size mismatch (or image too large)");
}

}  // namespace
}  // namespace kv
