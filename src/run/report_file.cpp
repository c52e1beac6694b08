#include "run/report_file.h"

#include "core/error.h"
#include "platform/platform.h"

namespace kv::run {

void write_report_file(const std::filesystem::path& path, const std::string& summary_line) {
  int error = 0;
  platform::File file = platform::File::create_truncate(path, &error);
  const std::string line = summary_line + "\n";
  if (!file.is_open() || file.write_all(line.data(), line.size()) != 0 || file.close() != 0) {
    throw Error("cannot write the report file: " + path.string());
  }
}

}  // namespace kv::run
