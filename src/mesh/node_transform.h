// Node transforms of scene-based mesh files: positions by the world matrix,
// normals by its inverse transpose, both computed in 64-bit and stored as
// 32-bit floats.
#pragma once

#include <array>

namespace kv {

// Row-major 4x4 matrix acting on column vectors.
using Mat4 = std::array<std::array<double, 4>, 4>;

Mat4 mat4_identity();
Mat4 mat4_multiply(const Mat4& a, const Mat4& b);

class NodeTransform {
 public:
  explicit NodeTransform(const Mat4& world);

  // The transform turns the winding around (negative determinant).
  bool mirrored() const { return mirrored_; }

  std::array<float, 3> point(double x, double y, double z) const;

  // The normal through the inverse transpose (the cofactor matrix, its sign
  // restored for mirroring transforms), normalised the way the OBJ reader
  // normalises in 32-bit, so a mesh exported both ways gets the same normals.
  // False when the result has no direction.
  bool normal(double x, double y, double z, std::array<float, 3>& out) const;

 private:
  Mat4 world_;
  bool mirrored_;
  double cofactor_[3][3];
};

}  // namespace kv
