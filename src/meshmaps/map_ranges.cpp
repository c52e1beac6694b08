#include "meshmaps/map_ranges.h"

#include <algorithm>
#include <cmath>

#include "image/unorm16.h"

namespace kv::meshmaps {
namespace {

template <typename F>
std::vector<std::uint16_t> codes_of(std::span<const float> values,
                                    std::span<const std::uint8_t> hit, F&& map) {
  std::vector<std::uint16_t> codes(values.size(), 0);
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (hit[i] != 0) {
      codes[i] = encode_unorm16(map(static_cast<double>(values[i])));
    }
  }
  return codes;
}

// The smallest and largest value over the hit texels; false when none hit.
bool hit_range(std::span<const float> values, std::span<const std::uint8_t> hit, double& lo,
               double& hi) {
  bool any = false;
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (hit[i] == 0) {
      continue;
    }
    const double v = static_cast<double>(values[i]);
    lo = any ? std::min(lo, v) : v;
    hi = any ? std::max(hi, v) : v;
    any = true;
  }
  return any;
}

// 0.5 + 0.5 v / m, symmetric about 0 whatever the sign of the extremes.
double symmetric(double v, double m) {
  return m > 0.0 ? 0.5 + 0.5 * (v / m) : 0.5;
}

}  // namespace

std::vector<std::uint16_t> ao_codes(std::span<const float> ao, std::span<const std::uint8_t> hit) {
  return codes_of(ao, hit, [](double v) { return v; });
}

std::vector<std::uint16_t> thickness_codes(std::span<const float> thickness,
                                           std::span<const std::uint8_t> hit, ThicknessRange range,
                                           float max) {
  double lo = 0.0;
  double hi = 0.0;
  if (range == ThicknessRange::minmax && hit_range(thickness, hit, lo, hi) && hi > lo) {
    return codes_of(thickness, hit, [lo, hi](double v) { return (v - lo) / (hi - lo); });
  }
  const double m = static_cast<double>(max);
  return codes_of(thickness, hit, [m](double v) { return std::min(v / m, 1.0); });
}

std::vector<std::uint16_t> curvature_codes(std::span<const float> curvature,
                                           std::span<const std::uint8_t> hit,
                                           const MeshMapsSettings& s) {
  if (s.curvature_method == CurvatureMethod::normal_map) {
    const double gain = static_cast<double>(s.curvature_multiplier);
    return codes_of(curvature, hit, [gain](double v) { return 0.5 + gain * v; });
  }
  if (s.curvature_range == CurvatureRange::manual) {
    const double lo = static_cast<double>(s.curvature_min);
    const double hi = static_cast<double>(s.curvature_max);
    return codes_of(curvature, hit, [lo, hi](double v) { return (v - lo) / (hi - lo); });
  }
  double lo = 0.0;
  double hi = 0.0;
  hit_range(curvature, hit, lo, hi);
  const double m = std::max(std::fabs(lo), std::fabs(hi));
  return codes_of(curvature, hit, [m](double v) { return symmetric(v, m); });
}

std::vector<std::uint16_t> height_codes(std::span<const float> height,
                                        std::span<const std::uint8_t> hit, HeightRange range,
                                        const RangeDistances& d, float divisor, bool neutral) {
  if (neutral) {
    return codes_of(height, hit, [](double) { return 0.5; });
  }
  const double front = static_cast<double>(d.front);
  const double rear = static_cast<double>(d.rear);
  switch (range) {
    case HeightRange::ray:
      return codes_of(height, hit, [front, rear](double v) {
        return front + rear > 0.0 ? (v + rear) / (front + rear) : 0.5;
      });
    case HeightRange::minmax: {
      double lo = 0.0;
      double hi = 0.0;
      hit_range(height, hit, lo, hi);
      const double m = std::max(std::fabs(lo), std::fabs(hi));
      return codes_of(height, hit, [m](double v) { return symmetric(v, m); });
    }
    case HeightRange::manual: {
      const double k = static_cast<double>(divisor);
      return codes_of(height, hit, [k](double v) { return 0.5 + 0.5 * (v / k); });
    }
    case HeightRange::lowmesh:
    default: {
      const double m = std::max(front, rear);
      return codes_of(height, hit, [m](double v) { return symmetric(v, m); });
    }
  }
}

}  // namespace kv::meshmaps
