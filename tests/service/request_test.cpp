// The request envelope, the field readers and the fixed value rules, each
// with its exact message and the id it carries.
#include <gtest/gtest.h>

#include "service/protocol_error.h"
#include "service/request.h"
#include "service/request_rules.h"

namespace kv::service {
namespace {

struct Outcome {
  std::string message;
  std::optional<std::int64_t> id;
};

Outcome parse_error(std::string_view line) {
  try {
    parse_request(line);
  } catch (const ProtocolError& e) {
    return {e.what(), e.id()};
  }
  return {"(no error)", std::nullopt};
}

// The message that a reader call on {"f": <value>} gives.
template <typename F>
std::string field_error(std::string_view value, F&& read) {
  const Json body = Json::parse("{\"id\":5,\"op\":\"x\",\"f\":" + std::string(value) + "}");
  const FieldReader fields(body, "x", 5);
  try {
    read(fields, body.at("f"));
  } catch (const ProtocolError& e) {
    EXPECT_EQ(e.id(), std::optional<std::int64_t>(5));
    return e.what();
  }
  return "(no error)";
}

TEST(Request, EnvelopeErrorsCarryTheIdOnlyOnceItWasRead) {
  EXPECT_EQ(parse_error("[1]").message, "a request must be a JSON object");
  EXPECT_EQ(parse_error("{\"op\":\"hello\"}").message, "request: missing field \"id\"");
  EXPECT_EQ(parse_error("{\"op\":\"hello\"}").id, std::nullopt);
  EXPECT_EQ(parse_error("{\"id\":3}").message, "request: missing field \"op\"");
  EXPECT_EQ(parse_error("{\"id\":3}").id, std::optional<std::int64_t>(3));
  EXPECT_EQ(parse_error("{\"id\":\"3\",\"op\":\"hello\"}").message,
            "request: id: expected an integer, got string");
  EXPECT_EQ(parse_error("{\"id\":\"3\",\"op\":\"hello\"}").id, std::nullopt);
  EXPECT_EQ(parse_error("{\"id\":9223372036854775808,\"op\":\"hello\"}").message,
            "request: id: integer out of range");
  EXPECT_EQ(parse_error("{\"id\":1.5,\"op\":\"hello\"}").message,
            "request: id: expected an integer, got number");
  EXPECT_EQ(parse_error("{\"id\":-9223372036854775808,\"op\":\"bogus\"}").message,
            "request: unknown op \"bogus\"");
  EXPECT_EQ(parse_error("{\"id\":2,\"op\":\"\"}").message, "request: unknown op \"\"");
  EXPECT_EQ(parse_error("{\"id\":2,\"op\":\"\"}").id, std::optional<std::int64_t>(2));
  EXPECT_EQ(parse_error("{\"id\":2,\"op\":7}").message,
            "request: op: expected a string, got number");
  EXPECT_EQ(parse_error("{\"id\":2,\"op\":\"hello\",\"x\":1}").message,
            "hello: unknown field \"x\"");
  EXPECT_EQ(parse_error("{\"id\":2,\"op\":\"mesh.load_file\",\"path\":\"p\",\"bad\":1}").message,
            "mesh.load_file: missing field \"key\"");
  EXPECT_EQ(parse_error("{\"id\":2,\"op\":\"bake\",\"low\":1,\"high\":1,\"settings\":1,"
                        "\"outputs\":1,\"stream\":1}")
                .message,
            "bake: unknown field \"stream\"");
  const std::string not_json = parse_error("{\"id\":").message;
  EXPECT_NE(not_json.find("parse error"), std::string::npos) << not_json;
  const Request ok = parse_request("{\"op\":\"cancel\",\"job\":4,\"id\":-2}");
  EXPECT_EQ(ok.id, -2);
  EXPECT_EQ(ok.op, "cancel");
}

TEST(Request, EachReaderNamesTheFieldAndTheRule) {
  const auto str = [](const FieldReader& r, const Json& v) { r.string(v, "f"); };
  EXPECT_EQ(field_error("1", str), "x: f: expected a string, got number");
  EXPECT_EQ(field_error("\"\"", str), "x: f: must not be empty");
  EXPECT_EQ(field_error("\"a\\u0000b\"", str), "x: f: must not hold a NUL character");
  EXPECT_EQ(field_error("\"" + std::string(8193, 'a') + "\"", str), "x: f: longer than 8192 bytes");
  EXPECT_EQ(field_error("\"" + std::string(8192, 'a') + "\"", str), "(no error)");

  const auto strs = [](const FieldReader& r, const Json& v) { r.strings(v, "f"); };
  EXPECT_EQ(field_error("{}", strs), "x: f: expected a list of strings, got object");
  EXPECT_EQ(field_error("[\"a\",2]", strs), "x: f[1]: expected a string, got number");

  const auto num = [](const FieldReader& r, const Json& v) { r.number(v, "f"); };
  EXPECT_EQ(field_error("true", num), "x: f: expected a number, got boolean");
  EXPECT_EQ(field_error("-1.5e300", num), "(no error)");

  const auto nums = [](const FieldReader& r, const Json& v) { r.numbers(v, "f", 3); };
  EXPECT_EQ(field_error("[1,2]", nums), "x: f: expected a list of 3 numbers");
  EXPECT_EQ(field_error("[1,2,\"3\"]", nums), "x: f: expected a list of 3 numbers");
  EXPECT_EQ(field_error("null", nums), "x: f: expected a list of 3 numbers");

  const auto int_ = [](const FieldReader& r, const Json& v) { r.integer(v, "f", -2, 2); };
  EXPECT_EQ(field_error("2", int_), "(no error)");
  EXPECT_EQ(field_error("3", int_), "x: f: integer out of range");
  EXPECT_EQ(field_error("-3", int_), "x: f: integer out of range");
  EXPECT_EQ(field_error("18446744073709551615", int_), "x: f: integer out of range");
  EXPECT_EQ(field_error("[]", int_), "x: f: expected an integer, got array");

  const auto nn = [](const FieldReader& r, const Json& v) { r.non_negative(v, "f"); };
  EXPECT_EQ(field_error("0.5", nn),
            "x: f: expected a non-negative integer, got a non-integer number");
  EXPECT_EQ(field_error("-1", nn), "x: f: expected a non-negative integer, got a negative integer");
  EXPECT_EQ(field_error("null", nn), "x: f: expected a non-negative integer, got null");
  EXPECT_EQ(field_error("18446744073709551615", nn), "(no error)");

  const auto boolean = [](const FieldReader& r, const Json& v) { r.boolean(v, "f"); };
  EXPECT_EQ(field_error("1", boolean), "x: f: expected true or false, got number");

  const auto obj = [](const FieldReader& r, const Json& v) { r.object(v, "f"); };
  EXPECT_EQ(field_error("\"s\"", obj), "x: f: expected an object, got string");

  const auto objs = [](const FieldReader& r, const Json& v) { r.objects(v, "f"); };
  EXPECT_EQ(field_error("{}", objs), "x: f: expected a list of objects, got object");
  EXPECT_EQ(field_error("[]", objs), "x: f: must not be empty");
  EXPECT_EQ(field_error("[{},3]", objs), "x: f[1]: expected an object, got number");
}

// The fixed rules, read from a whole request body.
std::string rule_error(const std::string& fields_text, void (*read)(const FieldReader&)) {
  const Json body = Json::parse("{\"id\":8,\"op\":\"mesh.load_file\"" + fields_text + "}");
  const FieldReader fields(body, "mesh.load_file", 8);
  try {
    read(fields);
  } catch (const ProtocolError& e) {
    return e.what();
  }
  return "(no error)";
}

std::string names_json(std::size_t count, std::size_t bytes) {
  std::string text = ",\"objects\":[";
  for (std::size_t i = 0; i < count; ++i) {
    std::string name = std::to_string(i);
    name.resize(bytes, '_');
    text += (i ? ",\"" : "\"") + name + "\"";
  }
  return text + "]";
}

TEST(Request, FixedValueRulesOfMeshLoads) {
  const auto place = [](const FieldReader& f) { read_placement(f); };
  EXPECT_EQ(rule_error(",\"up\":\"X\"", place), "mesh.load_file: up: expected Y or Z");
  EXPECT_EQ(rule_error(",\"up\":\"Y\",\"matrix\":[1,0,0,0,0,1,0,0,0,0,1,0,0,0,0,1]", place),
            "mesh.load_file: up: give up or matrix, not both");
  EXPECT_EQ(rule_error(",\"matrix\":[1,0,0,0,0,1,0,0,0,0,1,0,0,0,0,2]", place),
            "mesh.load_file: matrix: the last row must be 0 0 0 1");
  EXPECT_EQ(rule_error(",\"matrix\":[1,0,0,0,0,1,0,0,0,0,1,0,0,0,0]", place),
            "mesh.load_file: matrix: expected a list of 16 numbers");
  EXPECT_EQ(rule_error(",\"matrix\":[2,0,0,5,0,1,0,0,0,0,1,0,0,0,0,1]", place), "(no error)");

  const auto names = [](const FieldReader& f) { read_name_filter(f, "objects"); };
  EXPECT_EQ(rule_error(names_json(4096, 5), names), "(no error)");
  EXPECT_EQ(rule_error(names_json(4097, 5), names), "mesh.load_file: objects: at most 4096 names");
  EXPECT_EQ(rule_error(",\"objects\":[\"a\",\"b\",\"a\"]", names),
            "mesh.load_file: objects: names must not repeat");
  EXPECT_EQ(rule_error(",\"objects\":[\"\"]", names),
            "mesh.load_file: objects: names must be 1 to 1024 bytes");
  EXPECT_EQ(rule_error(names_json(1, 1025), names),
            "mesh.load_file: objects: names must be 1 to 1024 bytes");
  EXPECT_EQ(rule_error(names_json(256, 1024), names), "(no error)");  // 262144 bytes
  EXPECT_EQ(rule_error(names_json(257, 1024), names),
            "mesh.load_file: objects: the names must total at most 262144 bytes");

  const auto quads = [](const FieldReader& f) { read_quads(f); };
  EXPECT_EQ(rule_error(",\"quads\":\"keep\"", quads),
            "mesh.load_file: quads: expected split or reject");

  const auto key = [](const FieldReader& f) { read_key(f, f.at("key"), "key"); };
  EXPECT_EQ(rule_error(",\"key\":\"" + std::string(1024, 'k') + "\"", key), "(no error)");
  EXPECT_EQ(rule_error(",\"key\":\"" + std::string(1025, 'k') + "\"", key),
            "mesh.load_file: key: keys must be 1 to 1024 bytes");

  const auto objects = [](const FieldReader& f) { read_section_objects(f); };
  EXPECT_EQ(rule_error(",\"objects\":[{\"name\":\"a\",\"vertices\":3,\"triangles\":1,"
                       "\"positions\":0,\"indices\":-4}]",
                       objects),
            "mesh.load_file: objects[0]: indices: expected a non-negative integer, got a "
            "negative integer");
  EXPECT_EQ(rule_error(",\"objects\":[{\"name\":\"a\",\"vertices\":3,\"triangles\":1,"
                       "\"positions\":0}]",
                       objects),
            "mesh.load_file: objects[0]: missing field \"indices\"");
  EXPECT_EQ(rule_error(",\"objects\":[{\"name\":\"a\",\"vertices\":3,\"triangles\":1,"
                       "\"positions\":0,\"indices\":36,\"colors\":0}]",
                       objects),
            "mesh.load_file: objects[0]: unknown field \"colors\"");
}

TEST(Request, FixedValueRulesOfEstimates) {
  const auto aa = [](const FieldReader& f) { read_antialias(f); };
  EXPECT_EQ(rule_error(",\"antialias\":3", aa), "mesh.load_file: antialias: expected 1, 2, 4 or 8");
  EXPECT_EQ(rule_error(",\"antialias\":8", aa), "(no error)");
  const auto backend = [](const FieldReader& f) { read_backend_is_gpu(f); };
  EXPECT_EQ(rule_error(",\"backend\":\"vulkan\"", backend),
            "mesh.load_file: backend: expected cpu or gpu");
  const auto maps = [](const FieldReader& f) { read_maps(f); };
  EXPECT_EQ(rule_error(",\"maps\":[]", maps), "mesh.load_file: maps: needs at least one map");
  EXPECT_EQ(rule_error(",\"maps\":[\"ao\",\"glow\"]", maps),
            "mesh.load_file: maps: unknown map \"glow\"");
}

}  // namespace
}  // namespace kv::service
