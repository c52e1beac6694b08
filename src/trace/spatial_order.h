// An order of a mesh's triangles in which neighbours in space are mostly
// neighbours in memory: the tracer lays out its per-triangle records this
// way, so that the records of the candidates a ray meets share cache lines
// whatever order the mesh file gave its faces in.
#pragma once

#include <cstdint>

#include "core/large_array.h"
#include "core/parallel.h"
#include "mesh/mesh.h"

namespace kv {

// The triangle indices sorted by the Morton code of their centroids on a
// 1024^3 grid over the mesh's bounding box; ties keep increasing index.
// Depends only on the mesh, not on the pool's thread count.
LargeArray<std::uint32_t> spatial_order(const Mesh& mesh, const WorkerPool& pool);

// 30-bit Morton code of a point of the unit cube, each axis cut into 1024
// cells (coordinates outside [0, 1], NaN included, fall into the nearest end).
std::uint32_t morton_code(double x, double y, double z);

}  // namespace kv
