// The meshmaps command's options, read into MeshMapsSettings, and the
// environment variables the command reads.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "meshmaps/meshmaps_settings.h"

namespace kv::meshmaps {

// Reads the argument list from element 2 (after "meshmaps"). Throws
// pipeline::UsageError with the first bad element's message.
MeshMapsSettings parse_meshmaps_options(const std::vector<std::string>& args);

// The settings mode: the same options without the meshes, the outputs,
// --report, --cache-dir and --help, which the caller gives otherwise; --size
// is required. Throws pipeline::UsageError "<option> is not a setting" for
// those, or the option's own message.
MeshMapsSettings parse_meshmaps_settings(const std::vector<std::string>& settings);

// Asks for map `map` (a summary map name, "raw" excluded) at `path`, after
// the maps already asked for. Returns false for a name that is no map.
bool set_map_output(MeshMapsSettings& settings, const std::string& map,
                    const std::filesystem::path& path);

// The settings checks that are not about one option's text. Throws
// kv::Error "meshmaps: ..." with the first failing check's message.
void check_meshmaps_settings(const MeshMapsSettings& settings);

// Reads the command's environment variables through `get` (the platform's
// get_env in the program). Throws kv::Error with a variable's refusal.
using EnvReader = std::function<std::optional<std::string>(const char* name)>;
MeshMapsEnvironment read_meshmaps_environment(const EnvReader& get);

// The --help text.
const std::string& meshmaps_usage_text();

}  // namespace kv::meshmaps
