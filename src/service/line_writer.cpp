#include "service/line_writer.h"

#include "core/error.h"
#include "core/utf8.h"
#include "platform/platform.h"

namespace kv::service {
namespace {

Json parse_fields(std::string_view text) {
  if (text.empty()) {
    return Json::object();
  }
  Json fields;
  try {
    fields = Json::parse(text);
  } catch (const Json::parse_error& error) {
    throw Error("reply fields are not valid JSON: " + std::string(error.what()));
  }
  // Only empty text means no fields; a parsed null is not an object.
  if (!fields.is_object()) {
    throw Error("reply fields must be a JSON object");
  }
  return fields;
}

void merge_fields(Json& line, const Json& fields) {
  if (fields.is_null()) {
    return;
  }
  if (!fields.is_object()) {
    throw Error("reply fields must be a JSON object");
  }
  for (const auto& [key, value] : fields.items()) {
    if (line.contains(key)) {
      throw Error("reply field \"" + key + "\" is reserved");
    }
    line[key] = value;
  }
}

void cut_message(Json& line, const char* field) {
  const auto it = line.find(field);
  if (it == line.end() || !it->is_string()) {
    return;
  }
  const std::string& text = it->get_ref<const std::string&>();
  if (text.size() > kMessageLimit) {
    *it = text.substr(0, utf8_cut(text, kMessageLimit)) + "...";
  }
}

// What is left of a line that was too long: its identifying fields.
Json oversized_replacement(const Json& line) {
  Json short_line = Json::object();
  for (const char* field : {"id", "event", "job"}) {
    if (const auto it = line.find(field); it != line.end()) {
      short_line[field] = *it;
    }
  }
  if (line.contains("ok")) {
    short_line["ok"] = false;
  }
  short_line["error"] =
      "the engine's reply was longer than " + std::to_string(kReplyLimit) + " bytes";
  return short_line;
}

}  // namespace

std::string serialise_line(Json line) {
  cut_message(line, "error");
  cut_message(line, "message");
  std::string text = json_line(line);
  if (text.size() > kReplyLimit) {
    text = json_line(oversized_replacement(line));
  }
  return text;
}

std::string success_reply(std::int64_t id, const Json& fields) {
  Json line = Json::object();
  line["id"] = id;
  line["ok"] = true;
  merge_fields(line, fields);
  return serialise_line(std::move(line));
}

std::string success_reply_text(std::int64_t id, std::string_view fields_text) {
  return success_reply(id, parse_fields(fields_text));
}

std::string error_reply(std::optional<std::int64_t> id, std::string_view message,
                        const Json& extra) {
  Json line = Json::object();
  line["id"] = id ? Json(*id) : Json(nullptr);
  line["ok"] = false;
  line["error"] = message;
  merge_fields(line, extra);
  return serialise_line(std::move(line));
}

std::string event_line(std::string_view name, std::int64_t job, const Json& fields) {
  Json line = Json::object();
  line["event"] = name;
  line["job"] = job;
  merge_fields(line, fields);
  return serialise_line(std::move(line));
}

Output::Output() : write_([](std::string_view text) { return platform::write_stdout(text); }) {}

void Output::write_line(std::string_view text) {
  std::lock_guard guard(lock_);
  write_locked(text);
}

void Output::write_line_built(const std::function<std::string()>& build) {
  std::lock_guard guard(lock_);
  write_locked(build());
}

void Output::write_locked(std::string_view text) {
  if (failed_.load()) {
    return;
  }
  std::string whole;
  whole.reserve(text.size() + 1);
  whole.append(text);
  whole.push_back('\n');
  if (!write_(whole)) {
    failed_.exchange(true);
  }
}

}  // namespace kv::service
