#include "support/test_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <random>
#include <sstream>

namespace kv::test {

ScratchDir::ScratchDir() {
  static std::atomic<unsigned> counter{0};
  std::random_device device;
  const auto base = std::filesystem::temp_directory_path();
  for (;;) {
    path_ = base / ("kv-test-" + std::to_string(platform::process_id()) + "-" +
                    std::to_string(counter++) + "-" + std::to_string(device() % 100000));
    std::error_code ec;
    if (std::filesystem::create_directory(path_, ec)) {
      break;
    }
  }
}

ScratchDir::~ScratchDir() {
  std::error_code ec;
  // Restore write permission so read-only test folders can be removed.
  for (auto it = std::filesystem::recursive_directory_iterator(path_, ec);
       !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
    std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::add, ec);
  }
  std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                               std::filesystem::perm_options::add, ec);
  std::filesystem::remove_all(path_, ec);
}

platform::ProcessResult run_korvane(const std::vector<std::string>& args,
                                    std::string_view stdin_text,
                                    const std::vector<std::string>& env_set,
                                    const std::vector<std::string>& env_unset) {
  std::vector<std::string> argv{KV_BINARY};
  argv.insert(argv.end(), args.begin(), args.end());
  return platform::run_process(argv, stdin_text, env_set, env_unset);
}

ScopedEnv::ScopedEnv(const char* name, const char* value)
    : name_(name), old_(platform::get_env(name)) {
  platform::set_env(name, value);
}

ScopedEnv::~ScopedEnv() {
  platform::set_env(name_, old_ ? old_->c_str() : nullptr);
}

void write_text_file(const std::filesystem::path& path, std::string_view bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  ASSERT_TRUE(out.good()) << "cannot write " << path;
}

std::string read_text_file(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  EXPECT_TRUE(in.good()) << "cannot read " << path;
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

}  // namespace kv::test
