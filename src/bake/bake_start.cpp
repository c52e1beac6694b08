#include <cmath>

#include "bake/normal_bake_settings.h"
#include "core/error.h"

namespace kv {

void check_bake_start(const NormalBakeSettings& s) {
  if (s.width < 1 || s.width > 16384 || s.height < 1 || s.height > 16384) {
    throw Error("output size must be 1 to 16384 texels per side");
  }
  if (s.aa != 1 && s.aa != 2 && s.aa != 4 && s.aa != 8) {
    throw Error("antialiasing must be 1, 2, 4 or 8 sub-samples per side");
  }
  if (s.uv_snap_bits < -1 || s.uv_snap_bits > 16) {
    throw Error("UV snap bits must be -1 (off) or 0 to 16");
  }
  if (s.udim < 1001 || s.udim > 1999) {
    throw Error("UDIM tile must be 1001 to 1999");
  }
  if (s.band_samples == 0) {
    throw Error("band_samples must be at least 1");
  }
  if (!std::isfinite(s.front) || !std::isfinite(s.rear) || s.front < 0.0f || s.rear < 0.0f) {
    throw Error("ray distances must be finite and not negative");
  }
}

}  // namespace kv
