// The service's request lines as its read loop hands them over, through a
// service whose queued work is held and never run: nothing is read, written
// or started on the way, and every reply can be checked as it comes.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kv::fuzz {

// Cuts the input into lines as the service does and handles each in turn,
// until a shutdown. Returns the text of the first error reply, if any. A
// reply that breaks a rule (reply_rule_broken) aborts the process after
// naming the rule on stderr.
std::optional<std::string> run_request(std::span<const std::uint8_t> input);

// What the service wrote at once for one request line (each line with its
// newline), and whether a job of the request's id was held before and after.
struct LineAnswer {
  std::vector<std::string> replies;
  bool held_before = false;
  bool held_after = false;
};

// The first rule the answer to `line` breaks, or "": one reply (none only for
// a load or an object listing whose job it queued), one line of valid UTF-8
// JSON within the reply limits, the fixed fields first, the request's id (or
// null before the id was read), an error text within its limit that is not
// an internal error, and {"queued":true} for work that runs later.
std::string reply_rule_broken(std::string_view line, const LineAnswer& answer);

}  // namespace kv::fuzz
