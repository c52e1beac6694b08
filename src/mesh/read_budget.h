// The memory one read of a glTF or FBX file may take, settled before the
// reader trusts any size the file declares. Files are taken whole against
// the budget before they are read, and the mesh the scene would build is
// estimated from its element counts before anything is pushed: a few nodes
// or accessors can otherwise turn a small file into gigabytes.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "mesh/obj_reader.h"

namespace kv {

// Element counts of a mesh still to be built, with the working arrays of the
// largest single piece (a primitive or a mesh) that is converted at once.
struct MeshEstimate {
  std::uint64_t positions = 0;
  std::uint64_t uvs = 0;
  std::uint64_t normals = 0;
  std::uint64_t triangles = 0;
  std::uint64_t working_bytes = 0;

  // The bytes the mesh and its triangle materials take, plus the working bytes.
  std::uint64_t bytes() const;
};

class ReadBudget {
 public:
  // A mesh may take this many times the bytes of the files it was read from:
  // real files, quantised and indexed, grow ten times or so; the rest is room
  // for instancing. Small files get the floor instead.
  static constexpr std::uint64_t kExpansion = 1024;
  static constexpr std::uint64_t kFloorBytes = std::uint64_t{64} << 20;

  // The caller's memory limit (MeshReadOptions::memory_limit_bytes), or
  // without one the memory available now; no limit when neither is known.
  explicit ReadBudget(const MeshReadOptions& options);

  // Takes a file of `bytes` that is about to be read whole; false, and
  // nothing taken, when it does not fit in what is left.
  bool take_file(std::uint64_t bytes);
  // "<bytes> bytes do not fit in the <left> bytes left of the memory budget".
  std::string refusal(std::uint64_t bytes) const;

  // Reads the mesh file at `path` whole once its size is known to be at most
  // `largest` and taken from the budget. Throws "cannot open mesh file:
  // <path>", "<path>: the file is too large for <format>", OutOfMemory
  // "<path>: the file's <refusal>" or "cannot read mesh file: <path>".
  std::string read_whole_file(const std::filesystem::path& path, std::uint64_t largest,
                              const char* format);

  // Refuses a mesh whose estimate exceeds the smaller of what is left and
  // kExpansion times the file bytes taken (at least kFloorBytes):
  // "<path>: the mesh file <path> gives <F> triangles and needs about <N> MB;
  // the limit is <L> MB", an OutOfMemory when it is more than is left.
  void check_mesh(const std::filesystem::path& path, const MeshEstimate& estimate) const;

 private:
  std::uint64_t left_;
  std::uint64_t file_bytes_ = 0;
};

}  // namespace kv
