// Requests answered while earlier work still holds their ids: the service
// runs without job threads, so every queued job stays queued.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "service/service.h"

namespace kv::service {
namespace {

class HeldService {
 public:
  HeldService()
      : output_([this](std::string_view text) {
          lines_.emplace_back(text);
          return true;
        }),
        service_(options(), ResolvedCounts{}, output_, JobThreads::none) {}

  // The lines written for this request, newlines included.
  std::vector<std::string> send(const std::string& line) {
    const std::size_t before = lines_.size();
    service_.handle_line(line);
    return {lines_.begin() + static_cast<std::ptrdiff_t>(before), lines_.end()};
  }

 private:
  static ServeOptions options() {
    ServeOptions o;
    o.parent_pid = 1;
    o.memory_budget_mb = 1024;
    return o;
  }

  std::vector<std::string> lines_;
  Output output_;
  Service service_;
};

using Lines = std::vector<std::string>;

std::string refused(int id, const std::string& op) {
  return "{\"id\":" + std::to_string(id) + ",\"ok\":false,\"error\":\"" + op + ": job " +
         std::to_string(id) + " is already queued or running\"}\n";
}

TEST(HeldJobs, AnIdStillQueuedIsRefusedForEveryKindOfWork) {
  HeldService s;
  const std::string objects = R"({"id":1,"op":"mesh.objects","path":"/nowhere.obj"})";
  const std::string load = R"({"id":2,"op":"mesh.load_file","key":"k","path":"/nowhere.obj"})";
  const std::string shm =
      R"({"id":3,"op":"mesh.load_shm","key":"s","section":"sec","size":8,)"
      R"("objects":[{"name":"a","vertices":0,"triangles":0,"positions":0,"indices":0}]})";
  const std::string bake = R"({"id":4,"op":"bake","low":"l","high":"h","settings":["--size","8"],)"
                           R"("outputs":{"normal":"/nowhere/n.exr"}})";

  // Loads and listings answer only when they end; a bake says it is queued.
  EXPECT_EQ(s.send(objects), Lines{});
  EXPECT_EQ(s.send(load), Lines{});
  EXPECT_EQ(s.send(shm), Lines{});
  EXPECT_EQ(s.send(bake), Lines{"{\"id\":4,\"ok\":true,\"queued\":true}\n"});

  EXPECT_EQ(s.send(objects), Lines{refused(1, "mesh.objects")});
  EXPECT_EQ(s.send(load), Lines{refused(2, "mesh.load_file")});
  EXPECT_EQ(s.send(shm), Lines{refused(3, "mesh.load_shm")});
  EXPECT_EQ(s.send(bake), Lines{refused(4, "bake")});
  // The id is held whatever the op that holds it; the refusal names the
  // op that asked.
  EXPECT_EQ(s.send(R"({"id":4,"op":"mesh.objects","path":"/nowhere.obj"})"),
            Lines{refused(4, "mesh.objects")});
  EXPECT_EQ(s.send(R"({"id":1,"op":"scene.prepare","low":"l","high":"h"})"),
            Lines{refused(1, "scene.prepare")});

  EXPECT_EQ(s.send(R"({"id":5,"op":"cancel","job":2})"),
            Lines{"{\"id\":5,\"ok\":true,\"cancelling\":true}\n"});
  EXPECT_EQ(
      s.send(R"({"id":6,"op":"cancel","job":7})"),
      Lines{"{\"id\":6,\"ok\":false,\"error\":\"cancel: job 7 is not queued or running\"}\n"});
  // A cancelled job still holds its id until it has answered.
  EXPECT_EQ(s.send(load), Lines{refused(2, "mesh.load_file")});
}

}  // namespace
}  // namespace kv::service
