// Helpers shared by the tests: scratch folders and runs of the built binary.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/platform.h"

namespace kv::test {

// A fresh empty folder under the system's temporary folder, removed with
// everything in it when the object goes away.
class ScratchDir {
 public:
  ScratchDir();
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(std::string_view name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

// Runs the built korvane binary with the arguments (without argv[0]).
platform::ProcessResult run_korvane(const std::vector<std::string>& args,
                                    std::string_view stdin_text = {},
                                    const std::vector<std::string>& env_set = {},
                                    const std::vector<std::string>& env_unset = {});

// Sets (or with a null value clears) an environment variable for one scope.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  const char* name_;
  std::optional<std::string> old_;
};

// Writes bytes to a file, replacing it.
void write_text_file(const std::filesystem::path& path, std::string_view bytes);
// Reads a whole file; fails the current test when it cannot.
std::string read_text_file(const std::filesystem::path& path);

}  // namespace kv::test
