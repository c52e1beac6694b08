// What one padding pass does: its mode, its width and its fill colour.
#pragma once

#include <cstdint>
#include <vector>

#include "padding/padding_mode.h"

namespace kv {

struct PaddingSettings {
  PaddingMode mode = PaddingMode::ring;
  std::int32_t width = 32;  // texels
  bool srgb = false;        // integer colour codes: means in linear light
  // Fill of the color mode, one value per channel in the component's own
  // units (codes for integer images); missing channels get 0.
  std::vector<double> color = {32768.0, 32768.0, 65535.0};
};

}  // namespace kv
