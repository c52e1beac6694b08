// One harness per input the program reads: it hands the bytes to the reader
// the way a user's file would reach it and checks what comes back. The fuzz
// targets and the regression replay test call the same functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kv::fuzz {

struct Outcome {
  bool refused = false;  // the reader threw one of the program's own errors
  std::string message;   // its text when refused
};

// The names of the targets: obj, kvm, gltf, glb, fbx, read_mesh, png, exr,
// bake_options, kvt, request.
const std::vector<std::string>& target_names();

// Runs `input` through the named target. Returns whether the program read or
// refused it (for request: the first error reply's text); a mesh that breaks a rule of a valid Mesh
// aborts the process after naming the rule on stderr. Any exception that is not the program's own
// error propagates: that is a finding too. Throws std::invalid_argument for an unknown target name.
Outcome run_target(std::string_view target, std::span<const std::uint8_t> input);

}  // namespace kv::fuzz
