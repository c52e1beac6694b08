// The bake on the command line: the run's progress on stdout and stderr,
// then its summary line.
#pragma once

#include "normal/normal_bake_settings.h"

namespace kv::cli {

// Runs one bake from validated settings, writes the summary to the report
// file when one is set, then to stdout. Returns 0; throws on any failure,
// leaving stdout with the events already written only.
int bake_command(const NormalBakeSettings& settings);

}  // namespace kv::cli
