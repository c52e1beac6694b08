#include "mesh/node_transform.h"

#include <cstddef>

#include "core/vec3.h"

namespace kv {

Mat4 mat4_identity() {
  Mat4 m{};
  for (int i = 0; i < 4; ++i) {
    m[i][i] = 1.0;
  }
  return m;
}

Mat4 mat4_multiply(const Mat4& a, const Mat4& b) {
  Mat4 r{};
  for (int i = 0; i < 4; ++i) {
    for (int j = 0; j < 4; ++j) {
      double sum = 0.0;
      for (int k = 0; k < 4; ++k) {
        sum += a[i][k] * b[k][j];
      }
      r[i][j] = sum;
    }
  }
  return r;
}

NodeTransform::NodeTransform(const Mat4& world) : world_(world) {
  const Mat4& w = world_;
  const double det = w[0][0] * (w[1][1] * w[2][2] - w[1][2] * w[2][1]) -
                     w[0][1] * (w[1][0] * w[2][2] - w[1][2] * w[2][0]) +
                     w[0][2] * (w[1][0] * w[2][1] - w[1][1] * w[2][0]);
  mirrored_ = det < 0;
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) {
      const int r1 = (r + 1) % 3, r2 = (r + 2) % 3, c1 = (c + 1) % 3, c2 = (c + 2) % 3;
      cofactor_[r][c] = (w[r1][c1] * w[r2][c2] - w[r1][c2] * w[r2][c1]) * (mirrored_ ? -1.0 : 1.0);
    }
  }
}

std::array<float, 3> NodeTransform::point(double x, double y, double z) const {
  std::array<float, 3> p{};
  for (int r = 0; r < 3; ++r) {
    p[static_cast<std::size_t>(r)] =
        static_cast<float>(world_[r][0] * x + world_[r][1] * y + world_[r][2] * z + world_[r][3]);
  }
  return p;
}

bool NodeTransform::normal(double x, double y, double z, std::array<float, 3>& out) const {
  std::array<float, 3> t{};
  for (int r = 0; r < 3; ++r) {
    t[static_cast<std::size_t>(r)] =
        static_cast<float>(cofactor_[r][0] * x + cofactor_[r][1] * y + cofactor_[r][2] * z);
  }
  if (!normalize_in_place(t)) {
    return false;
  }
  out = t;
  return true;
}

}  // namespace kv
