// The bake command's options, read into NormalBakeSettings.
#pragma once

#include <string>
#include <vector>

#include "normal/normal_bake_settings.h"

namespace kv::pipeline {

// Command-line mode: reads the whole argument list from element 1 and applies
// the final rules. Throws UsageError with the first bad element's message.
NormalBakeSettings parseBakeOptions(const std::vector<std::string>& args);

// Settings mode (the service's job settings): reads from element 0, refuses
// the options that only make sense on a command line, and needs only --size.
NormalBakeSettings parseBakeSettings(const std::vector<std::string>& settings);

}  // namespace kv::pipeline
