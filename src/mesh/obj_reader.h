// Reader of Wavefront OBJ text files. The whole file is read once and parsed
// in parallel chunks joined in file order, so the mesh never depends on the
// thread count.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "mesh/mesh.h"
#include "mesh/triangulate.h"

namespace kv {

// Options of the mesh readers, passed on unchanged by read_mesh.
struct MeshReadOptions {
  int threads = 0;  // 0: the hardware concurrency
  QuadPolicy quads = QuadPolicy::split;
  PolygonPolicy polygons = PolygonPolicy::accept;
  std::uint64_t memory_limit_bytes = 0;  // 0: no estimate check
  // Called once with the file's bytes when they are in memory, before parsing.
  std::function<void(std::string_view text)> on_text;
};

struct ObjReadResult {
  Mesh mesh;
  MeshStats stats;
  // Names given on `mtllib` lines, in file order (repeats kept).
  std::vector<std::string> material_libraries;
};

// Reads an OBJ file. Throws kv::Error "path: message" for every fault of the
// file's content, "cannot open mesh file: path" / "cannot read mesh file:
// path" when it cannot be read; no partial mesh is ever returned.
// std::bad_alloc propagates when memory runs out while building the mesh.
ObjReadResult read_obj(const std::filesystem::path& path, const MeshReadOptions& options);

// Same, over bytes already in memory; `path` only names the file in messages
// and `on_text` is not called.
ObjReadResult parse_obj(std::string_view text, const std::filesystem::path& path,
                        const MeshReadOptions& options);

// The smallest chunk the text is cut into (1 MiB keeps small files on one task).
inline constexpr std::uint64_t kObjChunkFloor = 1048576;

// The start offsets of the chunks `text` is parsed in with `threads` (at
// least 1) threads; the last chunk ends at the end of the text. The floor is a
// parameter only so that tests can cut small texts into many chunks.
std::vector<std::uint64_t> obj_chunk_starts(std::string_view text, int threads,
                                            std::uint64_t chunk_floor = kObjChunkFloor);

namespace detail {
// parse_obj with another chunk floor, for tests of the chunk joins.
ObjReadResult parse_obj_chunked(std::string_view text, const std::filesystem::path& path,
                                const MeshReadOptions& options, std::uint64_t chunk_floor);
}  // namespace detail

}  // namespace kv
