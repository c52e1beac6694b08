#include "fuzz/request_harness.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

#include "core/json_line.h"
#include "core/utf8.h"
#include "service/line_reader.h"
#include "service/line_writer.h"
#include "service/service.h"

namespace kv::fuzz {
namespace {

// The client's process id the service is started with, so that a process
// load naming it is accepted (and held).
constexpr std::uint32_t kParentPid = 4242;

// Ops whose only reply comes from their job: at once, nothing but an error.
bool is_answered_by_job(std::string_view op) {
  static constexpr std::array<std::string_view, 4> ops = {"mesh.load_file", "mesh.load_shm",
                                                          "mesh.load_process", "mesh.objects"};
  return std::find(ops.begin(), ops.end(), op) != ops.end();
}

// Ops answered {"queued":true} at once, their result coming later.
bool is_queued_at_once(std::string_view op) {
  static constexpr std::array<std::string_view, 4> ops = {"bake", "scene.prepare", "transfer",
                                                          "meshmaps"};
  return std::find(ops.begin(), ops.end(), op) != ops.end();
}

// The id and op of a line as far as they read: what the replies must echo.
struct RequestHead {
  std::optional<std::int64_t> id;
  std::string op;
};

RequestHead head_of(std::string_view line) {
  RequestHead head;
  Json body;
  try {
    body = Json::parse(line);
  } catch (const Json::exception&) {
    return head;
  }
  if (!body.is_object()) {
    return head;
  }
  const auto id = body.find("id");
  if (id != body.end() && id->is_number_integer()) {
    const bool fits = !id->is_number_unsigned() ||
                      id->get<std::uint64_t>() <=
                          static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    if (fits) {
      head.id = id->get<std::int64_t>();
    }
  }
  const auto op = body.find("op");
  if (op != body.end() && op->is_string()) {
    head.op = op->get<std::string>();
  }
  return head;
}

// The length of a text before the serialiser replaced its invalid UTF-8: the
// cut to the message limit comes first, and each invalid byte then grows to
// the three bytes of U+FFFD (so a real U+FFFD is counted short, never long).
std::size_t raw_bytes(const std::string& text) {
  std::size_t replaced = 0;
  for (std::size_t at = text.find("\xEF\xBF\xBD"); at != std::string::npos;
       at = text.find("\xEF\xBF\xBD", at + 3)) {
    ++replaced;
  }
  return text.size() - 2 * replaced;
}

// The rules of one reply line that do not depend on the request.
std::string frame_rule_broken(const std::string& text, Json& reply) {
  if (text.empty() || text.back() != '\n') {
    return "the reply does not end with a newline";
  }
  const std::string_view body(text.data(), text.size() - 1);
  if (body.find_first_of("\r\n") != std::string_view::npos) {
    return "the reply is more than one line";
  }
  if (body.size() > service::kReplyLimit) {
    return "the reply is longer than " + std::to_string(service::kReplyLimit) + " bytes";
  }
  if (!is_valid_utf8(body)) {
    return "the reply is not valid UTF-8";
  }
  try {
    reply = Json::parse(body);
  } catch (const Json::exception&) {
    return "the reply is not JSON";
  }
  if (!reply.is_object() || reply.size() < 2 || reply.begin().key() != "id" ||
      std::next(reply.begin()).key() != "ok" || !reply["ok"].is_boolean()) {
    return "the reply does not begin with \"id\" and \"ok\"";
  }
  if (!reply["ok"].get<bool>()) {
    const auto error = reply.find("error");
    if (error == reply.end() || !error->is_string()) {
      return "an error reply without its error text";
    }
    const std::string& message = error->get_ref<const std::string&>();
    if (raw_bytes(message) > service::kMessageLimit + 3) {
      return "the error text is longer than its limit";
    }
    if (message.rfind("internal error", 0) == 0) {
      return "a request line gave an internal error: " + message;
    }
  }
  return "";
}

[[noreturn]] void broken(const std::string& rule, std::string_view line) {
  const std::string shown(line.substr(0, 200));
  std::fprintf(stderr, "fuzz target request: %s\n  line: %s\n", rule.c_str(), shown.c_str());
  std::abort();
}

}  // namespace

std::string reply_rule_broken(std::string_view line, const LineAnswer& answer) {
  const RequestHead head = head_of(line);
  if (answer.replies.empty()) {
    return is_answered_by_job(head.op) && !answer.held_before && answer.held_after
               ? ""
               : "no reply, and no job of the request's id is queued";
  }
  if (answer.replies.size() > 1) {
    return "more than one reply at once";
  }
  Json reply;
  if (std::string rule = frame_rule_broken(answer.replies[0], reply); !rule.empty()) {
    return rule;
  }
  const Json& id = reply["id"];
  if (head.id ? !(id.is_number_integer() && id.get<std::int64_t>() == *head.id) : !id.is_null()) {
    return "the reply's id is not the request's (null before the id is read)";
  }
  if (reply["ok"].get<bool>() && is_queued_at_once(head.op)) {
    const std::string queued =
        "{\"id\":" + std::to_string(*head.id) + ",\"ok\":true,\"queued\":true}\n";
    if (answer.replies[0] != queued || answer.held_before || !answer.held_after) {
      return "work accepted without {\"queued\":true} and its job";
    }
  }
  return "";
}

std::optional<std::string> run_request(std::span<const std::uint8_t> input) {
  std::vector<std::string> replies;
  service::Output output([&replies](std::string_view text) {
    replies.emplace_back(text);
    return true;
  });
  service::ServeOptions options;
  options.parent_pid = kParentPid;
  options.memory_budget_mb = 1024;  // fixed, not taken from the machine
  service::ResolvedCounts counts;
  counts.threads = 2;
  counts.load_threads = 1;
  service::Service service(options, counts, output, service::JobThreads::none);

  std::size_t offset = 0;
  auto reader = std::make_unique<service::LineReader>([&](char* data, std::size_t size) {
    const std::size_t n = std::min(size, input.size() - offset);
    if (n > 0) {
      std::memcpy(data, input.data() + offset, n);
      offset += n;
    }
    return static_cast<std::int64_t>(n);
  });
  std::optional<std::string> first_error;
  std::string line;
  while (!service.shutdown_requested() && reader->next(line) == service::LineStatus::line) {
    if (service::is_blank(line)) {
      continue;
    }
    const RequestHead head = head_of(line);
    const auto held = [&] { return head.id && service.runner().is_active(*head.id); };
    LineAnswer answer;
    answer.held_before = held();
    replies.clear();
    service.handle_line(line);
    answer.replies = replies;
    answer.held_after = held();
    if (const std::string rule = reply_rule_broken(line, answer); !rule.empty()) {
      broken(rule, line);
    }
    if (!first_error && !replies.empty()) {
      const Json reply = Json::parse(replies[0]);
      if (!reply["ok"].get<bool>()) {
        first_error = reply["error"].get<std::string>();
      }
    }
  }
  return first_error;
}

}  // namespace kv::fuzz
