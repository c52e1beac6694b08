#include "cli/bake_command.h"

#include <string>

#include "cli/console_sink.h"
#include "core/error.h"
#include "core/json_line.h"
#include "platform/platform.h"
#include "run/run_bake.h"

namespace kv::cli {
namespace {

void write_report(const std::filesystem::path& path, const std::string& summary) {
  int error = 0;
  platform::File file = platform::File::create_truncate(path, &error);
  const std::string line = summary + "\n";
  if (!file.is_open() || file.write_all(line.data(), line.size()) != 0 || file.close() != 0) {
    throw Error("cannot write the report file: " + path.string());
  }
}

}  // namespace

int bake_command(const NormalBakeSettings& settings) {
  ConsoleSink sink(settings.progress);
  const std::string text = json_line(run::run_bake(settings, sink));
  if (!settings.report.empty()) {
    write_report(settings.report, text);
  }
  if (!platform::write_stdout(text + "\n")) {
    throw Error("cannot write to standard output");
  }
  return 0;
}

}  // namespace kv::cli
