// Ring padding: an iterative mean dilation, ring by ring.
//
// Each texel carries a state: 0 empty, 1 source, 2 filled by an earlier ring,
// 3 listed for the ring being built. The first ring is every empty texel with
// a source among its eight neighbours; it takes the mean of those sources.
// Every later ring is the empty neighbours of the ring before it and takes the
// mean of that ring's texels only. Means stay in 64-bit floats between rings;
// each filled texel is rounded once, when its code is written.
//
// A texel of ring k + 1 can only see filled texels of ring k (a neighbour of
// an older ring would have put it into ring k), so the means of the previous
// ring alone are kept, addressed through a per-texel slot into that ring's
// list. Writing a ring's codes right after its pass is then the same as
// writing them all at the end: later rings never read codes of filled texels.
//
// Lists are built in fixed chunks (blocks of 32 rows, tasks of 16,384 list
// entries) and joined in chunk order, so the result does not depend on the
// number of threads.
#include <algorithm>
#include <memory>
#include <utility>

#include "core/error.h"
#include "padding/padding_texels.h"

namespace kv::padding_detail {

namespace {

constexpr std::uint64_t kRowsPerBlock = 32;
constexpr std::uint64_t kTexelsPerTask = 16384;

constexpr std::uint8_t kEmpty = 0;
constexpr std::uint8_t kSource = 1;
constexpr std::uint8_t kFilled = 2;
constexpr std::uint8_t kListed = 3;

// The eight neighbours, in the order they are tested and summed.
constexpr int kDx[8] = {-1, 1, 0, 0, -1, 1, -1, 1};
constexpr int kDy[8] = {0, 0, -1, 1, -1, -1, 1, 1};

struct Grid {
  std::int64_t w;
  std::int64_t h;
};

// Candidate texels of one chunk, in the chunk's order.
using IndexList = std::vector<std::uint32_t>;

// Appends the chunks' candidates in chunk order, listing each empty texel once
// (its first occurrence) and marking it as listed.
IndexList join_candidates(const std::vector<IndexList>& chunks, std::uint8_t* state) {
  IndexList ring;
  for (const IndexList& chunk : chunks) {
    for (const std::uint32_t i : chunk) {
      if (state[i] == kEmpty) {
        state[i] = kListed;
        ring.push_back(i);
      }
    }
  }
  return ring;
}

IndexList first_ring(const Grid& g, std::uint8_t* state, const WorkerPool& pool) {
  const auto blocks = pool.map_chunks<IndexList>(
      static_cast<std::uint64_t>(g.h), kRowsPerBlock, [&](std::uint64_t y0, std::uint64_t y1) {
        IndexList list;
        for (auto y = static_cast<std::int64_t>(y0); y < static_cast<std::int64_t>(y1); ++y) {
          for (std::int64_t x = 0; x < g.w; ++x) {
            if (state[y * g.w + x] != kEmpty) {
              continue;
            }
            for (int k = 0; k < 8; ++k) {
              const std::int64_t nx = x + kDx[k];
              const std::int64_t ny = y + kDy[k];
              if (nx >= 0 && nx < g.w && ny >= 0 && ny < g.h && state[ny * g.w + nx] == kSource) {
                list.push_back(static_cast<std::uint32_t>(y * g.w + x));
                break;
              }
            }
          }
        }
        return list;
      });
  return join_candidates(blocks, state);
}

IndexList next_ring(const Grid& g, const IndexList& ring, std::uint8_t* state,
                    const WorkerPool& pool) {
  const auto tasks = pool.map_chunks<IndexList>(
      ring.size(), kTexelsPerTask, [&](std::uint64_t begin, std::uint64_t end) {
        IndexList list;
        list.reserve(static_cast<std::size_t>(end - begin) * 2);
        for (std::uint64_t k = begin; k < end; ++k) {
          const std::int64_t i = ring[k];
          const std::int64_t y = i / g.w;
          const std::int64_t x = i % g.w;
          for (int n = 0; n < 8; ++n) {
            const std::int64_t nx = x + kDx[n];
            const std::int64_t ny = y + kDy[n];
            if (nx >= 0 && nx < g.w && ny >= 0 && ny < g.h && state[ny * g.w + nx] == kEmpty) {
              list.push_back(static_cast<std::uint32_t>(ny * g.w + nx));
            }
          }
        }
        return list;
      });
  return join_candidates(tasks, state);
}

}  // namespace

std::vector<std::uint8_t> ring_fill(const ImageView& image, std::span<const std::uint8_t> valid,
                                    std::int32_t width, bool srgb, const WorkerPool& pool) {
  const Grid g{image.width, image.height};
  const auto texels = static_cast<std::size_t>(g.w * g.h);
  std::vector<std::uint8_t> mask(texels);
  std::vector<std::uint8_t> state(texels);
  for (std::size_t i = 0; i < texels; ++i) {
    mask[i] = valid[i] != 0 ? 1 : 0;
    state[i] = valid[i] != 0 ? kSource : kEmpty;
  }
  if (width <= 0) {
    return mask;
  }

  const TexelCodec codec(image, srgb);
  const auto channels = static_cast<std::size_t>(codec.channels());
  // slot[i]: position of filled texel i in the list of its ring. Only read
  // for texels of the previous ring, whose slots are always written.
  const auto slot = std::make_unique_for_overwrite<std::uint32_t[]>(texels);
  // Means of the ring being filled and of the ring before it, channels per
  // list entry; the two buffers swap roles and keep their memory.
  std::vector<double> means;
  std::vector<double> previous_means;

  IndexList ring = first_ring(g, state.data(), pool);
  for (std::int32_t r = 1; r <= width && !ring.empty(); ++r) {
    const std::uint8_t mark = r == 1 ? kSource : kFilled;
    means.resize(ring.size() * channels);
    pool.for_chunks(ring.size(), kTexelsPerTask,
                    [&](std::uint64_t, std::uint64_t begin, std::uint64_t end) {
                      std::vector<double> sum(channels);
                      std::vector<double> value(channels);
                      for (std::uint64_t k = begin; k < end; ++k) {
                        const std::int64_t i = ring[k];
                        const std::int64_t y = i / g.w;
                        const std::int64_t x = i % g.w;
                        std::fill(sum.begin(), sum.end(), 0.0);
                        std::uint32_t count = 0;
                        for (int n = 0; n < 8; ++n) {
                          // Clamped, not skipped: on the border the same
                          // neighbour may count twice, as intended.
                          const std::int64_t nx = std::clamp<std::int64_t>(x + kDx[n], 0, g.w - 1);
                          const std::int64_t ny = std::clamp<std::int64_t>(y + kDy[n], 0, g.h - 1);
                          const auto ni = static_cast<std::uint64_t>(ny * g.w + nx);
                          if (state[ni] != mark) {
                            continue;
                          }
                          ++count;
                          const double* v;
                          if (mark == kSource) {
                            codec.read(ni, value.data());
                            v = value.data();
                          } else {
                            v = previous_means.data() + std::size_t{slot[ni]} * channels;
                          }
                          for (std::size_t c = 0; c < channels; ++c) {
                            sum[c] += v[c];
                          }
                        }
                        if (count == 0) {
                          throw Error("padding: frontier has no filled neighbour");
                        }
                        double* m = means.data() + k * channels;
                        for (std::size_t c = 0; c < channels; ++c) {
                          m[c] = sum[c] / static_cast<double>(count);
                        }
                      }
                    });
    pool.for_chunks(ring.size(), kTexelsPerTask,
                    [&](std::uint64_t, std::uint64_t begin, std::uint64_t end) {
                      for (std::uint64_t k = begin; k < end; ++k) {
                        const std::uint32_t i = ring[k];
                        state[i] = kFilled;
                        mask[i] = 1;
                        slot[i] = static_cast<std::uint32_t>(k);
                        codec.write(i, means.data() + k * channels);
                      }
                    });
    std::swap(means, previous_means);
    if (r < width) {
      ring = next_ring(g, ring, state.data(), pool);
    }
  }
  return mask;
}

}  // namespace kv::padding_detail
