// glTF and FBX files are parsed in a child process. Their parsers are
// libraries we do not own, and malformed files have made them abort, overflow
// the stack, or spend minutes and gigabytes on a few kilobytes. In a child
// with memory, stack and time limits such a file costs one error naming it,
// and the program (a service holding meshes and queued jobs, or a bake) goes
// on. The parent copies the mesh's arrays out of the child as they are
// (mesh_handover.h), so the mesh is the one an in-process read gives, byte
// for byte, and checks it before it trusts it.
#pragma once

#include <cstdint>
#include <filesystem>

#include "mesh/mesh.h"
#include "mesh/mesh_format.h"
#include "mesh/obj_reader.h"

namespace kv {

struct IsolationLimits {
  std::uint64_t memory_bytes = 0;  // address space the child may map itself
  std::uint64_t stack_bytes = 0;   // stack of the child's thread, when it is the main one
  std::int64_t timeout_ms = 0;     // wall time before the child is killed
};

// Limits for a read of `input_bytes` bytes (the file, and for a text glTF the
// buffers beside it): 32 bytes of address space per input byte, at least
// 1 GiB, but no more than a memory limit the options set; 16 MiB of stack;
// 20 s plus 1 s per MiB (a minute for a 40 MiB file).
IsolationLimits isolation_limits_for(std::uint64_t input_bytes, const MeshReadOptions& options);

// Reads the glTF (`format` Gltf) or FBX (Fbx) file in a child process with the
// limits isolation_limits_for gives, or with the ones given. The reader's own
// errors arrive unchanged, with their class (kv::Error or kv::OutOfMemory);
// a child that crashes, runs out of memory or does not finish in time
// becomes "<path>: the FBX reader stopped on signal N", "<path>: the glTF
// reader ran out of memory" (kv::OutOfMemory) or "<path>: the glTF reader did
// not finish within N s"; a mesh handed back that breaks the rules of a Mesh
// becomes "<path>: the glTF reader handed back a broken mesh: <what>".
Mesh read_isolated(const std::filesystem::path& path, MeshFormat format,
                   const MeshReadOptions& options, MeshStats* stats);
Mesh read_isolated(const std::filesystem::path& path, MeshFormat format,
                   const MeshReadOptions& options, MeshStats* stats, const IsolationLimits& limits);

namespace detail {

// A failure every child started afterwards meets, so that tests can watch
// the parent handle it. Tests only. The first three happen before the read;
// the others corrupt what the child hands back: the last triangle's index,
// the triangle count, the triangles' last bytes.
enum class ChildFault {
  none,
  crash,
  hang,
  exhaust_memory,
  index_out_of_range,
  overstated_count,
  truncated_block
};
void set_child_fault(ChildFault fault);
// Whether the parent takes the arrays straight from the child's memory (the
// default) or, as where the system forbids that, from a file the child
// writes. Tests only.
void set_read_child_memory(bool allowed);

}  // namespace detail

}  // namespace kv
