// Small helpers shared by the image tests.
#pragma once

#include <algorithm>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "core/error.h"
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

}  // namespace kv::test
