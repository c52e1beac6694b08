// Helpers shared by the image tests.
#pragma once

#include <algorithm>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "core/error.h"

namespace kv::test {

namespace fs = std::filesystem;

// The sorted names of the entries of a folder.
inline std::vector<std::string> list_names(const fs::path& folder) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

inline std::vector<std::uint16_t> random_codes(std::size_t count, unsigned seed) {
  std::mt19937 random(seed);
  std::vector<std::uint16_t> codes(count);
  std::generate(codes.begin(), codes.end(), [&] { return static_cast<std::uint16_t>(random()); });
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
