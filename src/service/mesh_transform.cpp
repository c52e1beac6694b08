// Temporary stand-in until the mesh transforms land.
#include "service/mesh_transform.h"

#include "core/error.h"

namespace kv::service {

void apply_up_axis_y(Mesh&) {
  throw kv::Error("mesh transforms are not built");
}

void apply_matrix(Mesh&, const std::array<double, 16>&) {
  throw kv::Error("mesh transforms are not built");
}

Mesh filter_objects(Mesh&&, const std::vector<std::string>&) {
  throw kv::Error("mesh transforms are not built");
}

}  // namespace kv::service
