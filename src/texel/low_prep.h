// The low mesh prepared once for a bake: which triangles own texels, the UV
// raster, per-corner tangent frames and averaged normals, the snapped UV
// corners for the GPU backend, and a fingerprint under which the service can
// keep it. Immutable once built; any number of bakes read it at once.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "mesh/mesh.h"
#include "texel/tangent_frames.h"
#include "texel/uv_raster.h"

namespace kv {

// What a LowPrep is built for. Every map that rasterises the low mesh's UVs
// fills one; only the bakes that work in tangent space ask for the frames.
struct LowPrepSettings {
  std::int32_t width = 0;
  std::int32_t height = 0;
  std::int32_t udim = 1001;
  std::int32_t aa = 1;
  std::int32_t snap_bits = -1;  // -1: off
  bool snap_texel = false;      // snap unit: texel (true) or sub-sample
  bool average_normals = true;
  std::uint32_t tangent_space = 0;  // 0 per-fragment, 1 per-vertex
  bool tangent_frames = true;       // build the MikkTSpace frames
  std::vector<std::string> raster_materials;
  std::int32_t uv_tile = 0;  // 0: none
  std::int32_t threads = 0;  // for the build only; 0: every hardware thread
};

// The checks of the settings alone, in order: size, anti-aliasing, UV snap
// bits, UDIM tile. Throws kv::Error with the first failing check's message.
void check_low_prep_settings(const LowPrepSettings& settings);

class LowPrep {
 public:
  // Validates, then builds mask, raster, tangent frames (when asked),
  // averaged normals, snapped corners and fingerprint, in that order. The low
  // mesh must outlive the result. skipped_raster_triangles: low triangles
  // that own no texels.
  static LowPrep build(const Mesh& low, std::span<const std::uint32_t> low_groups,
                       const LowPrepSettings& settings,
                       std::span<const std::int64_t> skipped_raster_triangles = {});

  LowPrep(LowPrep&&) noexcept = default;
  LowPrep& operator=(LowPrep&&) noexcept = default;
  LowPrep(const LowPrep&) = delete;
  LowPrep& operator=(const LowPrep&) = delete;
  ~LowPrep();

  const Mesh& mesh() const { return *mesh_; }
  std::span<const std::uint32_t> name_groups() const { return name_groups_; }
  const LowPrepSettings& settings() const { return settings_; }
  std::span<const std::uint32_t> skipped_raster_triangles() const { return skipped_; }
  const UvRaster& raster() const { return *raster_; }
  // Three per triangle, in triangle order; empty unless the settings asked.
  std::span<const TangentFrame> tangent_frames() const { return frames_; }
  // Corners whose normal could not be formed for the tangent frames.
  std::uint64_t tangent_normal_fallbacks() const { return tangent_normal_fallbacks_; }
  // Three per triangle; empty when average normals is off.
  std::span<const std::array<float, 3>> averaged_normals() const { return averaged_; }
  // Six per triangle at the anti-aliasing scale; empty when snapping is off.
  std::span<const double> snapped_corners() const { return snapped_; }
  // Six per triangle at scale 1; empty when snapping is off or anti-aliasing is 1.
  std::span<const double> snapped_corners_unit() const { return snapped_unit_; }
  // One byte per triangle, 1 = rasterised; empty when no raster filter was given.
  std::span<const std::uint8_t> raster_mask() const { return mask_; }
  std::uint64_t rasterised_triangles() const { return rasterised_; }
  std::uint64_t fingerprint() const { return fingerprint_; }

 private:
  LowPrep() = default;

  const Mesh* mesh_ = nullptr;
  std::vector<std::uint32_t> name_groups_;
  LowPrepSettings settings_;
  std::vector<std::uint32_t> skipped_;
  std::unique_ptr<const UvRaster> raster_;
  std::vector<TangentFrame> frames_;
  std::uint64_t tangent_normal_fallbacks_ = 0;
  std::vector<std::array<float, 3>> averaged_;
  std::span<const double> snapped_;       // kept by the raster
  std::span<const double> snapped_unit_;  // kept by the raster
  std::vector<std::uint8_t> mask_;
  std::uint64_t rasterised_ = 0;
  std::uint64_t fingerprint_ = 0;
};

// Before a bake with an existing LowPrep: validates the settings again and
// requires them (and the skip list) to be the ones it was built for, the
// thread count aside. When the LowPrep carries name groups, the tracer must
// carry the high mesh's.
void check_low_prep_use(const LowPrep& prep, const LowPrepSettings& settings,
                        std::span<const std::int64_t> skipped_raster_triangles,
                        bool tracer_has_name_groups);

}  // namespace kv
