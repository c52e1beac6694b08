// The process entry: command dispatch and the outer exception frame.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace kv::cli {

using CommandFn = std::function<int(const std::vector<std::string>& args)>;

// The commands that live outside this folder, wired together by main so that
// the command line does not depend on the service, transfer or mesh maps.
struct Commands {
  CommandFn serve;
  CommandFn transfer;
  CommandFn meshmaps;
};

// Picks the command from the argument list and runs it; returns its exit code.
int dispatch(const std::vector<std::string>& args, const Commands& commands);

// The whole process: power throttling, arguments, dispatch, and every escaping
// exception turned into one stderr line and an exit code.
int process_entry(int argc, char** argv, const Commands& commands);

// `korvane --version` with the whole argument list.
int version_command(const std::vector<std::string>& args);

// `korvane --gpu-info`: one JSON line; 0 when the GPU path can run, else 1.
int gpu_info_command();

// The bake's usage text, written as stored for --help.
const std::string& bake_usage_text();

}  // namespace kv::cli
