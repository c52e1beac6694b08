// Every line the service writes: replies and events built with their fixed
// fields first, one serialiser that bounds them, and the one output lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "core/json_line.h"

namespace kv::service {

// Longest "error" or "message" text kept whole, in bytes; longer ones are cut
// on a character boundary and end in "...".
inline constexpr std::size_t kMessageLimit = 512;
// Longest line written; a longer one is replaced by a short error line.
inline constexpr std::size_t kReplyLimit = 1048576;

// Reply fields either as an object or as JSON text (empty text: none).
// Text that is not a JSON object, and a field that would overwrite one of
// the line's fixed fields, are errors (kv::Error).
std::string success_reply(std::int64_t id, const Json& fields);
std::string success_reply_text(std::int64_t id, std::string_view fields_text);
std::string error_reply(std::optional<std::int64_t> id, std::string_view message,
                        const Json& extra = nullptr);
std::string event_line(std::string_view name, std::int64_t job, const Json& fields);

// The serialiser every line goes through: long messages cut, compact dump
// with raw UTF-8 (invalid bytes replaced), oversized lines replaced.
std::string serialise_line(Json line);

// Standard output shared by every thread of the service.
class Output {
 public:
  // Writes one line with its newline; false when the write failed.
  using WriteFn = std::function<bool(std::string_view)>;
  Output();
  // Lines go to `write` instead of standard output, so that a checker can
  // hold the replies of requests in memory.
  explicit Output(WriteFn write) : write_(std::move(write)) {}

  // Writes the line and its newline whole under the lock; a failed write
  // sets the failed flag and later lines are not attempted.
  void write_line(std::string_view text);
  // Builds the line under the lock, then writes it: a line that another
  // thread writes because of what `build` did (a job ending on the cancel
  // flag it set) comes after this one. An exception from `build` writes
  // nothing. Nothing else may take the output lock inside `build`.
  void write_line_built(const std::function<std::string()>& build);
  bool failed() const { return failed_.load(); }

 private:
  void write_locked(std::string_view text);

  WriteFn write_;
  std::mutex lock_;
  std::atomic<bool> failed_{false};
};

}  // namespace kv::service
