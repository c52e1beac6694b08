// Several stored meshes as one high mesh for a bake.
#pragma once

#include <vector>

#include "mesh/mesh.h"

namespace kv::service {

// The meshes joined in list order: their triangles and objects follow one
// another, indices shifted. Materials, blocks, polygroups and colours are
// kept only when every mesh has them.
Mesh join_meshes(const std::vector<const Mesh*>& meshes);

}  // namespace kv::service
