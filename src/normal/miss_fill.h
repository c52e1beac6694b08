// The fill that runs between the resolve and padding: a texel that should
// hold a Normal (its centre lies on a rasterised low triangle) but got none,
// because every ray of its sub-samples missed the high mesh or gave no usable
// normal, takes the flat tangent-space normal. Without it such holes inside
// an island would be padded from their neighbours or left at zero.
//
// Border texels of anti-aliased bakes whose centre lies outside the islands
// are not filled here: padding extends the island's own normals over them.
#pragma once

#include <cstdint>

#include "normal/normal_resolve.h"

namespace kv {

struct MissFill {
  std::uint64_t texels = 0;  // texels whose centre is covered
  std::uint64_t hits = 0;    // of those, Normals written by the resolve
  std::uint64_t filled = 0;  // of those, given the flat normal here
};

// Writes the flat normal (codes 32768, 32768, 65535) into every texel whose
// centre is covered and whose Normal is not valid, and marks it valid.
MissFill fill_normal_misses(NormalBakeResult& result);

}  // namespace kv
