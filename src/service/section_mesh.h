// Meshes a client hands over in memory: a named shared-memory section or the
// client process's own memory, laid out as raw little-endian arrays.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/error.h"
#include "mesh/mesh.h"

namespace kv::service {

struct SectionObject {  // one entry of a request's "objects" list
  std::string name;
  std::uint64_t vertices = 0, triangles = 0;
  std::uint64_t positions = 0, indices = 0;  // byte offsets (section) or addresses (process)
  std::optional<std::uint64_t> uvs, normals;
};

// A layout field that is out of bounds or misaligned; the caller turns it
// into the request's field error "<op>: objects[<index>]: <field>: <text>".
struct SectionLayoutError : kv::Error {
  SectionLayoutError(std::size_t object_index, std::string field_name, std::string message)
      : kv::Error(message),
        object(object_index),
        field(std::move(field_name)),
        text(std::move(message)) {}
  std::size_t object;
  std::string field;
  std::string text;
};

Mesh read_section_mesh(const std::string& section, std::uint64_t size,
                       const std::vector<SectionObject>& objects, const std::atomic<bool>* cancel);
Mesh read_process_mesh(std::uint32_t pid, const std::vector<SectionObject>& objects,
                       const std::atomic<bool>* cancel);

}  // namespace kv::service
