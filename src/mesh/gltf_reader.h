// Reader of glTF 2.0 scenes (.gltf with its buffers, or binary .glb) into a
// Mesh: every triangle primitive of every node of the scene, in scene order,
// placed by the node's world transform.
#pragma once

#include <filesystem>

#include "mesh/mesh.h"
#include "mesh/obj_reader.h"

namespace kv {

// Reads the default scene (the first scene when none is named; the root nodes
// when the file has no scene). One object per node with a mesh, named after
// the node, else the mesh, made unique by a ".N" suffix in scene order.
// TEXCOORD_0 becomes the UVs with v turned to the OBJ convention (1 - v).
// Throws kv::Error "path: message" (or "cannot open mesh file: path"); a file
// that needs an extension this reader lacks is refused with its name.
// `stats`, when given, is reset: glTF holds triangles only.
Mesh read_gltf(const std::filesystem::path& path, const MeshReadOptions& options,
               MeshStats* stats = nullptr);

}  // namespace kv
