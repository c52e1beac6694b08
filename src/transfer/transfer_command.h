// The texture transfer command, `korvane transfer`.
#pragma once

#include <string>
#include <vector>

#include "core/json_line.h"
#include "core/stopwatch.h"
#include "mesh/mesh.h"
#include "run/progress_sink.h"
#include "transfer/transfer_settings.h"

namespace kv::transfer {

// Runs the command with the whole argument list ("transfer" is element 1):
// prints the usage text for --help, else transfers, writes the outputs and
// ends stdout with the summary line. Returns 0; failures throw.
int transfer_command(const std::vector<std::string>& args);

// The transfer itself from parsed settings: meshes and textures read, every
// output transferred, padded and written. Returns the summary object.
Json run_transfer(const TransferSettings& settings);

// What the caller did before the meshes were there: the settings checked
// (check_transfer_settings) and the backend chosen (choose_backend).
struct TransferStart {
  Clock::time_point start;
  double load_seconds = 0.0;    // reading the meshes
  std::string gpu_unavailable;  // choose_backend's answer
};

// The transfer of meshes already read, as the command and the service run
// it: `source` is the source-UV mesh (uv2uv) or the high mesh (m2m). With a
// sink, phases and finished bands become events, and a sink that throws
// Cancelled ends the run between bands with nothing written.
Json transfer_loaded_meshes(const TransferSettings& settings, const Mesh& target,
                            const Mesh& source, const TransferStart& begin,
                            run::ProgressSink* sink);

}  // namespace kv::transfer
