// The one-shot bake run: meshes in, maps written, summary out.
#pragma once

#include "core/json_line.h"
#include "normal/normal_bake_settings.h"
#include "run/progress_sink.h"

namespace kv::run {

// Runs one bake from validated settings: loads both meshes (through the mesh
// cache when one is set), bakes, pads and writes the maps, telling the sink
// as it goes. Returns the summary object (see run_summary_json); throws on
// any failure, after only the events and warnings sent so far.
Json run_bake(const NormalBakeSettings& settings, ProgressSink& sink);

}  // namespace kv::run
