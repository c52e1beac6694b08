// The range mappings of the maps whose raw values are not yet in [0, 1]:
// each becomes a one-channel map of UNORM16 codes over the texels that hit.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "meshmaps/meshmaps_settings.h"

namespace kv::meshmaps {

// The distances the ranges refer to, in mesh units.
struct RangeDistances {
  float front = 0.0f;  // the primary rays' window
  float rear = 0.0f;
  float thickness_max = 1.0f;
};

// Ambient occlusion is already 0..1.
std::vector<std::uint16_t> ao_codes(std::span<const float> ao, std::span<const std::uint8_t> hit);

// ray and none: the mean distance over the longest ray; minmax: the hit
// texels' own range (a single value maps to 1).
std::vector<std::uint16_t> thickness_codes(std::span<const float> thickness,
                                           std::span<const std::uint8_t> hit, ThicknessRange range,
                                           float max);

// auto: 0.5 + 0.5 c / m with m the largest |c| of the hit texels (flat stays
// 0.5); manual: min..max onto 0..1; the normal-map method: 0.5 + gain * c.
std::vector<std::uint16_t> curvature_codes(std::span<const float> curvature,
                                           std::span<const std::uint8_t> hit,
                                           const MeshMapsSettings& settings);

// 0 maps to 0.5 in every mode but ray (-rear..front onto 0..1); with
// `neutral` every hit texel is 0.5.
std::vector<std::uint16_t> height_codes(std::span<const float> height,
                                        std::span<const std::uint8_t> hit, HeightRange range,
                                        const RangeDistances& d, float divisor, bool neutral);

}  // namespace kv::meshmaps
