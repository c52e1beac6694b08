#include "texel/tangent_frames.h"

#include <string>

#include "core/error.h"
#include "texel/corner_normals.h"
#include "texel/mikktspace.h"

namespace kv {

TangentFrames build_tangent_frames(const Mesh& mesh) {
  TangentFrames out;
  const std::size_t corners = mesh.triangles.size() * 3;
  out.frames.assign(corners, TangentFrame{});
  std::vector<std::array<float, 3>> normals(corners);
  for (std::size_t t = 0; t < mesh.triangles.size(); ++t) {
    for (int i = 0; i < 3; ++i) {
      const Corner& c = mesh.triangles[t].corners[static_cast<std::size_t>(i)];
      if (c.uv < 0 || static_cast<std::size_t>(c.uv) >= mesh.uvs.size()) {
        throw Error("low mesh triangle " + std::to_string(t) + " has no UV coordinates");
      }
      const std::size_t k = t * 3 + static_cast<std::size_t>(i);
      if (const auto n = corner_normal(mesh, t, i)) {
        normals[k] = *n;
      } else {
        normals[k] = {0.0f, 0.0f, 1.0f};
        ++out.normal_fallbacks;
      }
    }
  }
  const std::vector<CornerTangent> tangents = mikktspace_tangents(mesh, normals);
  for (std::size_t k = 0; k < corners; ++k) {
    out.frames[k].tangent = tangents[k].tangent;
    out.frames[k].sign = tangents[k].sign;
    out.frames[k].normal = normals[k];
  }
  return out;
}

}  // namespace kv
