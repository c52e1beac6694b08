#include <string>

#include "cli/process_entry.h"
#include "core/error.h"
#include "core/version.h"
#include "kv_commit.h"
#include "platform/platform.h"

namespace kv::cli {

int version_command(const std::vector<std::string>& args) {
  if (args.size() != 2) {
    throw pipeline::UsageError("--version takes no other option");
  }
  const std::string text = std::string("Korvane Engine (korvane) ") + version() + "\n" +
                           "commit: " KV_SOURCE_COMMIT "\n" + "platform: linux-x64\n";
  if (!platform::write_stdout(text)) {
    throw Error("cannot write to standard output");
  }
  return 0;
}

}  // namespace kv::cli
