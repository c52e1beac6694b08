// The rules every Mesh keeps, checked on one that comes from outside this
// process's own readers: a .kvm file, or the child process that parsed a
// glTF or FBX file. Each failure names the first bad element, so the message
// is the same on any thread count.
#pragma once

#include <cstdint>
#include <string>

#include "core/parallel.h"
#include "mesh/mesh.h"

namespace kv {

inline constexpr std::uint64_t kMaxMeshElements = 2147483647;
inline constexpr std::uint32_t kMaxMeshNameBytes = 65536;

// The first failing index of each array, as the checks find them.
struct MeshFailures {
  FirstFailure position, uv, normal, color, triangle;
};

// Checks the positions, UVs, normals and colours of [begin, end) and, with
// `normalize`, scales each valid normal to unit length in the same pass.
void check_vertex_chunk(Mesh& mesh, bool normalize, std::uint64_t begin, std::uint64_t end,
                        MeshFailures& failures);
// Every vertex chunk on the pool.
void check_vertices(Mesh& mesh, bool normalize, const WorkerPool& pool, MeshFailures& failures);
// Corner, UV, normal and object indices of every triangle, on the pool.
void check_triangles(const Mesh& mesh, const WorkerPool& pool, MeshFailures& failures);

// The arrays check_range checks, one at a time.
enum class CheckedArray { positions, uvs, normals, colors, triangles };
// Checks elements [begin, end) of one array as the two above do, normals
// left as they are: for checking each part of an array as it arrives.
void check_range(const Mesh& mesh, CheckedArray array, std::uint64_t begin, std::uint64_t end,
                 MeshFailures& failures);

// Each throws kv::Error(prefix + what is wrong) for the first fault found.
// The first failure in the order positions, UVs, normals, colours, triangles.
void raise_first_failure(const MeshFailures& failures, const std::string& prefix);
// Material indices against the material table; block indices against blocks.
void check_material_indices(const Mesh& mesh, const std::string& prefix);
void check_block_indices(const Mesh& mesh, const std::string& prefix);
void refuse_duplicate_objects(const Mesh& mesh, const std::string& prefix);

}  // namespace kv
