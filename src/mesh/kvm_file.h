// The program's own binary mesh file (.kvm): a 56-byte header, then the
// arrays of a Mesh as they lie in memory, little-endian, without padding.
#pragma once

#include <cstdint>
#include <filesystem>

#include "mesh/mesh.h"

namespace kv {

// Header flags.
inline constexpr std::uint32_t kKvmUvDouble = 1;     // UVs stored as float64 pairs
inline constexpr std::uint32_t kKvmNormalsAsIs = 2;  // normals kept exactly as stored
inline constexpr std::uint32_t kKvmMaterials = 4;    // material table and per-triangle index
inline constexpr std::uint32_t kKvmBlocks = 8;       // block table and per-object index

inline constexpr char kKvmMagic[8] = {'K', 'V', 'M', 'E', 'S', 'H', '1', '\0'};
inline constexpr std::uint64_t kKvmHeaderBytes = 56;

// Reads and validates a whole .kvm file. threads = 0 uses every hardware
// thread for the validation pass. Throws kv::Error ("<path>: <message>", or
// "cannot open mesh file: <path>") and produces no mesh on any fault.
Mesh read_kvm(const std::filesystem::path& path, int threads);

// Writes the mesh with the given flags through a temporary file that replaces
// the destination only once complete. Throws kv::Error ("<path>: <message>").
void write_kvm(const std::filesystem::path& path, const Mesh& mesh, std::uint32_t flags);

}  // namespace kv
