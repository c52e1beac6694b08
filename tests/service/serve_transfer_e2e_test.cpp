// Texture transfers through the running service: the same files as the
// command line, the field rules, failures and cancellation.
#include <gtest/gtest.h>

#include <filesystem>

#include "service/service_client.h"
#include "support/test_support.h"
#include "transfer/transfer_test_util.h"

namespace kv::test {
namespace {

struct Scene {
  std::filesystem::path target, high, source_a, source_b, source, texture;
};

// A target of two objects, a high mesh a little above it with other UVs,
// the target's surface with a second UV set both whole and split by object,
// and an RGBA8 texture.
Scene write_scene(const ScratchDir& dir) {
  Quad a;
  a.object = "a";
  a.x1 = 0.5f;
  Quad b = a;
  b.object = "b";
  b.x0 = 0.5f;
  b.x1 = 1.0f;
  b.ou = -0.1;
  Scene scene;
  scene.target = write_obj(dir, "target.obj", {a, b});
  Quad high = Quad{};
  high.z = 0.001f;
  high.su = 0.7;
  high.ov = 0.2;
  scene.high = write_obj(dir, "high.obj", {high});
  Quad sa = a, sb = b;
  sa.sv = sb.sv = 0.5;
  sb.ou = 0.3;
  scene.source = write_obj(dir, "source.obj", {sa, sb});
  scene.source_a = write_obj(dir, "source_a.obj", {sa});
  scene.source_b = write_obj(dir, "source_b.obj", {sb});
  scene.texture = dir / "in.kvt";
  write_kvt(scene.texture, pattern_image(16, 16, 4, ComponentType::kU8));
  return scene;
}

Json load(std::int64_t id, const std::string& key, const std::filesystem::path& path) {
  Json request = make_request(id, "mesh.load_file");
  request["key"] = key;
  request["path"] = path.string();
  return request;
}

Json transfer(std::int64_t id, const Json& source, const std::vector<std::string>& settings,
              const std::vector<std::string>& outputs) {
  Json request = make_request(id, "transfer");
  request["target"] = "target";
  request["source"] = source;
  request["settings"] = settings;
  request["outputs"] = outputs;
  return request;
}

std::vector<std::string> outputs_to(const Scene& scene, const std::filesystem::path& out,
                                    const std::filesystem::path& mask) {
  return {"--texture", scene.texture.string(), "--out", out.string(), "--out-mask", mask.string()};
}

// The summary without its timings and the fields that name files.
Json comparable(Json summary) {
  summary.erase("seconds");
  summary.erase("target");
  summary.erase("source");
  for (Json& output : summary["outputs"]) {
    output.erase("path");
    output.erase("mask");
  }
  return summary;
}

TEST(ServeTransfer, EqualsTheCommandLineByteForByte) {
  ScratchDir dir;
  const Scene scene = write_scene(dir);
  const std::vector<std::string> common = {"--size", "40", "--height", "24", "--aa", "2"};
  auto args = std::vector<std::string>{
      "transfer", "--mode",           "m2m", "--target", scene.target.string(),
      "--high",   scene.high.string()};
  args.insert(args.end(), common.begin(), common.end());
  for (const std::string& s : outputs_to(scene, dir / "cli_m2m.kvt", dir / "cli_m2m.png")) {
    args.push_back(s);
  }
  const platform::ProcessResult m2m_cli = run_korvane(args);
  ASSERT_EQ(m2m_cli.exit_code, 0) << m2m_cli.err;
  args = {
      "transfer",           "--mode", "uv2uv", "--target", scene.target.string(), "--source-uvs",
      scene.source.string()};
  args.insert(args.end(), common.begin(), common.end());
  for (const std::string& s : outputs_to(scene, dir / "cli_uv.kvt", dir / "cli_uv.png")) {
    args.push_back(s);
  }
  const platform::ProcessResult uv_cli = run_korvane(args);
  ASSERT_EQ(uv_cli.exit_code, 0) << uv_cli.err;

  ServiceClient client;
  for (const auto& [id, key, path] :
       std::vector<std::tuple<int, std::string, std::filesystem::path>>{
           {1, "target", scene.target},
           {2, "high", scene.high},
           {3, "sa", scene.source_a},
           {4, "sb", scene.source_b}}) {
    client.send_json(load(id, key, path));
  }
  // Sent before the loads answered: the job waits for them.
  std::vector<std::string> settings = {"--mode", "m2m", "--threads", "2"};
  settings.insert(settings.end(), common.begin(), common.end());
  client.send_json(
      transfer(5, "high", settings, outputs_to(scene, dir / "svc_m2m.kvt", dir / "svc_m2m.png")));
  std::vector<Json> lines;
  const Json m2m = client.reply(5, &lines);
  ASSERT_EQ(m2m["ok"], true) << m2m.dump();
  EXPECT_EQ(read_text_file(dir / "svc_m2m.kvt"), read_text_file(dir / "cli_m2m.kvt"));
  EXPECT_EQ(read_text_file(dir / "svc_m2m.png"), read_text_file(dir / "cli_m2m.png"));
  EXPECT_EQ(m2m["summary"]["target"], "target");
  EXPECT_EQ(m2m["summary"]["source"], "high");
  EXPECT_EQ(comparable(m2m["summary"]), comparable(Json::parse(m2m_cli.out)));

  // The job's events in order: phases, then regions up to the whole image.
  std::vector<std::string> phases;
  std::uint64_t done = 0;
  for (const Json& line : lines) {
    if (line.contains("event") && line["job"] == 5) {
      if (line["event"] == "phase") {
        phases.push_back(line["phase"]);
      } else if (line["event"] == "region") {
        EXPECT_GT(line["done"].get<std::uint64_t>(), done);
        done = line["done"];
        EXPECT_EQ(line["total"], 40 * 24);
      }
    }
  }
  EXPECT_EQ(phases, (std::vector<std::string>{"load", "transfer", "padding", "write"}));
  EXPECT_EQ(done, 40u * 24u);

  // uv2uv from the source split over two keys, joined in list order, on one
  // thread: the command line's files from the whole source.
  settings = {"--mode", "uv2uv", "--threads", "1"};
  settings.insert(settings.end(), common.begin(), common.end());
  Json uv = transfer(6, Json::array({"sa", "sb"}), settings,
                     outputs_to(scene, dir / "svc_uv.kvt", dir / "svc_uv.png"));
  uv["release_after"] = Json::array({"sa"});
  const Json uv_reply = client.request(uv);
  ASSERT_EQ(uv_reply["ok"], true) << uv_reply.dump();
  EXPECT_EQ(read_text_file(dir / "svc_uv.kvt"), read_text_file(dir / "cli_uv.kvt"));
  EXPECT_EQ(read_text_file(dir / "svc_uv.png"), read_text_file(dir / "cli_uv.png"));
  EXPECT_EQ(comparable(uv_reply["summary"]), comparable(Json::parse(uv_cli.out)));
  EXPECT_EQ(uv_reply["summary"]["source"], "sa,sb");
  const Json status = client.request(make_request(7, "cache.status"));
  for (const Json& mesh : status["meshes"]) {
    EXPECT_NE(mesh["key"], "sa");
  }
  // A key released after a job is gone for the next one.
  const Json swapped = client.request(transfer(8, Json::array({"sb", "sa"}), settings,
                                               outputs_to(scene, dir / "x.kvt", dir / "x.png")));
  EXPECT_EQ(swapped["error"], "transfer: no mesh is loaded under the key \"sa\"");
  EXPECT_EQ(client.finish(), 0);
}

TEST(ServeTransfer, FieldRulesFailuresAndCancellation) {
  ScratchDir dir;
  const Scene scene = write_scene(dir);
  ServiceClient client({"--threads", "1"});
  ASSERT_EQ(client.request(load(1, "target", scene.target))["ok"], true);
  ASSERT_EQ(client.request(load(2, "high", scene.high))["ok"], true);
  const std::vector<std::string> outputs = outputs_to(scene, dir / "o.kvt", dir / "o.png");
  const std::vector<std::string> settings = {"--mode", "m2m", "--size", "8"};

  const auto error = [&](std::int64_t id, const std::vector<std::string>& s,
                         const std::vector<std::string>& o) {
    const Json reply = client.request(transfer(id, "high", s, o));
    EXPECT_EQ(reply["id"], id);
    EXPECT_FALSE(reply.contains("code")) << reply.dump();
    return reply["error"].get<std::string>();
  };
  EXPECT_EQ(error(3, {"--mode", "m2m", "--size", "8", "--target", "t.obj"}, outputs),
            "transfer: settings: --target is not a setting");
  EXPECT_EQ(error(4, {"--size", "8", "--texture", "t.kvt"}, outputs),
            "transfer: settings: --texture belongs in outputs");
  EXPECT_EQ(error(5, {"--size", "8"}, outputs),
            "transfer: settings: settings need --mode and --size");
  EXPECT_EQ(error(6, {"--mode", "m2m", "--size", "eight"}, outputs),
            "transfer: settings: invalid value for --size: 'eight'");
  EXPECT_EQ(error(7, settings, {"--texture", "t.kvt", "--aa", "2"}),
            "transfer: outputs: --aa belongs in settings");
  EXPECT_EQ(error(8, settings, {"--texture", "t.kvt"}),
            "transfer: outputs: every --texture needs an --out after it");
  EXPECT_EQ(error(9, settings, {}),
            "transfer: outputs: outputs need at least one --texture and --out");
  EXPECT_EQ(error(10, settings, {"--report", "r.json"}),
            "transfer: outputs: --report is not a setting");
  // Faults found once the job runs keep the transfer's own messages.
  EXPECT_EQ(error(11, {"--mode", "m2m", "--size", "0"}, outputs),
            "transfer: the output size must be 1 to 16384 texels per side");
  EXPECT_EQ(error(12, {"--mode", "uv2uv", "--size", "8"}, outputs),
            "transfer: the source UV mesh differs from the target at triangle 0 (object, corner "
            "positions or their order)");
  const std::string missing =
      error(13, settings, {"--texture", (dir / "none.kvt").string(), "--out", "o.kvt"});
  EXPECT_NE(missing.find("none.kvt"), std::string::npos) << missing;
  Json no_key = transfer(15, "nope", settings, outputs);
  EXPECT_EQ(client.request(no_key)["error"], "transfer: no mesh is loaded under the key \"nope\"");
  EXPECT_FALSE(std::filesystem::exists(dir / "o.kvt"));

  // A running transfer ends between bands with nothing written.
  client.send_json(transfer(16, "high", {"--mode", "m2m", "--size", "1024", "--aa", "4"}, outputs));
  EXPECT_EQ(client.next(), Json::parse("{\"id\":16,\"ok\":true,\"queued\":true}"));
  client.event(16, "region");
  Json cancel = make_request(17, "cancel");
  cancel["job"] = 16;
  EXPECT_EQ(client.request(cancel)["cancelling"], true);
  EXPECT_EQ(client.reply(16), Json::parse("{\"id\":16,\"ok\":false,\"error\":\"transfer: "
                                          "cancelled\",\"code\":\"cancelled\"}"));
  EXPECT_FALSE(std::filesystem::exists(dir / "o.kvt"));
  EXPECT_FALSE(std::filesystem::exists(dir / "o.png"));
  EXPECT_EQ(client.request(make_request(18, "hello"))["transfer"], true);
  EXPECT_EQ(client.finish(), 0);
}

}  // namespace
}  // namespace kv::test
