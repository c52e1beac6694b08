// The one-shot bake run: meshes in, maps written, summary out.
#pragma once

#include "normal/normal_bake_settings.h"

namespace kv::cli {

// Runs one bake from validated settings: loads both meshes (through the mesh
// cache when one is set), bakes, pads, writes the maps, then writes the
// summary (also to the report file when one is set). Returns 0; throws on
// any failure, leaving stdout with the events already written only.
int bakeCommand(const NormalBakeSettings& settings);

}  // namespace kv::cli
