#include "normal/miss_fill.h"

#include <array>

#include "core/error.h"
#include "image/unorm16.h"

namespace kv {

MissFill fill_normal_misses(NormalBakeResult& result) {
  const std::size_t texels =
      static_cast<std::size_t>(result.width) * static_cast<std::size_t>(result.height);
  if (result.normal.size() != texels * 3 || result.normal_valid.size() != texels ||
      result.centre_covered.size() != texels) {
    throw Error("miss fill: the Normal result's arrays do not match its size");
  }
  // The flat normal (0, 0, 1) in its colour form.
  const std::array<std::uint16_t, 3> flat = {encode_unorm16(0.5), encode_unorm16(0.5),
                                             encode_unorm16(1.0)};
  MissFill fill;
  for (std::size_t i = 0; i < texels; ++i) {
    if (result.centre_covered[i] == 0) {
      continue;
    }
    ++fill.texels;
    if (result.normal_valid[i] != 0) {
      ++fill.hits;
      continue;
    }
    result.normal[i * 3 + 0] = flat[0];
    result.normal[i * 3 + 1] = flat[1];
    result.normal[i * 3 + 2] = flat[2];
    result.normal_valid[i] = 1;
    ++fill.filled;
  }
  return fill;
}

}  // namespace kv
