// Mesh maps through the running service: the same files as the command
// line, the field rules, streamed map events and cancellation.
#include <gtest/gtest.h>

#include <filesystem>

#include "service/service_client.h"
#include "support/test_support.h"

namespace kv::test {
namespace {

const std::string kLow = std::string(KV_SOURCE_DIR) + "/examples/sphere_low.obj";
const std::string kHigh = std::string(KV_SOURCE_DIR) + "/examples/sphere_high.obj";

void load_spheres(ServiceClient& client) {
  for (const auto& [id, key, path] : std::vector<std::tuple<int, std::string, std::string>>{
           {1, "low", kLow}, {2, "high", kHigh}}) {
    Json request = make_request(id, "mesh.load_file");
    request["key"] = key;
    request["path"] = path;
    ASSERT_EQ(client.request(request)["ok"], true);
  }
}

Json meshmaps_request(std::int64_t id, const std::vector<std::string>& settings,
                      const Json& outputs) {
  Json request = make_request(id, "meshmaps");
  request["low"] = "low";
  request["high"] = "high";
  request["settings"] = settings;
  request["outputs"] = outputs;
  return request;
}

const std::vector<std::string> kSettings = {"--size", "48", "--antialias", "2", "--ao-rays", "12"};

TEST(ServeMeshmaps, EqualsTheCommandLineByteForByteAndStreams) {
  ScratchDir dir;
  std::vector<std::string> args = {"meshmaps", "--low", kLow, "--high", kHigh};
  args.insert(args.end(), kSettings.begin(), kSettings.end());
  args.insert(args.end(),
              {"--out-ao", (dir / "cli_ao.png").string(), "--out-world-normal",
               (dir / "cli_wn.png").string(), "--out-height", (dir / "cli_h.png").string()});
  const platform::ProcessResult cli = run_korvane(args);
  ASSERT_EQ(cli.exit_code, 0) << cli.err;

  ServiceClient client;
  load_spheres(client);
  std::vector<std::string> settings = kSettings;
  settings.insert(settings.end(), {"--threads", "2"});
  Json outputs = Json::object();
  outputs["ao"] = (dir / "svc_ao.png").string();
  outputs["world_normal"] = Json{{"path", (dir / "svc_wn.png").string()}};
  outputs["height"] = (dir / "svc_h.png").string();
  Json request = meshmaps_request(3, settings, outputs);
  request["stream"] = true;
  std::vector<Json> lines;
  const Json reply = client.request(request, &lines);
  ASSERT_EQ(reply["ok"], true) << reply.dump();
  for (const char* map : {"ao", "wn", "h"}) {
    const std::string name = std::string(map) + ".png";
    EXPECT_EQ(read_text_file(dir / ("svc_" + name)), read_text_file(dir / ("cli_" + name))) << map;
  }
  Json summary = reply["summary"];
  Json expected = Json::parse(cli.out);
  // Timings and the free memory behind the automatic budget differ by run.
  for (Json* j : {&summary, &expected}) {
    j->erase("seconds");
    (*j)["memory"].erase("budget_mb");
  }
  EXPECT_EQ(summary, expected);

  // One map_done per map, in the outputs' order, all before the reply.
  std::vector<std::string> done;
  for (const Json& line : lines) {
    if (line.value("event", "") == "map_done") {
      EXPECT_EQ(line["job"], 3);
      const char* file = done.empty()       ? "svc_ao.png"
                         : done.size() == 1 ? "svc_wn.png"
                                            : "svc_h.png";
      EXPECT_EQ(line["path"], (dir / file).string());
      done.push_back(line["map"]);
    }
  }
  EXPECT_EQ(done, (std::vector<std::string>{"ao", "world_normal", "height"}));

  // Without "stream" no map_done comes.
  outputs = Json{{"height", (dir / "again.png").string()}};
  lines.clear();
  ASSERT_EQ(client.request(meshmaps_request(4, settings, outputs), &lines)["ok"], true);
  for (const Json& line : lines) {
    EXPECT_NE(line.value("event", ""), "map_done");
  }
  EXPECT_EQ(read_text_file(dir / "again.png"), read_text_file(dir / "cli_h.png"));
  EXPECT_EQ(client.finish(), 0);
}

TEST(ServeMeshmaps, RefusesBadFields) {
  ScratchDir dir;
  ServiceClient client;
  const std::string path = (dir / "x.png").string();
  EXPECT_EQ(client.request(meshmaps_request(1, kSettings, Json{{"normal", path}}))["error"],
            "meshmaps: outputs: unknown map \"normal\"");
  EXPECT_EQ(client.request(meshmaps_request(2, kSettings, Json{{"raw", path}}))["error"],
            "meshmaps: outputs: unknown map \"raw\"");
  EXPECT_EQ(client.request(meshmaps_request(3, kSettings, Json::object()))["error"],
            "meshmaps: outputs: needs at least one map");
  EXPECT_EQ(client.request(meshmaps_request(4, {"--size", "8", "--out-ao", path},
                                            Json{{"ao", path}}))["error"],
            "meshmaps: settings: --out-ao is not a setting");
  EXPECT_EQ(client.request(meshmaps_request(5, {"--ao-rays", "4"}, Json{{"ao", path}}))["error"],
            "meshmaps: settings: settings need --size");
  Json bad_stream = meshmaps_request(6, kSettings, Json{{"ao", path}});
  bad_stream["stream"] = "yes";
  EXPECT_EQ(client.request(bad_stream)["ok"], false);
  EXPECT_FALSE(std::filesystem::exists(dir / "x.png"));
  EXPECT_EQ(client.finish(), 0);
}

// Long enough to be running still when the cancel or release arrives; the
// small budget cuts it into bands, between which the job notices.
Json long_request(std::int64_t id, const std::filesystem::path& out) {
  return meshmaps_request(
      id, {"--size", "512", "--antialias", "2", "--ao-rays", "128", "--memory-budget-mb", "30"},
      Json{{"ao", out.string()}});
}

TEST(ServeMeshmaps, CancelAndReleaseEndARunningJob) {
  ScratchDir dir;
  ServiceClient client({"--threads", "1"});
  load_spheres(client);
  client.send_json(long_request(10, dir / "a.png"));
  client.event(10, "phase");  // the bake runs
  Json cancel = make_request(11, "cancel");
  cancel["job"] = 10;
  EXPECT_EQ(client.request(cancel)["cancelling"], true);
  EXPECT_EQ(client.reply(10), Json::parse("{\"id\":10,\"ok\":false,\"error\":\"meshmaps: "
                                          "cancelled\",\"code\":\"cancelled\"}"));
  EXPECT_FALSE(std::filesystem::exists(dir / "a.png"));

  client.send_json(long_request(12, dir / "b.png"));
  client.event(12, "phase");
  Json release = make_request(13, "mesh.release");
  release["keys"] = Json::array({"high"});
  EXPECT_EQ(client.request(release)["released"], Json::array({"high"}));
  const Json reply = client.reply(12);
  EXPECT_EQ(reply["code"], "released");
  EXPECT_EQ(reply["error"], "meshmaps: the mesh key \"high\" was released while the job ran");
  EXPECT_FALSE(std::filesystem::exists(dir / "b.png"));
  EXPECT_EQ(client.finish(), 0);
}

}  // namespace
}  // namespace kv::test
