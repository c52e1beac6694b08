// The vectors of the bakes and their helpers. Where a sum of three terms
// appears, the helper's name says the order it is summed in: maps are equal
// bit for bit only when every sum keeps its order.
#pragma once

#include <array>
#include <cmath>

namespace kv {

// 32-bit: positions, normals and everything stored per corner.
using Vec3f = std::array<float, 3>;
// 64-bit: barycentric blends and frame solves.
using Vec3d = std::array<double, 3>;

// v scaled by 1 / |v| in 32-bit float, the squares summed as (x + y) + z;
// false (and v unchanged) when the length is not above 0 or not finite.
// Inline: the bake runs it twice per sample.
inline bool normalize_in_place(Vec3f& v) {
  const float xx = v[0] * v[0];
  const float yy = v[1] * v[1];
  const float zz = v[2] * v[2];
  const float length = std::sqrt((xx + yy) + zz);
  if (!(length > 0.0f) || !std::isfinite(length)) {
    return false;
  }
  const float inv = 1.0f / length;
  v = {v[0] * inv, v[1] * inv, v[2] * inv};
  return true;
}

// (w0 a0 + w1 a1) + w2 a2 in 32-bit float.
inline float blend_012(float w0, float w1, float w2, float a0, float a1, float a2) {
  const float first = w0 * a0;
  const float second = w1 * a1;
  const float third = w2 * a2;
  return (first + second) + third;
}

// The same per component. Built from three scalars at once: filling the
// array one element at a time and reading it back whole stalls the CPU's
// store forwarding on every sample.
inline Vec3f blend_012(float w0, float w1, float w2, const Vec3f& a0, const Vec3f& a1,
                       const Vec3f& a2) {
  return {blend_012(w0, w1, w2, a0[0], a1[0], a2[0]), blend_012(w0, w1, w2, a0[1], a1[1], a2[1]),
          blend_012(w0, w1, w2, a0[2], a1[2], a2[2])};
}

inline Vec3d widen(const Vec3f& v) {
  return {static_cast<double>(v[0]), static_cast<double>(v[1]), static_cast<double>(v[2])};
}

inline Vec3d cross(const Vec3d& a, const Vec3d& b) {
  return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}

inline Vec3d scaled(const Vec3d& v, double s) {
  return {v[0] * s, v[1] * s, v[2] * s};
}

// a . b summed as (x + y) + z.
inline double dot_xyz(const Vec3d& a, const Vec3d& b) {
  return (a[0] * b[0] + a[1] * b[1]) + a[2] * b[2];
}

// a . b summed as (y + x) + z.
inline double dot_yxz(const Vec3d& a, const Vec3d& b) {
  const double y = a[1] * b[1];
  const double x = a[0] * b[0];
  const double z = a[2] * b[2];
  return (y + x) + z;
}

// |v| with the squares summed as (x + y) + z.
inline double length_xyz(const Vec3d& v) {
  return std::sqrt(dot_xyz(v, v));
}

// a . (b x c) summed as (x + y) + z: the determinant of the matrix with
// columns a, b, c.
inline double det3_xyz(const Vec3d& a, const Vec3d& b, const Vec3d& c) {
  return dot_xyz(a, cross(b, c));
}

// (w1 x1 + w0 x0) + w2 x2 per component, in 64-bit.
inline Vec3d blend_102(const Vec3d& x0, const Vec3d& x1, const Vec3d& x2, double w0, double w1,
                       double w2) {
  Vec3d r{};
  for (std::size_t k = 0; k < 3; ++k) {
    const double first = x1[k] * w1;
    const double second = x0[k] * w0;
    const double third = x2[k] * w2;
    r[k] = (first + second) + third;
  }
  return r;
}

}  // namespace kv
