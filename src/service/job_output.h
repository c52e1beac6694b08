// One output of a job's "outputs" field: a path string, or an object with
// "path", "section" and "size".
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "service/field_reader.h"

namespace kv::service {

struct JobOutput {
  std::filesystem::path path;  // empty: no file
  std::string section;         // empty: no section
  std::uint64_t size = 0;      // the section's size as the client gave it
};

// A path, a section with its positive size, or both. Fails the field `field`
// otherwise.
JobOutput read_job_output(const FieldReader& fields, const Json& value, const std::string& field);

// The same for jobs that write files only: a section is refused.
std::filesystem::path read_output(const FieldReader& fields, const Json& value,
                                  const std::string& field);

}  // namespace kv::service
