// Thousands of malformed requests: each gets exactly one reply, in order,
// and the service still answers afterwards.
#include <gtest/gtest.h>

#include <random>
#include <thread>

#include "service/service_client.h"

namespace kv::test {
namespace {

// Requests whose replies all come at once (no queued work), with their
// fields to spoil.
const std::vector<std::string> kTemplates = {
    R"({"id":1,"op":"hello"})",
    R"({"id":2,"op":"cancel","job":5})",
    R"({"id":3,"op":"mesh.release","keys":["a","b"]})",
    R"({"id":4,"op":"memory.trim","caches":["scenes"]})",
    R"({"id":5,"op":"memory.estimate","size":64,"antialias":2,"maps":["normal"],"backend":"cpu","high_triangles":10})",
    R"({"id":6,"op":"cache.status"})",
    R"({"id":7,"op":"mesh.load_file","key":"k","path":"","up":"Q"})",
    R"({"id":8,"op":"mesh.load_shm","key":"k","section":"s","size":0,"objects":[]})",
    R"({"id":9,"op":"bake","low":"l","high":["h",""],"settings":["--size"],"outputs":{}})",
    R"({"id":10,"op":"rays.hit","key":"k","count":1,"t_max":1})",
    R"({"id":11,"op":"transfer","target":"t","source":["s",""],"settings":["--size"],"outputs":[]})",
};

std::string random_value(std::mt19937& rng) {
  static const std::vector<std::string> values = {"null",
                                                  "true",
                                                  "-1",
                                                  "0",
                                                  "1e308",
                                                  "-1e308",
                                                  "18446744073709551616",
                                                  "-9223372036854775809",
                                                  "1.5",
                                                  "\"\"",
                                                  "\"x\"",
                                                  "[]",
                                                  "{}",
                                                  "[1,\"a\",null]",
                                                  "{\"a\":{\"b\":[]}}",
                                                  "\"\\u0000\"",
                                                  "99999999999999999999999999"};
  return values[rng() % values.size()];
}

// One malformed line: random bytes, a cut request, or a request with a
// field of the wrong type.
std::string malformed_line(std::mt19937& rng) {
  const std::string& base = kTemplates[rng() % kTemplates.size()];
  switch (rng() % 3) {
    case 0: {
      std::string bytes(1 + rng() % 80, ' ');
      for (char& c : bytes) {
        do {
          c = static_cast<char>(rng() % 256);
        } while (c == '\n');
      }
      return bytes;
    }
    case 1:
      return base.substr(0, rng() % base.size());
    default: {
      // Replace the value after one of the template's colons.
      std::vector<std::size_t> colons;
      for (std::size_t i = 0; i < base.size(); ++i) {
        if (base[i] == ':') {
          colons.push_back(i);
        }
      }
      const std::size_t at = colons[rng() % colons.size()] + 1;
      std::size_t end = at;
      int depth = 0;
      bool in_string = false;
      for (; end < base.size(); ++end) {
        const char c = base[end];
        if (in_string) {
          in_string = c != '"';
        } else if (c == '"') {
          in_string = true;
        } else if (c == '[' || c == '{') {
          ++depth;
        } else if (c == ']' || c == '}') {
          if (depth-- == 0) {
            break;
          }
        } else if (c == ',' && depth == 0) {
          break;
        }
      }
      return base.substr(0, at) + random_value(rng) + base.substr(end);
    }
  }
}

bool answered(std::string line) {
  if (!line.empty() && line.back() == '\r') {
    line.pop_back();
  }
  return line.find_first_not_of(" \t") != std::string::npos;
}

TEST(ServeFuzz, EveryMalformedLineGetsExactlyOneReply) {
  std::mt19937 rng(12345);
  std::string input;
  std::size_t expected = 0;
  for (int i = 0; i < 5000; ++i) {
    const std::string line = malformed_line(rng);
    input += line + "\n";
    expected += answered(line) ? 1 : 0;
  }
  ServiceClient client;
  // Written from another thread: the replies must be read meanwhile.
  std::thread writer([&] { client.send(input.substr(0, input.size() - 1)); });
  std::size_t replies = 0;
  for (; replies < expected; ++replies) {
    const Json line = client.next();
    ASSERT_TRUE(line.contains("ok")) << line.dump();
    ASSERT_FALSE(line.contains("event"));
  }
  writer.join();
  EXPECT_EQ(client.request(make_request(-1, "hello"))["version"], "0.4.0");
  EXPECT_EQ(client.finish(), 0);
}

TEST(ServeFuzz, DeepNestingIsOneReplyLikeAnyOther) {
  ServiceClient client;
  client.send(std::string(4000000, '['));
  EXPECT_EQ(client.next()["id"], nullptr);
  const std::string deep = std::string(1000000, '[') + std::string(1000000, ']');
  client.send("{\"id\":1,\"op\":\"mesh.release\",\"keys\":" + deep + "}");
  EXPECT_EQ(client.next_text(),
            "{\"id\":1,\"ok\":false,\"error\":\"mesh.release: keys[0]: expected a string, got "
            "array\"}");
  EXPECT_EQ(client.request(make_request(2, "hello"))["ok"], true);
  EXPECT_EQ(client.finish(), 0);
}

}  // namespace
}  // namespace kv::test
