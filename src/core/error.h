// The program's failure types. Every failure is an exception carrying its
// complete message; the process frame turns it into one stderr line.
#pragma once

#include <stdexcept>
#include <string>

namespace kv {

// Base of every failure of the program except command-line misuse.
class Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The caller asked the running work to stop.
class Cancelled : public Error {
 public:
  Cancelled() : Error("cancelled") {}
  using Error::Error;
};

// An allocation or a memory budget could not be met.
class OutOfMemory : public Error {
 public:
  using Error::Error;
};

// The GPU device was lost while work ran on it.
class DeviceLost : public Error {
 public:
  using Error::Error;
};

// The GPU did not finish within its wait limit.
class GpuTimeout : public Error {
 public:
  using Error::Error;
};

}  // namespace kv

namespace kv::pipeline {

// A malformed command line. Deliberately not a kv::Error: the process frame
// prints it with the help hint and exit code 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace kv::pipeline
