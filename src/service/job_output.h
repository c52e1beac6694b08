// One output file of a job's "outputs" field.
#pragma once

#include <filesystem>
#include <string>

#include "service/field_reader.h"

namespace kv::service {

// A path string or {"path": ...}; a section is not written by this build.
// Fails the field `field` otherwise.
std::filesystem::path read_output(const FieldReader& fields, const Json& value,
                                  const std::string& field);

}  // namespace kv::service
