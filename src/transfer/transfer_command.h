// The texture transfer command, `korvane transfer`.
#pragma once

#include <string>
#include <vector>

namespace kv::transfer {

// Runs the command with the whole argument list ("transfer" is element 1).
int transfer_command(const std::vector<std::string>& args);

}  // namespace kv::transfer
