// The rules every Mesh a reader returns must keep, checked from the outside.
#pragma once

#include <string>

#include "mesh/mesh.h"

namespace kv::fuzz {

// The first rule of a valid Mesh that `mesh` breaks, or an empty string.
// With `unit_normals`, every normal must also be of unit length (readers
// scale them unless the file says to keep them as stored).
std::string mesh_rule_broken(const Mesh& mesh, bool unit_normals);

}  // namespace kv::fuzz
