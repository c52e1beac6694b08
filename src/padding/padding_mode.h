// How padding fills the texels outside the UV islands; the modes are
// described in padding/padding.h. Numbered as the bake options parse them.
#pragma once

#include <cstdint>

namespace kv {

enum class PaddingMode : std::uint8_t {
  ring = 0,
  passthrough = 1,
  infinite = 2,
  transparent = 3,
  color = 4,
  diffusion = 5,
};

}  // namespace kv
