// The --report file of the one-shot commands: the summary line and a line
// break, in a file of its own.
#pragma once

#include <filesystem>
#include <string>

namespace kv::run {

// Throws kv::Error "cannot write the report file: <path>" on failure.
void write_report_file(const std::filesystem::path& path, const std::string& summary_line);

}  // namespace kv::run
