// Queued work through the running service: loads, the bake against the
// command line's, cancels, releases and the parent's end.
#include <gtest/gtest.h>

#include <filesystem>

#include "service/service_client.h"
#include "support/test_support.h"

namespace kv::test {
namespace {

const std::string kLow = std::string(KV_SOURCE_DIR) + "/examples/sphere_low.obj";
const std::string kHigh = std::string(KV_SOURCE_DIR) + "/examples/sphere_high.obj";

Json load_file(std::int64_t id, const std::string& key, const std::string& path) {
  Json request = make_request(id, "mesh.load_file");
  request["key"] = key;
  request["path"] = path;
  return request;
}

Json bake_request(std::int64_t id, const std::string& size, const std::string& aa,
                  const std::filesystem::path& normal) {
  Json request = make_request(id, "bake");
  request["low"] = "low";
  request["high"] = "high";
  request["settings"] = Json::array({"--size", size, "--aa", aa});
  request["outputs"] = Json::object({{"normal", normal.string()}});
  return request;
}

// Loads both sample meshes under "low" and "high".
void load_samples(ServiceClient& client) {
  const Json low = client.request(load_file(1, "low", kLow));
  ASSERT_EQ(low["ok"], true) << low.dump();
  EXPECT_EQ(low["triangles"], 960);
  EXPECT_EQ(low["objects"], Json::array({"sphere_low"}));
  EXPECT_EQ(low["has_uvs"], true);
  const Json high = client.request(load_file(2, "high", kHigh));
  ASSERT_EQ(high["ok"], true) << high.dump();
  EXPECT_EQ(high["has_uvs"], false);
}

TEST(ServeJobs, BakeEqualsTheCommandLineByteForByte) {
  ScratchDir dir;
  const platform::ProcessResult cli =
      run_korvane({"--low", kLow, "--high", kHigh, "--size", "96", "--height", "64", "--aa", "2",
                   "--out-normal", (dir / "cli.exr").string(), "--out-opacity",
                   (dir / "cli.png").string(), "--padding", "ring"});
  ASSERT_EQ(cli.exit_code, 0) << cli.err;

  ServiceClient client;
  // The bake is sent before its loads answered: it waits for them.
  client.send_json(load_file(1, "low", kLow));
  client.send_json(load_file(2, "high", kHigh));
  Json bake = bake_request(3, "96", "2", dir / "svc.exr");
  bake["settings"] = Json::array(
      {"--size", "96", "--height", "64", "--aa", "2", "--padding", "ring", "--threads", "2"});
  bake["outputs"]["opacity"] = Json::object({{"path", (dir / "svc.png").string()}});
  bake["release_after"] = Json::array({"high"});
  client.send_json(bake);
  std::vector<Json> lines;
  const Json reply = client.reply(3, &lines);
  ASSERT_EQ(reply["ok"], true) << reply.dump();
  EXPECT_TRUE(reply["summary"].is_object());
  EXPECT_EQ(reply["summary"]["korvane"], "0.4.0");
  EXPECT_EQ(read_text_file(dir / "cli.exr"), read_text_file(dir / "svc.exr"));
  EXPECT_EQ(read_text_file(dir / "cli.png"), read_text_file(dir / "svc.png"));

  // The job's events, in order, with its id; the loads' replies came first.
  std::vector<std::string> phases;
  bool region = false;
  for (const Json& line : lines) {
    if (line.contains("event")) {
      EXPECT_EQ(line["job"], 3);
      if (line["event"] == "phase") {
        phases.push_back(line["phase"]);
      }
      region = region || line["event"] == "region";
    }
  }
  EXPECT_EQ(phases, (std::vector<std::string>{"bvh", "bake", "padding", "write"}));
  EXPECT_TRUE(region);

  // release_after dropped "high"; "low" stays.
  const Json status = client.request(make_request(4, "cache.status"));
  ASSERT_EQ(status["meshes"].size(), 1u);
  EXPECT_EQ(status["meshes"][0]["key"], "low");
  EXPECT_EQ(status["meshes"][0]["triangles"], 960);
  const Json missing = client.request(bake_request(5, "32", "1", dir / "never.exr"));
  EXPECT_EQ(missing["error"], "bake: no mesh is loaded under the key \"high\"");
  EXPECT_FALSE(std::filesystem::exists(dir / "never.exr"));
  EXPECT_EQ(client.finish(), 0);
}

TEST(ServeJobs, PreparedAndKeptScenesBakeTheSameMaps) {
  ScratchDir dir;
  const platform::ProcessResult cli =
      run_korvane({"--low", kLow, "--high", kHigh, "--size", "64", "--aa", "2", "--out-normal",
                   (dir / "cli.exr").string()});
  ASSERT_EQ(cli.exit_code, 0) << cli.err;
  ServiceClient client;
  load_samples(client);
  Json prepare = make_request(3, "scene.prepare");
  prepare["low"] = "low";
  prepare["high"] = "high";
  prepare["settings"] = Json::array({"--size", "64", "--aa", "2"});
  const Json prepared = client.request(prepare);
  EXPECT_EQ(prepared["low_prep"], true) << prepared.dump();
  Json status = client.request(make_request(4, "cache.status"));
  EXPECT_EQ(status["low_preps"], 1);
  EXPECT_EQ(status["scenes"], 1);

  // Both bakes find the prepared LowPrep and tracer: no tracer build.
  for (int i = 0; i < 2; ++i) {
    const std::string name = "svc" + std::to_string(i) + ".exr";
    const Json reply = client.request(bake_request(5 + i, "64", "2", dir / name));
    ASSERT_EQ(reply["ok"], true) << reply.dump();
    EXPECT_EQ(reply["summary"]["seconds"]["bvh"], 0.0);
    EXPECT_EQ(read_text_file(dir / "cli.exr"), read_text_file(dir / name));
  }
  // Another size needs another LowPrep but keeps the tracer.
  const Json other = client.request(bake_request(7, "32", "1", dir / "small.exr"));
  EXPECT_EQ(other["summary"]["seconds"]["bvh"], 0.0);
  status = client.request(make_request(8, "cache.status"));
  EXPECT_EQ(status["low_preps"], 2);
  EXPECT_EQ(status["scenes"], 1);

  Json trim = make_request(9, "memory.trim");
  trim["caches"] = Json::array({"preparations"});
  const Json trimmed = client.request(trim);
  EXPECT_EQ(trimmed["preparations"], 2);
  EXPECT_EQ(trimmed["scenes"], 0);
  // Releasing a key drops the scenes built from it.
  Json release = make_request(10, "mesh.release");
  release["keys"] = Json::array({"high"});
  client.request(release);
  EXPECT_EQ(client.request(make_request(11, "cache.status"))["scenes"], 0);
  EXPECT_EQ(client.finish(), 0);
}

TEST(ServeJobs, LoadsListingsReusesAndReleases) {
  ScratchDir dir;
  ServiceClient client({"--cache-dir", (dir / "cache").string()});
  Json first = load_file(1, "k", kLow);
  first["hash"] = "h1";
  first["progress"] = true;
  std::vector<Json> events;
  Json reply = client.request(first, &events);
  EXPECT_EQ(reply["reused"], false);
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0]["event"], "load_progress");
  EXPECT_EQ(events[1]["triangles"], 960);

  // The same hash under the same key answers without reading the file.
  first["id"] = 2;
  first["path"] = (dir / "gone.obj").string();
  first.erase("progress");
  reply = client.request(first);
  EXPECT_EQ(reply["reused"], true);
  EXPECT_EQ(reply["triangles"], 960);
  first["hash"] = "h2";
  first["id"] = 3;
  reply = client.request(first);
  EXPECT_EQ(reply["ok"], false);
  EXPECT_EQ(reply.count("code"), 0u);  // a reader's failure has no code
  EXPECT_NE(reply["error"].get<std::string>().find("gone.obj"), std::string::npos);

  Json objects = make_request(4, "mesh.objects");
  objects["path"] = kHigh;
  EXPECT_EQ(client.request(objects)["objects"], Json::array({"sphere_high"}));

  Json no_uvs = load_file(5, "plain", kLow);
  no_uvs["uvs"] = false;
  EXPECT_EQ(client.request(no_uvs)["has_uvs"], false);

  Json release = make_request(6, "mesh.release");
  release["keys"] = Json::array({"k", "never", "plain"});
  EXPECT_EQ(client.request(release)["released"], Json::array({"k", "plain"}));
  EXPECT_EQ(client.request(make_request(7, "cache.status"))["meshes"], Json::array());
  EXPECT_EQ(client.finish(), 0);
}

// The next reply must be the job's "queued" reply; events of a job already
// running may come before it.
void expect_queued(ServiceClient& client, std::int64_t id) {
  Json line = client.next();
  while (line.contains("event")) {
    line = client.next();
  }
  EXPECT_EQ(line, Json::parse("{\"id\":" + std::to_string(id) + ",\"ok\":true,\"queued\":true}"));
}

TEST(ServeJobs, CancelQueuedAndRunningJobs) {
  ScratchDir dir;
  ServiceClient client({"--threads", "1"});
  load_samples(client);
  client.send_json(bake_request(10, "4096", "4", dir / "a.exr"));
  expect_queued(client, 10);
  client.event(10, "region");  // the bake runs
  client.send_json(bake_request(11, "64", "1", dir / "b.exr"));
  expect_queued(client, 11);

  // A second job under a running id is refused; hello answers meanwhile.
  const Json twice = client.request(bake_request(10, "64", "1", dir / "c.exr"));
  EXPECT_EQ(twice["error"], "bake: job 10 is already queued or running");
  EXPECT_EQ(client.request(make_request(12, "hello"))["protocol"], 1);

  Json cancel = make_request(13, "cancel");
  cancel["job"] = 11;
  EXPECT_EQ(client.request(cancel)["cancelling"], true);
  cancel["id"] = 14;
  cancel["job"] = 10;
  EXPECT_EQ(client.request(cancel)["cancelling"], true);
  const Json running = client.reply(10);
  EXPECT_EQ(running, Json::parse("{\"id\":10,\"ok\":false,\"error\":\"bake: cancelled\","
                                 "\"code\":\"cancelled\"}"));
  const Json queued = client.reply(11);
  EXPECT_EQ(queued["code"], "cancelled");
  EXPECT_FALSE(std::filesystem::exists(dir / "a.exr"));
  EXPECT_FALSE(std::filesystem::exists(dir / "b.exr"));

  // Once a job has answered, its id is free: cancel refuses it.
  cancel["id"] = 15;
  EXPECT_EQ(client.request(cancel)["error"], "cancel: job 10 is not queued or running");
  EXPECT_EQ(client.finish(), 0);
}

TEST(ServeJobs, ReleaseUnderARunningBake) {
  ScratchDir dir;
  ServiceClient client({"--threads", "1"});
  load_samples(client);
  client.send_json(bake_request(20, "4096", "4", dir / "a.exr"));
  expect_queued(client, 20);
  client.event(20, "region");
  Json release = make_request(21, "mesh.release");
  release["keys"] = Json::array({"high"});
  EXPECT_EQ(client.request(release)["released"], Json::array({"high"}));
  const Json reply = client.reply(20);
  EXPECT_EQ(reply["ok"], false);
  EXPECT_EQ(reply["code"], "released");
  EXPECT_EQ(reply["error"], "bake: the mesh key \"high\" was released while the job ran");
  EXPECT_FALSE(std::filesystem::exists(dir / "a.exr"));
  EXPECT_EQ(client.finish(), 0);
}

TEST(ServeJobs, OversizedReplyIsReplaced) {
  ScratchDir dir;
  // 1100 objects with names of 1000 bytes: the load's reply lists them all.
  std::string obj = "v 0 0 0\nv 1 0 0\nv 0 1 0\n";
  for (int i = 0; i < 1100; ++i) {
    std::string name = "o" + std::to_string(i);
    name.resize(1000, 'n');
    obj += "o " + name + "\nf 1 2 3\n";
  }
  write_text_file(dir / "many.obj", obj);
  ServiceClient client;
  client.send_json(load_file(7, "many", (dir / "many.obj").string()));
  EXPECT_EQ(client.next_text(),
            "{\"id\":7,\"ok\":false,\"error\":\"the engine's reply was longer than 1048576 "
            "bytes\"}");
  // The mesh itself was kept.
  const Json status = client.request(make_request(8, "cache.status"));
  ASSERT_EQ(status["meshes"].size(), 1u);
  EXPECT_EQ(status["meshes"][0]["triangles"], 1100);
  EXPECT_EQ(client.finish(), 0);
}

TEST(ServeJobs, TheParentsEndEndsTheService) {
  ScratchDir dir;
  int error = 0;
  auto parent = platform::ChildProcess::spawn({"/bin/sleep", "600"}, &error);
  ASSERT_TRUE(parent.has_value()) << platform::system_error_text(error);
  ServiceClient client({"--threads", "1"}, parent->pid());
  load_samples(client);
  client.send_json(bake_request(30, "4096", "4", dir / "a.exr"));
  expect_queued(client, 30);
  client.event(30, "region");
  parent->kill();
  ASSERT_TRUE(parent->wait_exit(kLineTimeoutMs).has_value());
  // The service goes with at most the bake's cancelled reply after the
  // events already on their way.
  std::vector<Json> after;
  for (;;) {
    bool timed_out = false;
    const auto line = client.process().read_line(kLineTimeoutMs, &timed_out);
    ASSERT_FALSE(timed_out) << "the service outlived its parent";
    if (!line) {
      break;
    }
    after.push_back(Json::parse(*line));
  }
  EXPECT_EQ(client.process().wait_exit(kLineTimeoutMs), std::optional<int>(0));
  if (!after.empty() && !after.back().contains("event")) {
    EXPECT_EQ(after.back()["code"], "cancelled");
  }
  for (std::size_t i = 0; i + 1 < after.size(); ++i) {
    EXPECT_EQ(after[i]["event"], "region") << after[i].dump();
  }
  EXPECT_FALSE(std::filesystem::exists(dir / "a.exr"));
}

}  // namespace
}  // namespace kv::test
