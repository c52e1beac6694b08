// The summary of a finished mesh-maps run, as a JSON object; its compact
// dump is the line that ends the command's stdout.
#pragma once

#include <string>
#include <vector>

#include "core/json_line.h"
#include "meshmaps/meshmaps_bake.h"
#include "meshmaps/meshmaps_output.h"
#include "meshmaps/meshmaps_settings.h"

namespace kv::meshmaps {

struct RunTimes {
  double load = 0.0;
  OutputSeconds output;
  double total = 0.0;
};

Json meshmaps_summary_json(const MeshMapsSettings& settings, const MeshMapsEnvironment& env,
                           const MeshMapsRun& run, const std::vector<WrittenMap>& written,
                           const std::string& gpu_fallback, const RunTimes& times);

}  // namespace kv::meshmaps
