#include <cmath>

#include "core/error.h"
#include "normal/normal_bake.h"
#include "texel/low_prep.h"

namespace kv {

LowPrepSettings low_prep_settings_of(const NormalBakeSettings& s) {
  LowPrepSettings p;
  p.width = s.width;
  p.height = s.height;
  p.udim = s.udim;
  p.aa = s.aa;
  p.snap_bits = s.uv_snap_bits;
  p.snap_texel = s.uv_snap_texel;
  p.average_normals = s.average_normals;
  p.tangent_space = s.tangent_space;
  p.tangent_frames = true;
  p.raster_materials = s.raster_materials;
  p.uv_tile = s.uv_tile;
  p.threads = s.threads;
  return p;
}

void check_bake_start(const NormalBakeSettings& s) {
  check_low_prep_settings(low_prep_settings_of(s));
  if (s.band_samples == 0) {
    throw Error("band_samples must be at least 1");
  }
  if (!std::isfinite(s.front) || !std::isfinite(s.rear) || s.front < 0.0f || s.rear < 0.0f) {
    throw Error("ray distances must be finite and not negative");
  }
}

}  // namespace kv
