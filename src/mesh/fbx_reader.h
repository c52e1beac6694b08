// Reader of FBX scenes (binary or ASCII) into a Mesh: every mesh of every node,
// polygons triangulated by the readers' own face rule, placed by the node's
// world transform.
#pragma once

#include <filesystem>

#include "mesh/mesh.h"
#include "mesh/obj_reader.h"

namespace kv {

// One object per node with meshes, named after the node (made unique by a
// ".N" suffix in scene order). Polygons follow the quad and polygon policies
// of `options`; `stats` receives quads_split and polygons_inexact. UVs come
// from the first UV channel with v as stored (FBX and OBJ share the
// convention). Throws kv::Error "path: message" (or "cannot open mesh file:
// path").
Mesh read_fbx(const std::filesystem::path& path, const MeshReadOptions& options,
              MeshStats* stats = nullptr);

}  // namespace kv
