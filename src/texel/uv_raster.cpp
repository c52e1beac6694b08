#include "texel/uv_raster.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>

#include "core/error.h"
#include "core/parallel.h"

namespace kv {
namespace {

[[noreturn]] void throw_no_uv(std::uint64_t triangle) {
  throw Error("low mesh triangle " + std::to_string(triangle) + " has no UV coordinates");
}

// 2^n / d: the snap grid's steps per sample; d is the sub-samples per texel
// side for a texel-sized unit, 1 for a sample-sized unit.
double snap_scale(std::int32_t snap_bits, bool snap_texel, std::int32_t a) {
  return std::ldexp(1.0, snap_bits) / (snap_texel ? static_cast<double>(a) : 1.0);
}

// nearbyint in the default rounding mode (ties to even), without a library
// call: below 2^52, adding and removing 2^52 leaves the nearest integer.
double round_half_even(double x) {
  constexpr double kTwo52 = 4503599627370496.0;
  const double a = std::fabs(x);
  if (!(a < kTwo52)) {
    return x;  // already an integer, or not finite
  }
  return std::copysign((a + kTwo52) - kTwo52, x);
}

std::array<double, 2> snap_with_scale(std::array<double, 2> uv, std::int32_t width,
                                      std::int32_t height, std::int32_t u0, std::int32_t v0,
                                      std::int32_t a, double s) {
  const double x = round_half_even(s * (uv[0] - u0) * width * a) / s;
  const double y = round_half_even(s * (1.0 - (uv[1] - v0)) * height * a) / s;
  return {x, y};
}

}  // namespace

std::array<double, 2> snap_corner(std::array<double, 2> uv, std::int32_t width, std::int32_t height,
                                  std::int32_t u0, std::int32_t v0, std::int32_t scale,
                                  std::int32_t snap_bits, bool snap_texel) {
  return snap_with_scale(uv, width, height, u0, v0, scale,
                         snap_scale(snap_bits, snap_texel, scale));
}

UvRaster::UvRaster(const Mesh& mesh, std::int32_t width, std::int32_t height, std::int32_t u0,
                   std::int32_t v0, std::int32_t snap_bits, bool snap_texel,
                   std::span<const std::uint8_t> mask)
    : mesh_(&mesh),
      width_(width),
      height_(height),
      u0_(u0),
      v0_(v0),
      grid_width_(0),
      grid_height_(0),
      snap_bits_(snap_bits),
      snap_texel_(snap_texel) {
  const std::uint64_t triangle_count = mesh.triangles.size();
  if (width < 1 || height < 1) {
    throw Error("raster size must be positive");
  }
  if (!mask.empty() && mask.size() != triangle_count) {
    throw Error("the raster filter does not match the low mesh's triangles");
  }
  if (snap_bits > 16) {
    throw Error("UV snap bits must be 16 or fewer");
  }
  if (triangle_count > static_cast<std::uint64_t>(std::numeric_limits<std::int32_t>::max())) {
    throw Error("the low mesh has more triangles than the UV raster can index");
  }
  grid_width_ = static_cast<std::int32_t>((static_cast<std::int64_t>(width) + 7) / kCellSize);
  grid_height_ = static_cast<std::int32_t>((static_cast<std::int64_t>(height) + 7) / kCellSize);
  const std::uint64_t cells =
      static_cast<std::uint64_t>(grid_width_) * static_cast<std::uint64_t>(grid_height_);
  try {
    areas_.assign(triangle_count, 0.0);
    boxes_.assign(triangle_count, {0, -1, 0, -1});
    offsets_.assign(cells + 1, 0);
  } catch (const std::bad_alloc&) {
    throw OutOfMemory("out of memory for the UV raster grid");
  } catch (const std::length_error&) {
    throw OutOfMemory("out of memory for the UV raster grid");
  }

  const double w = width;
  const double h = height;
  std::uint64_t references = 0;
  for (std::uint64_t t = 0; t < triangle_count; ++t) {
    const Triangle& tri = mesh.triangles[t];
    std::array<double, 2> p[3];
    for (int i = 0; i < 3; ++i) {
      const Corner& c = tri.corners[static_cast<std::size_t>(i)];
      if (c.uv < 0 || static_cast<std::size_t>(c.uv) >= mesh.uvs.size()) {
        throw_no_uv(t);
      }
      p[i] = mesh.uvs[static_cast<std::size_t>(c.uv)];
    }
    const double area =
        (p[2][1] - p[0][1]) * (p[1][0] - p[0][0]) - (p[1][1] - p[0][1]) * (p[2][0] - p[0][0]);
    if (!std::isfinite(area) || std::fabs(area) < 1e-20) {
      ++degenerate_;
      continue;
    }
    areas_[t] = area;

    const double min_u = std::min({p[0][0], p[1][0], p[2][0]}) - u0;
    const double max_u = std::max({p[0][0], p[1][0], p[2][0]}) - u0;
    const double min_v = std::min({p[0][1], p[1][1], p[2][1]}) - v0;
    const double max_v = std::max({p[0][1], p[1][1], p[2][1]}) - v0;
    const double x0 = std::floor(w * min_u);
    const double x1 = std::ceil(w * max_u);
    const double y0 = std::floor(h * (1.0 - max_v));
    const double y1 = std::ceil(h * (1.0 - min_v));
    if (x1 + 1 < 0 || y1 + 1 < 0 || x0 - 1 >= w || y0 - 1 >= h) {
      continue;
    }
    if (!mask.empty() && mask[t] == 0) {
      continue;
    }
    // The texel box widened by one texel each side and clamped to the image;
    // the tests above keep every clamped value inside 0 .. size - 1.
    const auto first_col = static_cast<std::int32_t>(std::max(0.0, x0 - 1)) / kCellSize;
    const auto last_col = static_cast<std::int32_t>(std::min(w - 1, x1 + 1)) / kCellSize;
    const auto first_row = static_cast<std::int32_t>(std::max(0.0, y0 - 1)) / kCellSize;
    const auto last_row = static_cast<std::int32_t>(std::min(h - 1, y1 + 1)) / kCellSize;
    boxes_[t] = {first_col, last_col, first_row, last_row};
    references += static_cast<std::uint64_t>(last_col - first_col + 1) *
                  static_cast<std::uint64_t>(last_row - first_row + 1);
    if (references > kMaxReferences) {
      throw Error("the low mesh UVs need more than " + std::to_string(kMaxReferences) +
                  " triangle references in the UV raster grid; check for very large, stacked or "
                  "scattered UV triangles");
    }
  }

  // Counting sort: references per cell, prefix sums, then every triangle in
  // increasing order appended to each cell of its box.
  for (const auto& box : boxes_) {
    for (std::int32_t row = box[2]; row <= box[3]; ++row) {
      for (std::int32_t col = box[0]; col <= box[1]; ++col) {
        ++offsets_[static_cast<std::uint64_t>(row) * static_cast<std::uint64_t>(grid_width_) +
                   static_cast<std::uint64_t>(col) + 1];
      }
    }
  }

  for (std::uint64_t c = 0; c < cells; ++c) {
    offsets_[c + 1] += offsets_[c];
  }
  try {
    triangles_.resize(references);
  } catch (const std::bad_alloc&) {
    throw OutOfMemory("out of memory for the UV raster grid");
  }
  std::vector<std::uint64_t> fill(offsets_.begin(), offsets_.end() - 1);
  for (std::uint64_t t = 0; t < triangle_count; ++t) {
    const auto& box = boxes_[t];
    for (std::int32_t row = box[2]; row <= box[3]; ++row) {
      for (std::int32_t col = box[0]; col <= box[1]; ++col) {
        const std::uint64_t cell =
            static_cast<std::uint64_t>(row) * static_cast<std::uint64_t>(grid_width_) +
            static_cast<std::uint64_t>(col);
        triangles_[fill[cell]++] = static_cast<std::uint32_t>(t);
      }
    }
  }
}

std::array<double, 2> UvRaster::uv(const Corner& corner) const {
  return mesh_->uvs[static_cast<std::size_t>(corner.uv)];
}

std::int64_t UvRaster::cell_of(std::int64_t sx, std::int64_t sy, std::int32_t a) const {
  if (sx < 0 || sy < 0 || a < 1) {
    return -1;
  }
  std::int64_t tx = 0;
  std::int64_t ty = 0;
  if ((a & (a - 1)) == 0) {  // the usual 1, 2, 4 or 8: a shift instead of two divisions
    const int shift = std::countr_zero(static_cast<std::uint32_t>(a));
    tx = sx >> shift;
    ty = sy >> shift;
  } else {
    tx = sx / a;
    ty = sy / a;
  }
  if (tx >= width_ || ty >= height_) {
    return -1;
  }
  return static_cast<std::int64_t>(grid_width_) * (ty / kCellSize) + tx / kCellSize;
}

bool UvRaster::covers(std::uint32_t t, double u, double v, RasterHit& hit) const {
  const Triangle& tri = mesh_->triangles[t];
  const auto p0 = uv(tri.corners[0]);
  const auto p1 = uv(tri.corners[1]);
  const auto p2 = uv(tri.corners[2]);
  const double area = areas_[t];
  const double b1 = ((p2[1] - p0[1]) * (u - p0[0]) - (p2[0] - p0[0]) * (v - p0[1])) / area;
  if (!(b1 >= 0)) {
    return false;
  }
  const double b2 = ((p1[0] - p0[0]) * (v - p0[1]) - (p1[1] - p0[1]) * (u - p0[0])) / area;
  if (!(b2 >= 0) || !(b1 + b2 <= 1)) {
    return false;
  }
  hit = {static_cast<std::int32_t>(t), b1, b2};
  return true;
}

// Snapped-corner coverage test shared by both snapped paths.
static bool snapped_test(const double* q, std::uint32_t t, double px, double py, RasterHit& hit) {
  const double d = (q[5] - q[1]) * (q[2] - q[0]) - (q[4] - q[0]) * (q[3] - q[1]);
  if (d == 0) {
    return false;
  }
  const double w1 = (px - q[0]) * (q[5] - q[1]) - (py - q[1]) * (q[4] - q[0]);
  const double w2 = (py - q[1]) * (q[2] - q[0]) - (px - q[0]) * (q[3] - q[1]);
  const bool inside =
      d > 0 ? (d - w1 - w2 >= 0 && w1 >= 0 && w2 >= 0) : (d - w1 - w2 <= 0 && w1 <= 0 && w2 <= 0);
  if (!inside) {
    return false;
  }
  hit = {static_cast<std::int32_t>(t), w1 / d, w2 / d};
  return true;
}

bool UvRaster::covers_snapped(std::uint32_t t, double px, double py, double s, std::int32_t a,
                              RasterHit& hit) const {
  const Triangle& tri = mesh_->triangles[t];
  const auto q0 = snap_with_scale(uv(tri.corners[0]), width_, height_, u0_, v0_, a, s);
  const auto q1 = snap_with_scale(uv(tri.corners[1]), width_, height_, u0_, v0_, a, s);
  const auto q2 = snap_with_scale(uv(tri.corners[2]), width_, height_, u0_, v0_, a, s);
  const double q[6] = {q0[0], q0[1], q1[0], q1[1], q2[0], q2[1]};
  return snapped_test(q, t, px, py, hit);
}

const std::vector<double>* UvRaster::kept_corners(std::int32_t scale) const {
  for (const auto& [kept_scale, corners] : kept_) {
    if (kept_scale == scale) {
      return &corners;
    }
  }
  return nullptr;
}

RasterHit UvRaster::lookup(std::int64_t sx, std::int64_t sy, std::int32_t a) const {
  RasterHit hit;
  const std::int64_t cell = cell_of(sx, sy, a);
  if (cell < 0) {
    return hit;
  }
  const std::uint64_t begin = offsets_[static_cast<std::uint64_t>(cell)];
  const std::uint64_t end = offsets_[static_cast<std::uint64_t>(cell) + 1];
  if (snap_bits_ >= 0) {
    const double px = static_cast<double>(sx) + 0.5;
    const double py = static_cast<double>(sy) + 0.5;
    if (const std::vector<double>* kept = kept_corners(a)) {
      for (std::uint64_t k = end; k > begin; --k) {
        const std::uint32_t t = triangles_[k - 1];
        if (snapped_test(kept->data() + std::size_t{t} * 6, t, px, py, hit)) {
          return hit;
        }
      }
      return hit;
    }
    const double s = snap_scale(snap_bits_, snap_texel_, a);
    for (std::uint64_t k = end; k > begin; --k) {
      if (covers_snapped(triangles_[k - 1], px, py, s, a, hit)) {
        return hit;
      }
    }
    return hit;
  }
  const double u = (static_cast<double>(sx) + 0.5) / (static_cast<double>(width_) * a) + u0_;
  const double v =
      (v0_ + 1.0) - (static_cast<double>(sy) + 0.5) / (static_cast<double>(height_) * a);
  for (std::uint64_t k = end; k > begin; --k) {
    if (covers(triangles_[k - 1], u, v, hit)) {
      return hit;
    }
  }
  return hit;
}

namespace {

// A candidate of a grid cell set up for one sample row: the terms of
// snapped_test that do not change along the row, formed by the same
// operations, so that every hit keeps its bits.
struct RowCandidate {  // without initialisers: set up per cell in an array on the stack
  std::uint32_t t;
  double x0;  // q[0]
  double ey;  // q[5] - q[1]
  double ex;  // q[3] - q[1]
  double c1;  // (py - q[1]) * (q[4] - q[0])
  double c2;  // (py - q[1]) * (q[2] - q[0])
  double d;
};

// Cells listing more candidates than this are looked up sample by sample.
constexpr std::uint64_t kRowCandidates = 32;

}  // namespace

std::int32_t UvRaster::lookup_cell_run(std::int64_t sx, std::int64_t sy, std::int32_t a,
                                       std::int32_t count, const std::vector<double>& kept,
                                       RasterHit* out) const {
  const std::int64_t cell = cell_of(sx, sy, a);
  if (cell < 0) {
    out[0] = RasterHit{};
    return 1;
  }
  // The row's samples in this cell: up to the cell's last column or the image's.
  const std::int64_t cell_samples = std::int64_t{kCellSize} * a;
  const std::int64_t end =
      std::min((sx / cell_samples + 1) * cell_samples, std::int64_t{width_} * a);
  const auto n = static_cast<std::int32_t>(std::min<std::int64_t>(count, end - sx));
  const std::uint64_t begin = offsets_[static_cast<std::uint64_t>(cell)];
  const std::uint64_t stop = offsets_[static_cast<std::uint64_t>(cell) + 1];
  if (stop - begin > kRowCandidates) {
    for (std::int32_t j = 0; j < n; ++j) {
      out[j] = lookup(sx + j, sy, a);
    }
    return n;
  }
  // Highest index first, as lookup tries them.
  const double py = static_cast<double>(sy) + 0.5;
  std::array<RowCandidate, kRowCandidates> c;
  std::size_t m = 0;
  for (std::uint64_t k = stop; k > begin; --k) {
    const std::uint32_t t = triangles_[k - 1];
    const double* q = kept.data() + std::size_t{t} * 6;
    const double d = (q[5] - q[1]) * (q[2] - q[0]) - (q[4] - q[0]) * (q[3] - q[1]);
    if (d != 0) {
      c[m++] = {t,
                q[0],
                q[5] - q[1],
                q[3] - q[1],
                (py - q[1]) * (q[4] - q[0]),
                (py - q[1]) * (q[2] - q[0]),
                d};
    }
  }
  for (std::int32_t j = 0; j < n; ++j) {
    const double px = static_cast<double>(sx + j) + 0.5;
    RasterHit hit;
    for (std::size_t i = 0; i < m; ++i) {
      const RowCandidate& e = c[i];
      const double rx = px - e.x0;
      const double w1 = rx * e.ey - e.c1;
      const double w2 = e.c2 - rx * e.ex;
      const bool inside = e.d > 0 ? (e.d - w1 - w2 >= 0 && w1 >= 0 && w2 >= 0)
                                  : (e.d - w1 - w2 <= 0 && w1 <= 0 && w2 <= 0);
      if (inside) {
        hit = {static_cast<std::int32_t>(e.t), w1 / e.d, w2 / e.d};
        break;
      }
    }
    out[j] = hit;
  }
  return n;
}

void UvRaster::lookup_row(std::int64_t sx, std::int64_t sy, std::int32_t a, std::int32_t count,
                          RasterHit* out) const {
  const std::vector<double>* kept = snap_bits_ >= 0 ? kept_corners(a) : nullptr;
  if (kept == nullptr) {
    for (std::int32_t j = 0; j < count; ++j) {
      out[j] = lookup(sx + j, sy, a);
    }
    return;
  }
  for (std::int32_t j = 0; j < count;) {
    j += lookup_cell_run(sx + j, sy, a, count - j, *kept, out + j);
  }
}

std::span<const std::uint32_t> UvRaster::cell_candidates(std::int64_t sx, std::int64_t sy,
                                                         std::int32_t a) const {
  const std::int64_t cell = cell_of(sx, sy, a);
  if (cell < 0) {
    return {};
  }
  const std::uint64_t begin = offsets_[static_cast<std::uint64_t>(cell)];
  const std::uint64_t end = offsets_[static_cast<std::uint64_t>(cell) + 1];
  return std::span<const std::uint32_t>(triangles_)
      .subspan(static_cast<std::size_t>(begin), static_cast<std::size_t>(end - begin));
}

void UvRaster::lookup_all(std::int64_t sx, std::int64_t sy, std::int32_t a,
                          std::vector<std::int32_t>& out) const {
  out.clear();
  const std::int64_t cell = cell_of(sx, sy, a);
  if (cell < 0) {
    return;
  }
  const std::uint64_t begin = offsets_[static_cast<std::uint64_t>(cell)];
  const std::uint64_t end = offsets_[static_cast<std::uint64_t>(cell) + 1];
  const double u = (static_cast<double>(sx) + 0.5) / (static_cast<double>(width_) * a) + u0_;
  const double v =
      (v0_ + 1.0) - (static_cast<double>(sy) + 0.5) / (static_cast<double>(height_) * a);
  RasterHit hit;
  for (std::uint64_t k = end; k > begin; --k) {
    if (covers(triangles_[k - 1], u, v, hit)) {
      out.push_back(hit.triangle);
    }
  }
}

std::vector<double> UvRaster::snapped_corners(std::int32_t scale, int threads) const {
  if (scale < 1) {
    throw Error("snapped_corners needs a scale of at least 1");
  }
  std::vector<double> out;
  if (snap_bits_ < 0) {
    return out;
  }
  const std::uint64_t count = mesh_->triangles.size();
  out.resize(count * 6);
  const double s = snap_scale(snap_bits_, snap_texel_, scale);
  WorkerPool pool(threads);
  pool.for_chunks(count, 4096, [&](std::uint64_t, std::uint64_t begin, std::uint64_t end) {
    for (std::uint64_t t = begin; t < end; ++t) {
      const Triangle& tri = mesh_->triangles[t];
      for (std::size_t i = 0; i < 3; ++i) {
        const auto q = snap_with_scale(uv(tri.corners[i]), width_, height_, u0_, v0_, scale, s);
        out[t * 6 + i * 2] = q[0];
        out[t * 6 + i * 2 + 1] = q[1];
      }
    }
  });
  return out;
}

std::span<const double> UvRaster::keep_snapped_corners(std::int32_t scale, int threads) {
  if (const std::vector<double>* kept = kept_corners(scale)) {
    return *kept;
  }
  std::vector<double> corners = snapped_corners(scale, threads);
  if (corners.empty()) {
    return {};
  }
  // Growing kept_ moves the inner vectors, whose buffers (and the spans
  // handed out earlier) stay where they are.
  kept_.emplace_back(scale, std::move(corners));
  return kept_.back().second;
}

UvRasterDescriptor UvRaster::descriptor() const {
  UvRasterDescriptor d;
  d.width = width_;
  d.height = height_;
  d.u0 = u0_;
  d.v0 = v0_;
  d.cell_size = kCellSize;
  d.grid_width = grid_width_;
  d.snap_bits = snap_bits_;
  d.snap_texel = snap_texel_;
  d.areas = areas_.data();
  d.area_count = areas_.size();
  d.cell_offsets = offsets_.data();
  d.cell_offset_count = offsets_.size();
  d.cell_triangles = triangles_.data();
  d.cell_triangle_count = triangles_.size();
  return d;
}

}  // namespace kv
