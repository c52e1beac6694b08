// A small client of `korvane serve` for the tests: starts the built binary
// with pipes and speaks the line protocol, waiting on each line with a
// bounded time-out.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/json_line.h"
#include "platform/platform.h"

namespace kv::test {

// Generous: the sanitizer build is slow, and a hang must still end the test.
inline constexpr int kLineTimeoutMs = 60000;

class ServiceClient {
 public:
  // Starts `korvane serve --parent-pid <parent> <extra...>`; the parent is
  // this test process unless given.
  explicit ServiceClient(const std::vector<std::string>& extra = {},
                         std::optional<std::uint32_t> parent = std::nullopt);

  // Writes the line and its newline.
  void send(std::string_view line);
  void send_json(const Json& request) { send(json_line(request)); }
  // The next line as text; fails the test on a time-out or the end of output.
  std::string next_text(int timeout_ms = kLineTimeoutMs);
  Json next(int timeout_ms = kLineTimeoutMs);
  // Reads lines until the final reply of `id` (not its "queued" reply); the
  // events and other replies met on the way are appended to `others`.
  Json reply(std::int64_t id, std::vector<Json>* others = nullptr);
  // Sends the request (which holds "id") and returns its reply.
  Json request(const Json& request, std::vector<Json>* others = nullptr);
  // Reads until an event of that name for that job.
  Json event(std::int64_t job, std::string_view name);

  // Closes stdin and returns the exit code; fails the test when the service
  // does not end in time.
  int finish();
  platform::ChildProcess& process() { return child_; }

 private:
  platform::ChildProcess child_;
};

// A request object with its id and op.
Json make_request(std::int64_t id, std::string_view op);

}  // namespace kv::test
