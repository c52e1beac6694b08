// The texture transfer command, `korvane transfer`.
#pragma once

#include <string>
#include <vector>

#include "core/json_line.h"
#include "transfer/transfer_settings.h"

namespace kv::transfer {

// Runs the command with the whole argument list ("transfer" is element 1):
// prints the usage text for --help, else transfers, writes the outputs and
// ends stdout with the summary line. Returns 0; failures throw.
int transfer_command(const std::vector<std::string>& args);

// The transfer itself from parsed settings: meshes and textures read, every
// output transferred, padded and written. Returns the summary object.
Json run_transfer(const TransferSettings& settings);

}  // namespace kv::transfer
