// The running service: start-up, framing of lines, the handshake, the ops
// that answer at once and the messages of their fields.
#include <gtest/gtest.h>

#include "service/hello.h"
#include "service/service_client.h"
#include "support/test_support.h"

namespace kv::test {
namespace {

std::vector<std::string> stdout_lines(const std::string& out) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start < out.size()) {
    const std::size_t end = out.find('\n', start);
    EXPECT_NE(end, std::string::npos) << "a line without its newline";
    lines.push_back(out.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

std::string self_pid() {
  return std::to_string(platform::process_id());
}

TEST(ServeFrame, StartUpErrors) {
  platform::ProcessResult r = run_korvane({"serve"});
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_EQ(
      r.err,
      "korvane: korvane serve needs --parent-pid <pid>\nRun korvane --help for the options.\n");
  r = run_korvane({"serve", "--parent-pid", "4194304"});  // above Linux's largest pid
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_EQ(r.err, "korvane serve: the parent process 4194304 is not running\n");
  EXPECT_EQ(r.out, "");
  r = run_korvane({"serve", "--parent-pid", self_pid(), "--load-threads", "0"});
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_EQ(r.err,
            "korvane: --load-threads must be at least 1\nRun korvane --help for the options.\n");
}

TEST(ServeFrame, LinesBlanksCarriageReturnsAndTheEndOfInput) {
  // Empty stdin: the service ends at once and says nothing.
  platform::ProcessResult r = run_korvane({"serve", "--parent-pid", self_pid()});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.out, "");

  r = run_korvane({"serve", "--parent-pid", self_pid()},
                  "\n \t \r\n{\"id\":1,\"op\":\"cancel\",\"job\":5}\r\n\t\n"
                  "{\"id\":2,\"op\":\"cancel\",\"job\":6}");
  EXPECT_EQ(r.exit_code, 0);
  const std::vector<std::string> lines = stdout_lines(r.out);
  ASSERT_EQ(lines.size(), 2u) << r.out;
  EXPECT_EQ(lines[0],
            "{\"id\":1,\"ok\":false,\"error\":\"cancel: job 5 is not queued or running\"}");
  EXPECT_EQ(lines[1],
            "{\"id\":2,\"ok\":false,\"error\":\"cancel: job 6 is not queued or running\"}");

  // Nothing is read after shutdown.
  r = run_korvane({"serve", "--parent-pid", self_pid()},
                  "{\"id\":3,\"op\":\"shutdown\"}\n{\"id\":4,\"op\":\"hello\"}\n");
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.out, "{\"id\":3,\"ok\":true,\"bye\":true}\n");
}

TEST(ServeFrame, HelloHandshake) {
  ServiceClient client({"--threads", "3"});
  const Json hello = client.request(make_request(11, "hello"));
  EXPECT_EQ(hello["id"], 11);
  EXPECT_EQ(hello["ok"], true);
  EXPECT_EQ(hello["version"], "0.4.0");
  EXPECT_EQ(hello["protocol"], 1);
  EXPECT_EQ(hello["threads"], 3);
  EXPECT_EQ(hello["pid"], client.process().pid());
  EXPECT_EQ(hello["gpu"].size(), 3u);
  ASSERT_EQ(hello["fixes"].size(), 42u);
  for (std::size_t i = 0; i < service::kFixes.size(); ++i) {
    EXPECT_EQ(hello["fixes"][i], service::kFixes[i]);
  }
  EXPECT_EQ(hello["fixes"][0], "mirror_winding");
  EXPECT_EQ(hello["fixes"][41], "position_options");
  EXPECT_EQ(hello["transfer_modes"], Json::parse("[\"uv2uv\",\"m2m\"]"));
  std::vector<std::string> order;
  for (const auto& [key, value] : hello.items()) {
    order.push_back(key);
  }
  const std::vector<std::string> expected = {
      "id",           "ok",    "version",     "protocol",         "gpu",
      "threads",      "pid",   "transfer",    "meshmaps",         "lod",
      "load_objects", "fixes", "cage_fields", "meshmaps_outputs", "transfer_modes"};
  EXPECT_EQ(order, expected);
  EXPECT_EQ(client.request(make_request(12, "shutdown"))["bye"], true);
  EXPECT_EQ(client.finish(), 0);
}

TEST(ServeFrame, EnvelopeAndReaderMessagesThroughTheService) {
  ServiceClient client;
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"[1]", "{\"id\":null,\"ok\":false,\"error\":\"a request must be a JSON object\"}"},
      {"{\"op\":\"hello\"}",
       "{\"id\":null,\"ok\":false,\"error\":\"request: missing field \\\"id\\\"\"}"},
      {"{\"id\":3}", "{\"id\":3,\"ok\":false,\"error\":\"request: missing field \\\"op\\\"\"}"},
      {"{\"id\":4,\"op\":\"hello\",\"extra\":1}",
       "{\"id\":4,\"ok\":false,\"error\":\"hello: unknown field \\\"extra\\\"\"}"},
      {"{\"id\":5,\"op\":\"cancel\",\"job\":\"x\"}",
       "{\"id\":5,\"ok\":false,\"error\":\"cancel: job: expected an integer, got string\"}"},
      {"{\"id\":6,\"op\":\"mesh.release\",\"keys\":[\"a\",1]}",
       "{\"id\":6,\"ok\":false,\"error\":\"mesh.release: keys[1]: expected a string, got "
       "number\"}"},
      {"{\"id\":7,\"op\":\"mesh.load_file\",\"key\":\"k\",\"path\":\"p\",\"up\":\"Y\","
       "\"matrix\":[1,0,0,0,0,1,0,0,0,0,1,0,0,0,0,1]}",
       "{\"id\":7,\"ok\":false,\"error\":\"mesh.load_file: up: give up or matrix, not both\"}"},
      {"{\"id\":8,\"op\":\"mesh.load_shm\",\"key\":\"k\",\"section\":\"s\",\"size\":0,"
       "\"objects\":[]}",
       "{\"id\":8,\"ok\":false,\"error\":\"mesh.load_shm: size: must be positive\"}"},
      {"{\"id\":9,\"op\":\"mesh.load_process\",\"key\":\"k\",\"pid\":1,\"objects\":[{}]}",
       "{\"id\":9,\"ok\":false,\"error\":\"mesh.load_process: pid must be the parent process "
       "(--parent-pid)\"}"},
      {"{\"id\":10,\"op\":\"mesh.load_process\",\"key\":\"k\",\"pid\":4294967296,\"objects\":[]}",
       "{\"id\":10,\"ok\":false,\"error\":\"mesh.load_process: pid: out of range\"}"},
      {"{\"id\":10,\"op\":\"mesh.load_process\",\"key\":\"k\",\"pid\":18446744073709551615,"
       "\"objects\":[]}",
       "{\"id\":10,\"ok\":false,\"error\":\"mesh.load_process: pid: out of range\"}"},
      {"{\"id\":10,\"op\":\"mesh.load_process\",\"key\":\"k\",\"pid\":0,\"objects\":[]}",
       "{\"id\":10,\"ok\":false,\"error\":\"mesh.load_process: pid: out of range\"}"},
      {"{\"id\":10,\"op\":\"mesh.load_process\",\"key\":\"k\",\"pid\":1.5,\"objects\":[]}",
       "{\"id\":10,\"ok\":false,\"error\":\"mesh.load_process: pid: expected an integer, got "
       "number\"}"},
      {"{\"id\":19,\"op\":\"\"}",
       "{\"id\":19,\"ok\":false,\"error\":\"request: unknown op \\\"\\\"\"}"},
      {"{\"id\":11,\"op\":\"memory.estimate\",\"size\":64,\"antialias\":3,\"maps\":[\"normal\"],"
       "\"backend\":\"cpu\",\"high_triangles\":5}",
       "{\"id\":11,\"ok\":false,\"error\":\"memory.estimate: antialias: expected 1, 2, 4 or 8\"}"},
      {"{\"id\":12,\"op\":\"memory.estimate\",\"size\":64,\"antialias\":1,\"maps\":[\"normal\"],"
       "\"backend\":\"cpu\",\"high\":\"h\",\"high_triangles\":5}",
       "{\"id\":12,\"ok\":false,\"error\":\"memory.estimate: high: give high keys or "
       "high_triangles, not both\"}"},
      {"{\"id\":13,\"op\":\"memory.estimate\",\"size\":64,\"antialias\":1,\"maps\":[\"normal\"],"
       "\"backend\":\"cpu\",\"high_triangles\":4294967297}",
       "{\"id\":13,\"ok\":false,\"error\":\"memory.estimate: high_triangles: at most "
       "4294967296\"}"},
      {"{\"id\":14,\"op\":\"bake\",\"low\":\"l\",\"high\":\"h\",\"settings\":[\"--size\"],"
       "\"outputs\":{\"normal\":\"n.exr\"}}",
       "{\"id\":14,\"ok\":false,\"error\":\"bake: settings: missing value for --size\"}"},
      {"{\"id\":15,\"op\":\"bake\",\"low\":\"l\",\"high\":\"h\",\"settings\":[\"--size\",\"8\"],"
       "\"outputs\":{\"normal\":{}}}",
       "{\"id\":15,\"ok\":false,\"error\":\"bake: outputs.normal: needs a path, a section, or "
       "both\"}"},
      {"{\"id\":16,\"op\":\"bake\",\"low\":\"l\",\"high\":\"h\",\"settings\":[\"--size\",\"8\"],"
       "\"outputs\":{\"normal\":3}}",
       "{\"id\":16,\"ok\":false,\"error\":\"bake: outputs.normal: expected a path or an object, "
       "got number\"}"},
      {"{\"id\":17,\"op\":\"bake\",\"low\":\"l\",\"high\":\"h\",\"settings\":[\"--size\",\"8\"],"
       "\"outputs\":{\"opacity\":\"o.png\"}}",
       "{\"id\":17,\"ok\":false,\"error\":\"bake: outputs: missing field \\\"normal\\\"\"}"},
      {"{\"id\":18,\"op\":\"memory.trim\",\"caches\":[\"textures\"]}",
       "{\"id\":18,\"ok\":false,\"error\":\"memory.trim: caches: unknown cache "
       "\\\"textures\\\"\"}"},
  };
  for (const auto& [request, reply] : cases) {
    client.send(request);
    EXPECT_EQ(client.next_text(), reply) << request;
  }
  EXPECT_EQ(client.finish(), 0);
}

TEST(ServeFrame, OpsThatAnswerAtOnce) {
  ServiceClient client(
      {"--cache-dir", "/tmp/kv-cache-named", "--cache-max-mb", "5", "--memory-budget-mb", "300"});
  const Json status = client.request(make_request(1, "cache.status"));
  EXPECT_EQ(status["meshes"], Json::array());
  EXPECT_EQ(status["cache_dir"], "/tmp/kv-cache-named");
  EXPECT_EQ(status["cache_max_mb"], 5);
  EXPECT_EQ(status["memory_budget_mb"], 300);

  Json release = make_request(2, "mesh.release");
  release["keys"] = Json::array({"nothing"});
  EXPECT_EQ(client.request(release)["released"], Json::array());
  const Json trim = client.request(make_request(3, "memory.trim"));
  EXPECT_EQ(trim["ok"], true);

  // Each with its required fields, so that only the op itself is refused.
  const std::vector<std::pair<std::string, std::vector<std::string>>> later = {
      {"mesh.preview", {"key", "preview"}},
      {"mesh.lod", {"key", "target_tris", "max_error"}},
      {"rays.hit", {"key", "count", "t_max"}},
      {"cage.check", {"low", "high", "front", "rear"}},
      {"cage.fields", {"low", "high", "max_distance"}},
  };
  for (const auto& [op, fields] : later) {
    Json request = make_request(4, op);
    for (const std::string& field : fields) {
      request[field] = "x";
    }
    EXPECT_EQ(client.request(request)["error"], op + ": not available in this korvane build");
  }
  Json cancel = make_request(5, "cancel");
  cancel["job"] = 77;
  EXPECT_EQ(client.request(cancel)["error"], "cancel: job 77 is not queued or running");
  EXPECT_EQ(client.finish(), 0);
}

TEST(ServeFrame, LinesOfSixtyFourMebibytes) {
  ServiceClient client;
  // {"id":1,"op":"hello","pad":"xxx..."} of exactly the limit is parsed.
  const std::string head = "{\"id\":1,\"op\":\"hello\",\"pad\":\"";
  const std::string tail = "\"}";
  std::string line = head + std::string(67108864 - head.size() - tail.size(), 'x') + tail;
  ASSERT_EQ(line.size(), 67108864u);
  client.send(line);
  EXPECT_EQ(client.next_text(),
            "{\"id\":1,\"ok\":false,\"error\":\"hello: unknown field \\\"pad\\\"\"}");
  line.insert(head.size(), "x");
  client.send(line);
  EXPECT_EQ(client.next_text(),
            "{\"id\":null,\"ok\":false,\"error\":\"request: line longer than 67108864 bytes\"}");
  EXPECT_EQ(client.request(make_request(2, "hello"))["ok"], true);
  EXPECT_EQ(client.finish(), 0);
}

}  // namespace
}  // namespace kv::test
