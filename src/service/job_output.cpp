#include "service/job_output.h"

namespace kv::service {

std::filesystem::path read_output(const FieldReader& fields, const Json& value,
                                  const std::string& field) {
  if (value.is_string()) {
    const std::string text = fields.string(value, field);
    return std::filesystem::path(std::u8string(text.begin(), text.end()));
  }
  if (!value.is_object()) {
    fields.fail(field, "expected a path or an object, got " + json_type_name(value));
  }
  const FieldReader output(value, fields.context() + ": " + field, fields.id());
  output.expect({}, {"path", "section", "size"});
  if (!output.has("path") && !output.has("section")) {
    fields.fail(field, "needs a path, a section, or both");
  }
  if (output.has("section") && !output.has("size")) {
    fields.fail(field, "needs a section and its size");
  }
  if (output.has("section")) {
    fields.fail(field, "sections are not available in this korvane build");
  }
  const std::string text = output.string("path");
  return std::filesystem::path(std::u8string(text.begin(), text.end()));
}

}  // namespace kv::service
