// The resident service command, `korvane serve`.
#pragma once

#include <string>
#include <vector>

namespace kv::service {

// Runs the service with the whole argument list ("serve" is element 1);
// returns the exit code.
int serve_command(const std::vector<std::string>& args);

}  // namespace kv::service
