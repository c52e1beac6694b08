#include "trace/spatial_order.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace kv {
namespace {

constexpr std::uint64_t kChunk = 65536;

// The ten bits of v spread to every third bit.
std::uint32_t spread_bits(std::uint32_t v) {
  v &= 0x3FFu;
  v = (v | (v << 16)) & 0x030000FFu;
  v = (v | (v << 8)) & 0x0300F00Fu;
  v = (v | (v << 4)) & 0x030C30C3u;
  v = (v | (v << 2)) & 0x09249249u;
  return v;
}

std::uint32_t grid_cell(double t) {
  // Written so that NaN takes the lower end.
  if (!(t > 0.0)) {
    return 0;
  }
  return t >= 1.0 ? 1023u : static_cast<std::uint32_t>(t * 1024.0);
}

}  // namespace

std::uint32_t morton_code(double x, double y, double z) {
  return spread_bits(grid_cell(x)) | (spread_bits(grid_cell(y)) << 1) |
         (spread_bits(grid_cell(z)) << 2);
}

LargeArray<std::uint32_t> spatial_order(const Mesh& mesh, const WorkerPool& pool) {
  const std::uint64_t count = mesh.triangles.size();
  if (count == 0) {
    return {};
  }
  // The box of every corner position, joined over fixed chunks in order
  // (min and max do not depend on the order anyway).
  using Box = std::array<double, 6>;
  const std::vector<Box> boxes =
      pool.map_chunks<Box>(count, kChunk, [&](std::uint64_t begin, std::uint64_t end) {
        constexpr double kInf = std::numeric_limits<double>::infinity();
        Box b = {kInf, kInf, kInf, -kInf, -kInf, -kInf};
        for (std::uint64_t t = begin; t < end; ++t) {
          for (const Corner& c : mesh.triangles[t].corners) {
            const auto& p = mesh.positions[c.position];
            for (int k = 0; k < 3; ++k) {
              b[k] = std::min(b[k], static_cast<double>(p[k]));
              b[k + 3] = std::max(b[k + 3], static_cast<double>(p[k]));
            }
          }
        }
        return b;
      });
  Box box = boxes.front();
  for (const Box& b : boxes) {
    for (int k = 0; k < 3; ++k) {
      box[k] = std::min(box[k], b[k]);
      box[k + 3] = std::max(box[k + 3], b[k + 3]);
    }
  }
  std::array<double, 3> scale{};
  for (int k = 0; k < 3; ++k) {
    const double extent = box[k + 3] - box[k];
    scale[k] = extent > 0.0 && std::isfinite(extent) ? 1.0 / extent : 0.0;
  }

  // Each key holds the code above the index, so that the sort moves both.
  LargeArray<std::uint64_t> keys(count);
  pool.for_chunks(count, kChunk, [&](std::uint64_t, std::uint64_t begin, std::uint64_t end) {
    for (std::uint64_t t = begin; t < end; ++t) {
      std::array<double, 3> centre = {0.0, 0.0, 0.0};
      for (const Corner& c : mesh.triangles[t].corners) {
        const auto& p = mesh.positions[c.position];
        for (int k = 0; k < 3; ++k) {
          centre[k] += static_cast<double>(p[k]);
        }
      }
      for (int k = 0; k < 3; ++k) {
        centre[k] = (centre[k] / 3.0 - box[k]) * scale[k];
      }
      keys[t] = (std::uint64_t{morton_code(centre[0], centre[1], centre[2])} << 32) | t;
    }
  });

  // A stable least-significant-digit radix sort by the code, in two passes
  // of 15 bits: equal codes keep increasing index.
  constexpr int kDigitBits = 15;
  constexpr std::uint64_t kDigitMask = (std::uint64_t{1} << kDigitBits) - 1;
  LargeArray<std::uint64_t> sorted(count);
  std::vector<std::uint64_t> starts(kDigitMask + 2);
  for (int shift = 32; shift < 62; shift += kDigitBits) {
    std::fill(starts.begin(), starts.end(), 0);
    for (const std::uint64_t key : keys) {
      ++starts[((key >> shift) & kDigitMask) + 1];
    }
    for (std::size_t d = 1; d < starts.size(); ++d) {
      starts[d] += starts[d - 1];
    }
    for (const std::uint64_t key : keys) {
      sorted[starts[(key >> shift) & kDigitMask]++] = key;
    }
    keys.swap(sorted);
  }
  LargeArray<std::uint32_t> order(count);
  for (std::uint64_t i = 0; i < count; ++i) {
    order[i] = static_cast<std::uint32_t>(keys[i]);
  }
  return order;
}

}  // namespace kv
