#include "service/service_client.h"

#include <gtest/gtest.h>

namespace kv::test {

ServiceClient::ServiceClient(const std::vector<std::string>& extra,
                             std::optional<std::uint32_t> parent) {
  std::vector<std::string> argv = {KV_BINARY, "serve", "--parent-pid",
                                   std::to_string(parent.value_or(platform::process_id()))};
  argv.insert(argv.end(), extra.begin(), extra.end());
  int error = 0;
  auto child = platform::ChildProcess::spawn(argv, &error);
  if (!child) {
    ADD_FAILURE() << "cannot start korvane serve: " << platform::system_error_text(error);
    return;
  }
  child_ = std::move(*child);
}

void ServiceClient::send(std::string_view line) {
  std::string whole(line);
  whole.push_back('\n');
  EXPECT_TRUE(child_.write_stdin(whole)) << "the service's stdin is closed";
}

std::string ServiceClient::next_text(int timeout_ms) {
  bool timed_out = false;
  const std::optional<std::string> line = child_.read_line(timeout_ms, &timed_out);
  if (!line) {
    ADD_FAILURE() << (timed_out ? "no line from the service in time" : "the service ended");
    return "{}";
  }
  return *line;
}

Json ServiceClient::next(int timeout_ms) {
  const std::string text = next_text(timeout_ms);
  try {
    return Json::parse(text);
  } catch (const Json::exception& e) {
    ADD_FAILURE() << "not JSON: " << text.substr(0, 200);
    return Json::object();
  }
}

Json ServiceClient::reply(std::int64_t id, std::vector<Json>* others) {
  for (;;) {
    Json line = next();
    if (line.empty()) {
      return line;  // the failure is already reported
    }
    if (line.contains("ok") && line["id"] == id && !line.contains("queued")) {
      return line;
    }
    if (others != nullptr) {
      others->push_back(std::move(line));
    }
  }
}

Json ServiceClient::request(const Json& request, std::vector<Json>* others) {
  send_json(request);
  return reply(request.at("id").get<std::int64_t>(), others);
}

Json ServiceClient::event(std::int64_t job, std::string_view name) {
  for (;;) {
    Json line = next();
    if (line.empty()) {
      return line;
    }
    if (line.value("event", "") == name && line["job"] == job) {
      return line;
    }
  }
}

int ServiceClient::finish() {
  child_.close_stdin();
  const std::optional<int> code = child_.wait_exit(kLineTimeoutMs);
  if (!code) {
    ADD_FAILURE() << "the service did not end";
    child_.kill();
    return -1;
  }
  return *code;
}

Json make_request(std::int64_t id, std::string_view op) {
  Json request = Json::object();
  request["id"] = id;
  request["op"] = op;
  return request;
}

}  // namespace kv::test
