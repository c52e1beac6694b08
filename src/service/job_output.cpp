#include "service/job_output.h"

namespace kv::service {
namespace {

std::filesystem::path as_path(const std::string& text) {
  return std::filesystem::path(std::u8string(text.begin(), text.end()));
}

}  // namespace

JobOutput read_job_output(const FieldReader& fields, const Json& value, const std::string& field) {
  JobOutput result;
  if (value.is_string()) {
    result.path = as_path(fields.string(value, field));
    return result;
  }
  if (!value.is_object()) {
    fields.fail(field, "expected a path or an object, got " + json_type_name(value));
  }
  const FieldReader output(value, fields.context() + ": " + field, fields.id());
  output.expect({}, {"path", "section", "size"});
  if (!output.has("path") && !output.has("section")) {
    fields.fail(field, "needs a path, a section, or both");
  }
  // A size alone names nothing to write.
  if (output.has("section") != output.has("size")) {
    fields.fail(field, "needs a section and its size");
  }
  if (output.has("path")) {
    result.path = as_path(output.string("path"));
  }
  if (output.has("section")) {
    result.section = output.string("section");
    result.size = output.non_negative("size");
    if (result.size == 0) {
      output.fail("size", "must be positive");
    }
  }
  return result;
}

std::filesystem::path read_output(const FieldReader& fields, const Json& value,
                                  const std::string& field) {
  const JobOutput output = read_job_output(fields, value, field);
  if (!output.section.empty()) {
    fields.fail(field, "sections are not available in this korvane build");
  }
  return output.path;
}

}  // namespace kv::service
