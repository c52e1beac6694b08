// A uniform grid over the output image that answers which low triangle covers
// an anti-aliasing sub-sample. Cells are 8 x 8 texels; each cell lists the
// triangles whose widened texel box touches it, in increasing triangle order,
// all lists packed into one array by a counting sort.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include "mesh/mesh.h"

namespace kv {

// The low triangle covering a sample and the barycentric weights of its
// second and third corner (the first corner's weight is 1 - b1 - b2).
struct RasterHit {
  std::int32_t triangle = -1;  // -1: no triangle covers the sample
  double b1 = 0.0;
  double b2 = 0.0;
};

// The raster's arrays as plain memory, for the GPU backend.
struct UvRasterDescriptor {
  std::int32_t width = 0;
  std::int32_t height = 0;
  std::int32_t u0 = 0;
  std::int32_t v0 = 0;
  std::int32_t cell_size = 8;
  std::int32_t grid_width = 0;
  std::int32_t snap_bits = -1;
  bool snap_texel = false;
  const double* areas = nullptr;  // signed doubled UV area per triangle
  std::uint64_t area_count = 0;
  const std::uint64_t* cell_offsets = nullptr;  // grid cells + 1 prefix sums
  std::uint64_t cell_offset_count = 0;
  const std::uint32_t* cell_triangles = nullptr;
  std::uint64_t cell_triangle_count = 0;
};

class UvRaster {
 public:
  static constexpr std::int32_t kCellSize = 8;
  static constexpr std::uint64_t kMaxReferences = 1073741824;  // 2^30

  // u0, v0: the UDIM tile's column and row. snap_bits < 0 turns snapping off;
  // snap_texel makes the snap step a fraction of a texel instead of a
  // sub-sample. mask: one byte per triangle (1 = rasterised), or empty.
  UvRaster(const Mesh& mesh, std::int32_t width, std::int32_t height, std::int32_t u0,
           std::int32_t v0, std::int32_t snap_bits, bool snap_texel,
           std::span<const std::uint8_t> mask = {});

  // The triangle covering sample (sx, sy) of the image super-sampled a times
  // per side; the highest-indexed triangle wins where several cover it.
  RasterHit lookup(std::int64_t sx, std::int64_t sy, std::int32_t a) const;

  // lookup of samples sx .. sx + count - 1 of sample row sy into out[0 ..
  // count - 1], each the same hit, with each grid cell's candidates set up
  // once for its samples of the row.
  void lookup_row(std::int64_t sx, std::int64_t sy, std::int32_t a, std::int32_t count,
                  RasterHit* out) const;

  // The triangles the sample's grid cell lists: every triangle that can cover
  // it (none outside the image).
  std::span<const std::uint32_t> cell_candidates(std::int64_t sx, std::int64_t sy,
                                                 std::int32_t a) const;

  // Every triangle covering the sample (unsnapped test), highest index first.
  void lookup_all(std::int64_t sx, std::int64_t sy, std::int32_t a,
                  std::vector<std::int32_t>& out) const;

  // X0, Y0, X1, Y1, X2, Y2 in sample units for every triangle, snapped at the
  // given anti-aliasing scale; empty when snapping is off.
  std::vector<double> snapped_corners(std::int32_t scale, int threads) const;

  // Computes the snapped corners at `scale` once and keeps them, so that
  // snapped lookups at that anti-aliasing read them instead of snapping every
  // candidate corner again (same values, less work). Call before sharing the
  // raster between threads. Returns the kept corners (empty when snapping is off).
  std::span<const double> keep_snapped_corners(std::int32_t scale, int threads);

  UvRasterDescriptor descriptor() const;

  const Mesh& mesh() const { return *mesh_; }
  std::int32_t width() const { return width_; }
  std::int32_t height() const { return height_; }
  std::int32_t u0() const { return u0_; }
  std::int32_t v0() const { return v0_; }
  std::int32_t grid_width() const { return grid_width_; }
  std::int32_t grid_height() const { return grid_height_; }
  std::int32_t snap_bits() const { return snap_bits_; }
  bool snap_texel() const { return snap_texel_; }
  std::uint64_t degenerate_count() const { return degenerate_; }
  std::span<const double> areas() const { return areas_; }
  // First column, last column, first row, last row; (0, -1, 0, -1) when empty.
  std::span<const std::array<std::int32_t, 4>> cell_boxes() const { return boxes_; }
  std::span<const std::uint64_t> cell_offsets() const { return offsets_; }
  std::span<const std::uint32_t> cell_triangles() const { return triangles_; }

 private:
  std::array<double, 2> uv(const Corner& corner) const;
  bool covers(std::uint32_t t, double u, double v, RasterHit& hit) const;
  bool covers_snapped(std::uint32_t t, double px, double py, double s, std::int32_t a,
                      RasterHit& hit) const;
  const std::vector<double>* kept_corners(std::int32_t scale) const;
  std::int64_t cell_of(std::int64_t sx, std::int64_t sy, std::int32_t a) const;
  std::int32_t lookup_cell_run(std::int64_t sx, std::int64_t sy, std::int32_t a, std::int32_t count,
                               const std::vector<double>& kept, RasterHit* out) const;

  const Mesh* mesh_;
  std::int32_t width_;
  std::int32_t height_;
  std::int32_t u0_;
  std::int32_t v0_;
  std::int32_t grid_width_;
  std::int32_t grid_height_;
  std::vector<double> areas_;
  std::vector<std::array<std::int32_t, 4>> boxes_;
  std::vector<std::uint64_t> offsets_;
  std::vector<std::uint32_t> triangles_;
  std::uint64_t degenerate_ = 0;
  std::int32_t snap_bits_;
  bool snap_texel_;
  std::vector<std::pair<std::int32_t, std::vector<double>>> kept_;  // by scale
};

// A corner (u, v) moved to the snap grid, in sample units of an image of
// width x height texels with `scale` sub-samples per side.
std::array<double, 2> snap_corner(std::array<double, 2> uv, std::int32_t width, std::int32_t height,
                                  std::int32_t u0, std::int32_t v0, std::int32_t scale,
                                  std::int32_t snap_bits, bool snap_texel);

}  // namespace kv
