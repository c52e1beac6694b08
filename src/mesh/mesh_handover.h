// How the child process that parsed a glTF or FBX file (isolated_read.h)
// hands the mesh back. The child writes a small report into a memory file:
// what became of the read, the reader's counters, the mesh's names, and
// where each per-element array lies in the child's memory. The arrays
// themselves are not written: the child waits while the parent copies each
// one straight out of it (platform::read_process_memory), once, into an
// array of the right size. Where the system does not let a parent read its
// child's memory, the child writes the arrays instead, one write each, into a
// second memory file, and the parent copies them from there.
//
// Parent and child are the same program, so everything lies in native layout.
// The parent trusts none of it: the child parsed a file that may have
// corrupted it. Every count is bounded before anything is allocated, every
// byte must arrive, and the mesh is checked against the rules every Mesh
// keeps before it is returned.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "core/parallel.h"
#include "mesh/mesh.h"
#include "mesh/mesh_checks.h"
#include "platform/platform.h"

namespace kv::handover {

enum class Outcome : std::uint32_t { mesh = 1, error = 2, out_of_memory = 3 };

// The Mesh's per-element arrays, in handover order.
enum ArrayIndex : int {
  kPositions,
  kUvs,
  kNormals,
  kTriangles,
  kTriangleMaterials,
  kObjectBlocks,
  kPolygroups,
  kColors,
  kArrayCount
};

// Where one array lies in the child's memory, and its element count.
struct ArrayPlace {
  std::uint64_t address = 0;
  std::uint64_t count = 0;
};
using MeshLayout = std::array<ArrayPlace, kArrayCount>;

// ---- the child's side ----------------------------------------------------

// Where the arrays of `mesh` lie in this process.
MeshLayout layout_of(const Mesh& mesh);

// Writes the whole report: for Outcome::mesh the names of `mesh` and
// `layout`, otherwise `message`. 0 or the error number.
int write_report(platform::File& report, Outcome outcome, const MeshStats& stats,
                 const std::string& message, const Mesh& mesh, const MeshLayout& layout);

// Writes the arrays `layout` names, one after another, into `file`; stops at
// the first failure, which the parent finds as missing bytes.
void write_arrays(platform::File& file, const MeshLayout& layout);

// ---- the parent's side ---------------------------------------------------

struct Report {
  Outcome outcome = Outcome::error;
  MeshStats stats;
  std::string message;    // for error and out_of_memory
  std::string mesh_part;  // for mesh: names and layout, read by MeshReceiver
};

// The report the child left; false when it left none that is whole and of
// at most `max_bytes` (0: any size).
bool read_report(const platform::File& report, std::uint64_t max_bytes, Report& result);

struct Slice;  // one part of one array, as it is copied

// Builds the parent's Mesh from a mesh report and the child's arrays. Every
// fault throws kv::Error(broken_prefix + what is wrong).
class MeshReceiver {
 public:
  // `byte_limit`: the memory the child was allowed (0: no bound); its arrays
  // cannot have been larger. The pool copies and checks the arrays.
  MeshReceiver(std::string broken_prefix, std::uint64_t byte_limit, const WorkerPool& pool);

  // Reads the names and the layout, bounds every count and sizes the arrays.
  void take_report(std::string_view mesh_part);
  // Copies every array out of the waiting child; false, with nothing copied,
  // when this process may not read the child's memory.
  bool copy_from_process(std::uint32_t pid);
  // Copies every array from the file the child wrote them into.
  void copy_from_file(const platform::File& file);
  // The mesh, once checked.
  Mesh finish();

 private:
  void check_counts() const;
  void size_arrays();
  void check_slice(const Slice& slice);

  std::string broken_;
  std::uint64_t byte_limit_;
  const WorkerPool& pool_;
  MeshLayout layout_{};
  Mesh mesh_;
  MeshFailures failures_;
};

}  // namespace kv::handover
