// What a load request may do to a mesh before it is kept: bring a Y-up
// client's axes to ours, apply a client's matrix, keep only named objects.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "mesh/mesh.h"

namespace kv::service {

// "up":"Y": the mesh comes from a Y-up application (Blender's glTF
// convention, most painting applications) and is turned into the engine's
// Z-up axes: (x, y, z) becomes (x, -z, y), a rotation of +90 degrees about x
// (the inverse of the world-normal map's Y-up output). A rotation keeps the
// winding; positions and normals are only permuted and negated, so nothing
// is rounded. "up":"Z" is the mesh as it is.
void apply_up_axis_y(Mesh& mesh);

// A row-major 4 x 4 matrix (last row 0 0 0 1) on column vectors: positions
// by the matrix in 64-bit, normals by its inverse transpose and normalised
// in 32-bit as the readers normalise. A mirroring matrix (negative
// determinant) swaps corners 1 and 2 of every triangle, so that the front
// side stays the front side, as the glTF and FBX readers do. Throws
// kv::Error when a position leaves the float range or a normal loses its
// direction (a singular matrix); the mesh is then left unchanged.
void apply_matrix(Mesh& mesh, const std::array<double, 16>& row_major);

// The mesh with only the triangles of the named objects; objects keep their
// order in the mesh (not the order of `names`), and positions, UVs and
// normals no kept triangle uses are dropped, the rest keeping their order.
// Throws kv::Error "the mesh has no object "<name>"" for the first name of
// the list the mesh lacks, and "the objects ... hold no triangles" when
// nothing would be left. An empty list keeps everything.
Mesh filter_objects(Mesh&& mesh, const std::vector<std::string>& names);

}  // namespace kv::service
