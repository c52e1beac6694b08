// Small helpers shared by the image tests.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "core/error.h"
#include "platform/platform.h"
#include "support/test_support.h"

namespace kv::test {

// The sorted names of the entries of a folder.
inline std::vector<std::string> list_names(const std::filesystem::path& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

inline std::vector<std::uint16_t> random_codes(std::size_t count, unsigned seed) {
  std::mt19937 random(seed);
  std::vector<std::uint16_t> codes(count);
  for (auto& c : codes) {
    c = static_cast<std::uint16_t>(random() & 0xffffu);
  }
  return codes;
}

// The message of the kv::Error the call throws, or "(no error)".
inline std::string error_of(const std::function<void()>& run) {
  try {
    run();
  } catch (const Error& e) {
    return e.what();
  }
  return "(no error)";
}

// A write that runs out of room part way must leave the previous file as it
// was and no temporary beside it. The current test runs again in a child
// process whose files may not grow past 64 KiB (SIGXFSZ ignored, so the
// write fails with EFBIG); there child_write gets the target and checks the
// error.
inline void expect_failed_write_keeps_old_file(
    const std::function<void(const std::string&)>& child_write) {
  constexpr const char* kChildTarget = "KV_IMAGE_CHILD_TARGET";
  if (const auto target = platform::get_env(kChildTarget)) {
    child_write(*target);
    return;
  }
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  const std::string filter = std::string(info->test_suite_name()) + "." + info->name();
  ScratchDir dir;
  const std::filesystem::path target = dir / "map";
  write_text_file(target, "the previous map");
  const auto result = platform::run_process(
      {"/bin/sh", "-c", "trap '' XFSZ; ulimit -f 64 && exec \"$0\" --gtest_filter=\"$1\"",
       std::filesystem::read_symlink("/proc/self/exe").string(), filter},
      "", {std::string(kChildTarget) + "=" + target.string()});
  EXPECT_EQ(result.exit_code, 0) << result.out << result.err;
  EXPECT_NE(result.out.find("[  PASSED  ] 1 test"), std::string::npos) << result.out;
  EXPECT_EQ(list_names(dir.path()), std::vector<std::string>{"map"});
  EXPECT_EQ(read_text_file(target), "the previous map");
}

}  // namespace kv::test
