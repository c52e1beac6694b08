#include "cli/process_entry.h"

#include <exception>
#include <string_view>

#include "cli/bake_command.h"
#include "core/error.h"
#include "platform/platform.h"
#include "run/bake_options.h"

namespace kv::cli {

namespace {

constexpr std::string_view kHelpHint = "\nRun korvane --help for the options.\n";

// Only the exact value "os" keeps the system's throttling choice.
void apply_power_throttling_choice() {
  const auto choice = platform::get_env("KORVANE_POWER_THROTTLING");
  if (choice && *choice == "os") {
    return;
  }
  platform::opt_out_of_power_throttling();
}

}  // namespace

int dispatch(const std::vector<std::string>& args, const Commands& commands) {
  const std::size_t n = args.size();
  if (n >= 2 && args[1] == "--version") {
    return version_command(args);
  }
  if (n >= 2 && args[1] == "serve") {
    return commands.serve(args);
  }
  if (n >= 2 && args[1] == "transfer") {
    return commands.transfer(args);
  }
  if (n >= 2 && args[1] == "meshmaps") {
    return commands.meshmaps(args);
  }
  for (const auto& arg : args) {
    if (arg == "--gpu-info") {
      if (n != 2) {
        throw pipeline::UsageError("--gpu-info takes no other option");
      }
      return gpu_info_command();
    }
  }
  const NormalBakeSettings settings = pipeline::parseBakeOptions(args);
  if (settings.help) {
    if (!platform::write_stdout(bake_usage_text())) {
      throw Error("cannot write to standard output");
    }
    return 0;
  }
  return bake_command(settings);
}

int process_entry(int argc, char** argv, const Commands& commands) {
  apply_power_throttling_choice();
  try {
    std::vector<std::string> args;
    args.reserve(static_cast<std::size_t>(argc));
    for (int i = 0; i < argc; ++i) {
      args.emplace_back(argv[i]);
    }
    return dispatch(args, commands);
  } catch (const pipeline::UsageError& error) {
    platform::write_stderr("korvane: " + std::string(error.what()) + std::string(kHelpHint));
    return 2;
  } catch (const std::exception& error) {
    platform::write_stderr("korvane: " + std::string(error.what()) + "\n");
    return 1;
  }
}

}  // namespace kv::cli
