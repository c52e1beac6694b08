// Small helpers every benchmark program uses: a wall clock and integer
// command-line options.
#pragma once

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>

namespace kv::bench {

using Clock = std::chrono::steady_clock;

inline double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
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
