// The one-shot bake run: meshes in, maps written, summary out.
#pragma once

#include <functional>

#include "core/json_line.h"
#include "core/stopwatch.h"
#include "mesh/mesh.h"
#include "normal/normal_bake.h"
#include "normal/normal_bake_settings.h"
#include "run/bake_progress.h"
#include "run/progress_sink.h"

namespace kv::run {

// Runs one bake from validated settings: loads both meshes (through the mesh
// cache when one is set), bakes, pads and writes the maps, telling the sink
// as it goes. Returns the summary object (see run_summary_json); throws on
// any failure, after only the events and warnings sent so far.
Json run_bake(const NormalBakeSettings& settings, ProgressSink& sink);

// The two meshes of a bake, already in memory, with the counters their reads
// reported for the summary.
struct BakeMeshes {
  const Mesh& low;
  const Mesh& high;
  std::uint64_t low_quads_split = 0;
  std::uint64_t high_quads_split = 0;
};

// What a caller adds to the settings' own outputs: a preview in memory, and
// more outputs written from the padded maps once the files are written (in
// the "write" phase; not called when anything before failed).
struct BakeExtras {
  const MemoryPreview* preview = nullptr;
  std::function<void(const NormalBakeResult&)> write_more;
};

// The bake after the meshes are loaded: bake, pad, write, summarise. The
// command line and the service both bake through it, so their maps are the
// same. `start` is when the run began and `load_seconds` what loading took;
// the summary reports both. A `scene` lends the bake its kept LowPrep and
// tracer and receives those the bake built (see bake_normal_map).
Json bake_loaded_meshes(const NormalBakeSettings& settings, const BakeMeshes& meshes,
                        ProgressSink& sink, Clock::time_point start, double load_seconds,
                        NormalBakeScene* scene = nullptr, const BakeExtras& extras = {});

}  // namespace kv::run
