// Pull-push diffusion: fills the texels left empty by the nearest-value fill
// with a smooth continuation of the filled ones.
//
// Pull: level k + 1 halves level k (sizes rounded up); each of its texels is
// the mean of its filled children, taken in the order (0,0), (1,0), (0,1),
// (1,1), and is filled when at least one child is. Push: from the coarsest
// level down, every texel that is not filled takes the bilinear interpolation
// of the level above at its centre (weights 3/4 and 1/4, indices clamped to
// the level), first along x then along y. Level 0 is the image itself: its
// filled texels are read from it and never written.
//
// Values are 64-bit, in linear light for sRGB images, and each written texel
// is rounded once. Every texel of a level depends only on the level above (or
// below), so rows run in parallel in fixed blocks.
#include <array>
#include <vector>

#include "padding/padding_texels.h"

namespace kv::padding_detail {

namespace {

constexpr std::uint64_t kRowsPerBlock = 32;

struct Level {
  std::int64_t w = 0;
  std::int64_t h = 0;
  std::vector<double> values;        // channels per texel
  std::vector<std::uint8_t> filled;  // one per texel
};

// The two source indices and weights of a fine coordinate in the coarse level
// above it: the centre of fine texel t lies at t / 2 - 1/4 in coarse texels.
struct Taps {
  std::int64_t near;
  std::int64_t far;
};
Taps taps_of(std::int64_t t, std::int64_t coarse_size) {
  const std::int64_t near = t / 2;
  std::int64_t far = (t % 2 == 0) ? near - 1 : near + 1;
  far = far < 0 ? 0 : (far >= coarse_size ? coarse_size - 1 : far);
  return {near, far};
}

// Bilinear value of `coarse` at the centre of fine texel (x, y).
void interpolate(const Level& coarse, std::size_t channels, std::int64_t x, std::int64_t y,
                 double* out) {
  const Taps tx = taps_of(x, coarse.w);
  const Taps ty = taps_of(y, coarse.h);
  const double* a = coarse.values.data() + (ty.near * coarse.w + tx.near) * channels;
  const double* b = coarse.values.data() + (ty.near * coarse.w + tx.far) * channels;
  const double* c = coarse.values.data() + (ty.far * coarse.w + tx.near) * channels;
  const double* d = coarse.values.data() + (ty.far * coarse.w + tx.far) * channels;
  for (std::size_t k = 0; k < channels; ++k) {
    const double row_near = 0.75 * a[k] + 0.25 * b[k];
    const double row_far = 0.75 * c[k] + 0.25 * d[k];
    out[k] = 0.75 * row_near + 0.25 * row_far;
  }
}

// One pull step: `read(x, y, out)` gives a fine texel's values and returns
// whether it is filled.
template <typename ReadFine>
Level pull(std::int64_t fine_w, std::int64_t fine_h, std::size_t channels, ReadFine read,
           const WorkerPool& pool) {
  Level level;
  level.w = (fine_w + 1) / 2;
  level.h = (fine_h + 1) / 2;
  level.values.assign(static_cast<std::size_t>(level.w * level.h) * channels, 0.0);
  level.filled.assign(static_cast<std::size_t>(level.w * level.h), 0);
  pool.for_chunks(static_cast<std::uint64_t>(level.h), kRowsPerBlock,
                  [&](std::uint64_t, std::uint64_t y0, std::uint64_t y1) {
                    std::vector<double> child(channels);
                    for (auto y = static_cast<std::int64_t>(y0); y < static_cast<std::int64_t>(y1);
                         ++y) {
                      for (std::int64_t x = 0; x < level.w; ++x) {
                        double* sum = level.values.data() + (y * level.w + x) * channels;
                        int count = 0;
                        for (int k = 0; k < 4; ++k) {
                          const std::int64_t fx = 2 * x + (k & 1);
                          const std::int64_t fy = 2 * y + (k >> 1);
                          if (fx >= fine_w || fy >= fine_h || !read(fx, fy, child.data())) {
                            continue;
                          }
                          ++count;
                          for (std::size_t c = 0; c < channels; ++c) {
                            sum[c] += child[c];
                          }
                        }
                        if (count > 0) {
                          for (std::size_t c = 0; c < channels; ++c) {
                            sum[c] /= static_cast<double>(count);
                          }
                          level.filled[static_cast<std::size_t>(y * level.w + x)] = 1;
                        }
                      }
                    }
                  });
  return level;
}

}  // namespace

void diffuse_fill(const ImageView& image, std::span<const std::uint8_t> filled, bool srgb,
                  const WorkerPool& pool) {
  const TexelCodec codec(image, srgb);
  const auto channels = static_cast<std::size_t>(image.channels);
  const std::int64_t w = image.width;
  const std::int64_t h = image.height;
  if (w == 1 && h == 1) {
    return;  // a single texel: filled, or nothing to diffuse from
  }

  std::vector<Level> levels;
  levels.push_back(pull(
      w, h, channels,
      [&](std::int64_t x, std::int64_t y, double* out) {
        const auto i = static_cast<std::uint64_t>(y * w + x);
        if (filled[i] == 0) {
          return false;
        }
        codec.read(i, out);
        return true;
      },
      pool));
  while (levels.back().w > 1 || levels.back().h > 1) {
    const Level& fine = levels.back();
    Level coarse = pull(
        fine.w, fine.h, channels,
        [&](std::int64_t x, std::int64_t y, double* out) {
          const auto i = static_cast<std::size_t>(y * fine.w + x);
          if (fine.filled[i] == 0) {
            return false;
          }
          const double* v = fine.values.data() + i * channels;
          std::copy(v, v + channels, out);
          return true;
        },
        pool);
    levels.push_back(std::move(coarse));
  }

  for (std::size_t k = levels.size() - 1; k-- > 0;) {
    Level& fine = levels[k];
    const Level& coarse = levels[k + 1];
    pool.for_chunks(static_cast<std::uint64_t>(fine.h), kRowsPerBlock,
                    [&](std::uint64_t, std::uint64_t y0, std::uint64_t y1) {
                      for (auto y = static_cast<std::int64_t>(y0);
                           y < static_cast<std::int64_t>(y1); ++y) {
                        for (std::int64_t x = 0; x < fine.w; ++x) {
                          const auto i = static_cast<std::size_t>(y * fine.w + x);
                          if (fine.filled[i] == 0) {
                            interpolate(coarse, channels, x, y, fine.values.data() + i * channels);
                          }
                        }
                      }
                    });
  }

  const Level& first = levels.front();
  pool.for_chunks(static_cast<std::uint64_t>(h), kRowsPerBlock,
                  [&](std::uint64_t, std::uint64_t y0, std::uint64_t y1) {
                    std::vector<double> value(channels);
                    for (auto y = static_cast<std::int64_t>(y0); y < static_cast<std::int64_t>(y1);
                         ++y) {
                      for (std::int64_t x = 0; x < w; ++x) {
                        const auto i = static_cast<std::uint64_t>(y * w + x);
                        if (filled[i] == 0) {
                          interpolate(first, channels, x, y, value.data());
                          codec.write(i, value.data());
                        }
                      }
                    }
                  });
}

}  // namespace kv::padding_detail
