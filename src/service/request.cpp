#include "service/request.h"

#include <array>
#include <initializer_list>
#include <limits>

#include "service/field_reader.h"
#include "service/protocol_error.h"

namespace kv::service {
namespace {

struct OpFields {
  std::string_view op;
  std::initializer_list<std::string_view> required;
  std::initializer_list<std::string_view> optional;
};

// Every op the protocol names, with its fields besides "id" and "op".
const std::array<OpFields, 20> kOps = {{
    {"hello", {}, {}},
    {"cache.status", {}, {}},
    {"shutdown", {}, {}},
    {"mesh.objects", {"path"}, {"progress"}},
    {"mesh.load_file",
     {"key", "path"},
     {"quads", "token", "hash", "up", "matrix", "objects", "progress", "uvs"}},
    {"mesh.load_shm", {"key", "section", "size", "objects"}, {"token", "hash"}},
    {"mesh.load_process", {"key", "pid", "objects"}, {"token", "hash"}},
    {"mesh.release", {"keys"}, {}},
    {"bake", {"low", "high", "settings", "outputs"}, {"preview", "release_after"}},
    {"scene.prepare", {"low", "high"}, {"settings"}},
    {"transfer", {"target", "source", "settings", "outputs"}, {"release_after"}},
    {"meshmaps", {"low", "high", "settings", "outputs"}, {"stream", "release_after"}},
    {"memory.trim", {}, {"caches"}},
    {"memory.estimate",
     {"size", "antialias", "maps", "backend"},
     {"high", "high_triangles", "textures"}},
    {"cancel", {"job"}, {}},
    {"mesh.preview", {"key", "preview"}, {}},
    {"rays.hit", {"key", "count", "t_max"}, {"ignore_backface", "rays", "hits"}},
    {"cage.check",
     {"low", "high", "front", "rear"},
     {"relative_scale", "average_normals", "low_miss", "high_outside"}},
    {"mesh.lod", {"key", "target_tris", "max_error"}, {}},
    {"cage.fields",
     {"low", "high", "max_distance"},
     {"samples", "high_offset", "low_hits", "sample_hits"}},
}};

const OpFields* find_op(std::string_view op) {
  for (const OpFields& entry : kOps) {
    if (entry.op == op) {
      return &entry;
    }
  }
  return nullptr;
}

}  // namespace

Request parse_request(std::string_view line) {
  Json body;
  try {
    body = Json::parse(line);
  } catch (const Json::exception& error) {
    throw ProtocolError(std::nullopt, error.what());
  }
  if (!body.is_object()) {
    throw ProtocolError(std::nullopt, "a request must be a JSON object");
  }
  const auto id_field = body.find("id");
  if (id_field == body.end()) {
    throw ProtocolError(std::nullopt, "request: missing field \"id\"");
  }
  // The id is not known until it reads as one; its own errors carry none.
  const FieldReader envelope(body, "request", 0);
  Request request;
  try {
    request.id = envelope.integer(*id_field, "id", std::numeric_limits<std::int64_t>::min(),
                                  std::numeric_limits<std::int64_t>::max());
  } catch (const ProtocolError& error) {
    throw ProtocolError(std::nullopt, error.what());
  }
  const FieldReader reader(body, "request", request.id);
  // An empty op is one that no operation names, like any other.
  request.op = reader.string(reader.at("op"), "op", false);
  const OpFields* fields = find_op(request.op);
  if (fields == nullptr) {
    reader.fail_request("unknown op \"" + request.op + "\"");
  }
  FieldReader(body, request.op, request.id).expect(fields->required, fields->optional);
  request.body = std::move(body);
  return request;
}

}  // namespace kv::service
