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

#include "bake/normal_bake_settings.h"
#include "bake/tangent_frames.h"
#include "bake/uv_raster.h"
#include "mesh/mesh.h"

namespace kv {

// The checks every Normal bake and every LowPrep build make first, in order.
// Throws kv::Error with the first failing check's message.
void validate_normal_bake(const Mesh& low, std::span<const std::uint32_t> low_groups,
                          const NormalBakeSettings& settings);

// The settings a LowPrep was built for.
struct LowPrepSettings {
  std::int32_t width = 0;
  std::int32_t height = 0;
  std::int32_t udim = 1001;
  std::int32_t aa = 1;
  std::int32_t snap_bits = -1;
  bool snap_texel = false;
  bool average_normals = true;
  std::uint32_t tangent_space = 0;
};

class LowPrep {
 public:
  // Validates, then builds mask, raster, tangent frames, averaged normals,
  // snapped corners and fingerprint, in that order. The low mesh must outlive
  // the result. skipped_raster_triangles: low triangles that own no texels.
  static LowPrep build(const Mesh& low, std::span<const std::uint32_t> low_groups,
                       const NormalBakeSettings& settings,
                       std::span<const std::int64_t> skipped_raster_triangles = {});

  LowPrep(LowPrep&&) noexcept = default;
  LowPrep& operator=(LowPrep&&) noexcept = default;
  LowPrep(const LowPrep&) = delete;
  LowPrep& operator=(const LowPrep&) = delete;
  ~LowPrep();

  const Mesh& mesh() const { return *mesh_; }
  std::span<const std::uint32_t> name_groups() const { return name_groups_; }
  const LowPrepSettings& settings() const { return settings_; }
  std::span<const std::string> raster_materials() const { return raster_materials_; }
  std::uint32_t uv_tile() const { return uv_tile_; }
  std::span<const std::uint32_t> skipped_raster_triangles() const { return skipped_; }
  const UvRaster& raster() const { return *raster_; }
  // Three per triangle, in triangle order.
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
  std::vector<std::string> raster_materials_;
  std::uint32_t uv_tile_ = 0;
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
// requires them (and the skip list) to be the ones it was built for. When the
// LowPrep carries name groups, the tracer must carry the high mesh's.
void check_low_prep_use(const LowPrep& prep, const NormalBakeSettings& settings,
                        std::span<const std::int64_t> skipped_raster_triangles,
                        bool tracer_has_name_groups);

}  // namespace kv
