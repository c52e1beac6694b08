// The one-shot bake run: from settings to written maps and the summary.
#pragma once

#include "bake/normal_bake_settings.h"

namespace kv::cli {

// Runs the bake described by the settings; throws on failure.
void run_bake(const NormalBakeSettings& settings);

}  // namespace kv::cli
