// The padding a Normal bake asks for in its settings.
#pragma once

#include "normal/normal_bake_settings.h"
#include "padding/padding_settings.h"

namespace kv {

// The padding of a Normal bake: mode, dilation and colour of its settings.
PaddingSettings padding_settings_of(const NormalBakeSettings& settings);

}  // namespace kv
