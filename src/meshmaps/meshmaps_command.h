// The mesh maps command, `korvane meshmaps`.
#pragma once

#include <string>
#include <vector>

namespace kv::meshmaps {

// Runs the command with the whole argument list ("meshmaps" is element 1).
int meshmaps_command(const std::vector<std::string>& args);

}  // namespace kv::meshmaps
