// Turning a mesh path into a Mesh: the format is sniffed from the file's first
// bytes and its extension, then the matching reader runs.
#pragma once

#include <cstdint>
#include <filesystem>
#include <new>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "core/error.h"
#include "mesh/mesh.h"
#include "mesh/obj_reader.h"

namespace kv {

enum class MeshFormat : int { Obj = 0, Kvm = 1, Gltf = 2, Fbx = 3 };

// Decides by content first (the .kvm magic), then by extension (.gltf, .glb,
// .fbx, any case), then by content again ("glTF", "Kaydara FBX Binary").
// Everything else, a file that cannot be opened included, is OBJ: the OBJ
// reader then reports the file's real problem.
MeshFormat sniff_mesh_format(const std::filesystem::path& path);

// Sniffs the format and reads the file with the matching reader. `stats`,
// when given, receives the reader's counters (all 0 for .kvm). Throws the
// reader's kv::Error, or kv::OutOfMemory naming the file. glTF and FBX files
// are parsed in a child process (isolated_read.h).
Mesh read_mesh(const std::filesystem::path& path, const MeshReadOptions& options,
               MeshStats* stats = nullptr);

// The same with glTF and FBX parsed in this process, as the child does: for
// comparisons in tests and benchmarks.
Mesh read_mesh_in_process(const std::filesystem::path& path, const MeshReadOptions& options,
                          MeshStats* stats = nullptr);

// "<path>: out of memory while reading the mesh".
OutOfMemory mesh_out_of_memory(const std::filesystem::path& path);

// Runs `read`, a read of the mesh file at `path`, with an allocation that
// cannot be made (std::bad_alloc, or std::length_error from a container asked
// for an impossible size) turned into kv::OutOfMemory naming the file.
template <typename Read>
auto naming_memory_failures(const std::filesystem::path& path, Read&& read) -> decltype(read()) {
  try {
    return read();
  } catch (const std::bad_alloc&) {
    throw mesh_out_of_memory(path);
  } catch (const std::length_error&) {
    throw mesh_out_of_memory(path);
  }
}

// The warning line for polygons left as their fan after a read of `path`:
// "korvane: warning: <count> faces of <path> could not be triangulated exactly\n".
std::string inexact_polygons_warning(std::uint64_t count, const std::filesystem::path& path);

// Names made unique in the order they are met: the first keeps its name, a
// repeat becomes "<name>.1", "<name>.2", ... (the first suffix not yet taken).
class UniqueNames {
 public:
  std::string make_unique(const std::string& base);

 private:
  std::unordered_set<std::string> taken_;
};

// A mesh's material names, each once, in the order they are first met.
class MaterialTable {
 public:
  // The index of `name` in `materials`, appending it when it is new.
  std::uint32_t index_of(const std::string& name, std::vector<std::string>& materials);

 private:
  std::unordered_map<std::string, std::uint32_t> lookup_;
};

}  // namespace kv
