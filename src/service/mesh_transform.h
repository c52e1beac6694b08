// Transforms a client asks for when it loads a mesh.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "mesh/mesh.h"

namespace kv::service {

void apply_up_axis_y(Mesh& mesh);
void apply_matrix(Mesh& mesh, const std::array<double, 16>& row_major);
Mesh filter_objects(Mesh&& mesh, const std::vector<std::string>& names);

}  // namespace kv::service
