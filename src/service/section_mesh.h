// Meshes a client hands over as raw arrays, in a named shared-memory section
// or in its own memory. Each object is V positions (3 float32), T triangles
// of three uint32 indices into the object's own positions, and optionally
// per-corner UVs (3 x 2 float32 per triangle, v pointing up) and per-corner
// normals (3 x 3 float32 per triangle). The Mesh built is exactly the one the
// OBJ reader builds from the same data written with one `o` line per object,
// one `vt`/`vn` line per corner, and no `usemtl`: objects of equal names are
// one object, every triangle has the material "default".
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/error.h"
#include "mesh/mesh.h"

namespace kv::service {

// One entry of a request's "objects" list.
struct SectionObject {
  std::string name;
  std::uint64_t vertices = 0, triangles = 0;
  std::uint64_t positions = 0, indices = 0;  // byte offsets (section) or addresses (process)
  std::optional<std::uint64_t> uvs, normals;
};

// A layout field that is out of bounds or misaligned; the caller turns it
// into the request's field error "<op>: objects[<index>]: <field>: <text>".
struct SectionLayoutError : kv::Error {
  SectionLayoutError(std::size_t object_index, std::string field_name, std::string message)
      : kv::Error("objects[" + std::to_string(object_index) + "]: " + field_name + ": " + message),
        object(object_index),
        field(std::move(field_name)),
        text(std::move(message)) {}
  std::size_t object;
  std::string field;
  std::string text;
};

// Checks every object's layout against `size` (throws SectionLayoutError),
// then opens the section read-only and reads the mesh. A section that
// cannot be opened or is smaller than `size`, and every fault of the data
// (an index out of range, a non-finite value, a zero-length normal), is a
// kv::Error with its message; kv::Cancelled when `cancel` turns true;
// kv::OutOfMemory when the mesh does not fit. `threads` converts the arrays
// (0: every hardware thread); the mesh is the same on any count.
Mesh read_section_mesh(const std::string& section, std::uint64_t size,
                       const std::vector<SectionObject>& objects, const std::atomic<bool>* cancel,
                       int threads = 0);

// The same, with the objects' arrays at addresses in process `pid`'s memory,
// read in bounded chunks.
Mesh read_process_mesh(std::uint32_t pid, const std::vector<SectionObject>& objects,
                       const std::atomic<bool>* cancel, int threads = 0);

}  // namespace kv::service
