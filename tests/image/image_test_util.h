// Small helpers shared by the image tests.
#pragma once

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

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

}  // namespace kv::test
