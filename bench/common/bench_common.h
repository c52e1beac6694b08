// Small helpers every benchmark program uses: a wall clock and integer
// command-line options.
#pragma once

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/stopwatch.h"
#include "platform/platform.h"

namespace kv::bench {

using kv::Clock;
using kv::seconds_since;

// Reads the file once in large blocks so that the readers timed next find it
// in the page cache.
inline void warm_page_cache(const std::string& path) {
  int error = 0;
  platform::File file = platform::File::open_read(path, &error);
  std::vector<char> block(8u << 20);
  while (file.is_open() && file.read_full(block.data(), block.size(), &error) > 0) {
  }
}

// The text after `name` on the command line, or the fallback.
inline std::string option_value(int argc, char** argv, const char* name, const char* fallback) {
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::strcmp(argv[i], name) == 0) {
      return argv[i + 1];
    }
  }
  return fallback;
}

// The value after `name` on the command line, or the fallback.
inline int int_option(int argc, char** argv, const char* name, int fallback) {
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::strcmp(argv[i], name) == 0) {
      return std::atoi(argv[i + 1]);
    }
  }
  return fallback;
}

}  // namespace kv::bench
