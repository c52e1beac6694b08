#include "cli/bake_command.h"

#include <string>

#include "cli/console_sink.h"
#include "core/error.h"
#include "core/json_line.h"
#include "platform/platform.h"
#include "run/report_file.h"
#include "run/run_bake.h"

namespace kv::cli {

int bake_command(const NormalBakeSettings& settings) {
  ConsoleSink sink(settings.progress);
  const std::string text = json_line(run::run_bake(settings, sink));
  if (!settings.report.empty()) {
    run::write_report_file(settings.report, text);
  }
  if (!platform::write_stdout(text + "\n")) {
    throw Error("cannot write to standard output");
  }
  return 0;
}

}  // namespace kv::cli
