// The nearest valid texel of every texel, by an exact separable Euclidean
// distance transform (lower envelope of parabolas, after Felzenszwalb and
// Huttenlocher), in integer arithmetic so that distances and ties are exact.
//
// Pass 1, along each row: the nearest valid texel in the same row (ties to
// the left). Pass 2, along each column: the lower envelope of the parabolas
// f(r) + (y - r)^2 over the rows r, f(r) being pass 1's squared distance in
// row r; ties go to the upper row. Together: of all valid texels at the least
// distance, the one with the lowest index (topmost, then leftmost) wins.
//
// Also the modes built on it (infinite, transparent, color, diffusion).
#include <algorithm>
#include <limits>

#include "padding/padding_texels.h"

namespace kv {

namespace {

constexpr std::uint64_t kFar = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint64_t kRowsPerBlock = 32;
constexpr std::uint64_t kColumnsPerBlock = 32;

// Pass 1 on one row: column of the nearest valid texel in the row and the
// squared distance to it (kFar when the row has none).
void nearest_in_row(std::int64_t w, const std::uint8_t* valid, std::uint32_t* column,
                    std::uint64_t* distance2) {
  std::int64_t last = -1;
  for (std::int64_t x = 0; x < w; ++x) {
    if (valid[x] != 0) {
      last = x;
    }
    if (last >= 0) {
      column[x] = static_cast<std::uint32_t>(last);
      const auto d = static_cast<std::uint64_t>(x - last);
      distance2[x] = d * d;
    } else {
      column[x] = NearestValid::kNone;
      distance2[x] = kFar;
    }
  }
  std::int64_t next = -1;
  for (std::int64_t x = w - 1; x >= 0; --x) {
    if (valid[x] != 0) {
      next = x;
    }
    if (next >= 0) {
      const auto d = static_cast<std::uint64_t>(next - x);
      if (d * d < distance2[x]) {  // strictly nearer: ties stay on the left
        column[x] = static_cast<std::uint32_t>(next);
        distance2[x] = d * d;
      }
    }
  }
}

// floor(a / b) for b > 0.
std::int64_t floor_div(std::int64_t a, std::int64_t b) {
  std::int64_t q = a / b;
  if (a % b != 0 && a < 0) {
    q -= 1;
  }
  return q;
}

// Pass 2 on one column of a block: f[r * stride] squared row distances
// (kFar: no valid texel in row r), col[r * stride] their columns. Writes the
// nearest texel and its squared distance of every row, at the same stride.
void nearest_in_column(std::int64_t w, std::int64_t h, std::size_t stride, const std::uint64_t* f,
                       const std::uint32_t* col, std::int64_t* rows, std::int64_t* starts,
                       std::uint32_t* out_nearest, std::uint64_t* out_distance2) {
  // rows[0..n) are the parabolas of the envelope; starts[k] is the first
  // integer row at which rows[k] is the winner.
  std::int64_t n = 0;
  for (std::int64_t q = 0; q < h; ++q) {
    const std::uint64_t fq = f[static_cast<std::size_t>(q) * stride];
    if (fq == kFar) {
      continue;
    }
    std::int64_t start = std::numeric_limits<std::int64_t>::min();
    while (n > 0) {
      const std::int64_t v = rows[n - 1];
      const std::uint64_t fv = f[static_cast<std::size_t>(v) * stride];
      // q is strictly nearer than v at row y exactly when
      // y > ((f[q] + q^2) - (f[v] + v^2)) / (2 (q - v)). With W * H < 2^32
      // each side is at most (W - 1)^2 + (H - 1)^2 < 2^63: 64 bits suffice.
      const auto numerator = static_cast<std::int64_t>(fq + static_cast<std::uint64_t>(q * q)) -
                             static_cast<std::int64_t>(fv + static_cast<std::uint64_t>(v * v));
      start = floor_div(numerator, 2 * (q - v)) + 1;
      if (start <= starts[n - 1]) {
        --n;  // v never wins
        start = std::numeric_limits<std::int64_t>::min();
      } else {
        break;
      }
    }
    rows[n] = q;
    starts[n] = start;
    ++n;
  }
  std::int64_t k = 0;
  for (std::int64_t y = 0; y < h; ++y) {
    const std::size_t at = static_cast<std::size_t>(y) * stride;
    if (n == 0) {
      out_nearest[at] = NearestValid::kNone;
      out_distance2[at] = kFar;
      continue;
    }
    while (k + 1 < n && starts[k + 1] <= y) {
      ++k;
    }
    const std::int64_t r = rows[k];
    const std::size_t from = static_cast<std::size_t>(r) * stride;
    const auto dy = static_cast<std::uint64_t>(y > r ? y - r : r - y);
    out_nearest[at] = static_cast<std::uint32_t>(r * w + col[from]);
    out_distance2[at] = f[from] + dy * dy;
  }
}

struct ColumnScratch {
  std::vector<std::uint64_t> f;
  std::vector<std::uint32_t> col;
  std::vector<std::int64_t> envelope_rows;
  std::vector<std::int64_t> starts;
  std::vector<std::uint32_t> out_nearest;
  std::vector<std::uint64_t> out_distance2;
  void resize(std::size_t block, std::size_t rows) {
    if (f.size() < block) {
      f.resize(block);
      col.resize(block);
      out_nearest.resize(block);
      out_distance2.resize(block);
    }
    if (starts.size() < rows) {
      envelope_rows.resize(rows);
      starts.resize(rows);
    }
  }
};

}  // namespace

NearestValid nearest_valid_texels(std::int32_t width, std::int32_t height,
                                  std::span<const std::uint8_t> valid, const WorkerPool& pool) {
  const std::int64_t w = width;
  const std::int64_t h = height;
  const auto texels = static_cast<std::size_t>(w * h);
  NearestValid result;
  result.nearest.resize(texels);
  result.distance2.resize(texels);
  std::uint32_t* nearest = result.nearest.data();
  std::uint64_t* distance2 = result.distance2.data();

  pool.for_chunks(static_cast<std::uint64_t>(h), kRowsPerBlock,
                  [&](std::uint64_t, std::uint64_t y0, std::uint64_t y1) {
                    for (std::uint64_t y = y0; y < y1; ++y) {
                      const std::size_t row = y * static_cast<std::uint64_t>(w);
                      nearest_in_row(w, valid.data() + row, nearest + row, distance2 + row);
                    }
                  });

  // Columns are independent. A block of them is copied out row by row (runs
  // of memory, one page per row for the whole block, instead of one per row
  // and column) and solved in that row-major layout.
  pool.for_chunks(static_cast<std::uint64_t>(w), kColumnsPerBlock,
                  [&](std::uint64_t, std::uint64_t x0, std::uint64_t x1) {
                    const auto span = static_cast<std::size_t>(x1 - x0);
                    const auto rows_n = static_cast<std::size_t>(h);
                    // Reused per thread: fresh buffers of this size would be
                    // mapped and faulted in for every block.
                    thread_local ColumnScratch scratch;
                    scratch.resize(span * rows_n, rows_n);
                    for (std::size_t y = 0; y < rows_n; ++y) {
                      const std::size_t i = y * static_cast<std::size_t>(w) + x0;
                      std::copy_n(distance2 + i, span, scratch.f.data() + y * span);
                      std::copy_n(nearest + i, span, scratch.col.data() + y * span);
                    }
                    for (std::size_t c = 0; c < span; ++c) {
                      nearest_in_column(w, h, span, scratch.f.data() + c, scratch.col.data() + c,
                                        scratch.envelope_rows.data(), scratch.starts.data(),
                                        scratch.out_nearest.data() + c,
                                        scratch.out_distance2.data() + c);
                    }
                    for (std::size_t y = 0; y < rows_n; ++y) {
                      const std::size_t i = y * static_cast<std::size_t>(w) + x0;
                      std::copy_n(scratch.out_distance2.data() + y * span, span, distance2 + i);
                      std::copy_n(scratch.out_nearest.data() + y * span, span, nearest + i);
                    }
                  });
  return result;
}

namespace padding_detail {

std::vector<std::uint8_t> nearest_fill(const ImageView& image, std::span<const std::uint8_t> valid,
                                       const PaddingSettings& settings, const WorkerPool& pool) {
  const std::int64_t w = image.width;
  const std::int64_t h = image.height;
  const auto texels = static_cast<std::size_t>(w * h);
  const NearestValid nv = nearest_valid_texels(image.width, image.height, valid, pool);

  // Texels up to this squared distance take their nearest value.
  const bool unlimited = settings.mode == PaddingMode::infinite;
  const bool none_within = !unlimited && settings.width <= 0;
  const std::uint64_t limit = none_within ? 0
                                          : static_cast<std::uint64_t>(settings.width - 1) *
                                                static_cast<std::uint64_t>(settings.width - 1);

  const TexelCodec codec(image, settings.srgb);
  std::vector<double> fill(static_cast<std::size_t>(image.channels), 0.0);
  if (settings.mode == PaddingMode::color) {
    for (std::size_t c = 0; c < fill.size() && c < settings.color.size(); ++c) {
      fill[c] = settings.color[c];
    }
  }
  const bool beyond_holds_value = settings.mode == PaddingMode::color;
  const bool beyond_written =
      settings.mode == PaddingMode::color || settings.mode == PaddingMode::transparent;

  std::vector<std::uint8_t> mask(texels);
  pool.for_chunks(static_cast<std::uint64_t>(h), kRowsPerBlock,
                  [&](std::uint64_t, std::uint64_t y0, std::uint64_t y1) {
                    for (std::uint64_t i = y0 * static_cast<std::uint64_t>(w);
                         i < y1 * static_cast<std::uint64_t>(w); ++i) {
                      if (valid[i] != 0) {
                        mask[i] = 1;
                        continue;
                      }
                      const bool has_nearest = nv.nearest[i] != NearestValid::kNone;
                      if (has_nearest && !none_within && (unlimited || nv.distance2[i] <= limit)) {
                        codec.copy(nv.nearest[i], i);  // valid texels are never written here
                        mask[i] = 1;
                      } else if (beyond_written) {
                        codec.write_raw(i, fill.data());
                        mask[i] = beyond_holds_value ? 1 : 0;
                      }
                    }
                  });

  if (settings.mode == PaddingMode::diffusion) {
    const bool any = std::any_of(mask.begin(), mask.end(), [](std::uint8_t m) { return m != 0; });
    if (any) {
      diffuse_fill(image, mask, settings.srgb, pool);
      std::fill(mask.begin(), mask.end(), std::uint8_t{1});
    }
  }
  return mask;
}

}  // namespace padding_detail
}  // namespace kv
