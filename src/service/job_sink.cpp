#include "service/job_sink.h"

namespace kv::service {

void JobSink::check() const {
  if (job_.cancel.load()) {
    throw Cancelled(job_.op + ": cancelled");
  }
  for (const auto& [key, generation] : keys_) {
    if (!store_.holds(key, generation)) {
      throw KeyReleased(job_.op + ": the mesh key \"" + key + "\" was released while the job ran");
    }
  }
}

void JobSink::event(const Json& event) {
  check();
  Json fields = Json::object();
  std::string name;
  for (const auto& [key, value] : event.items()) {
    if (key == "event") {
      name = value.get<std::string>();
    } else {
      fields[key] = value;
    }
  }
  output_.write_line(event_line(name, job_.id, fields));
}

void JobSink::warning(std::string_view text) {
  if (job_.cancel.load()) {
    return;
  }
  std::string message(text);
  while (!message.empty() && (message.back() == '\n' || message.back() == '\r')) {
    message.pop_back();
  }
  Json fields = Json::object();
  fields["notice"] = "warning";
  fields["message"] = message;
  output_.write_line(event_line("notice", job_.id, fields));
}

}  // namespace kv::service
