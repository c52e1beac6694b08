// The memory budget through the running service: transfer estimates from
// their textures, transfer and meshmaps jobs refused before any work when
// they cannot fit, and a meshmaps job that a cancel ends between its bands.
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>

#include "image/png.h"
#include "service/service_client.h"
#include "support/address_space_limit.h"
#include "support/test_support.h"
#include "transfer/transfer_test_util.h"

namespace kv::test {
namespace {

const std::string kLow = std::string(KV_SOURCE_DIR) + "/examples/sphere_low.obj";
const std::string kHigh = std::string(KV_SOURCE_DIR) + "/examples/sphere_high.obj";

Json load(std::int64_t id, const std::string& key, const std::filesystem::path& path) {
  Json request = make_request(id, "mesh.load_file");
  request["key"] = key;
  request["path"] = path.string();
  return request;
}

Json estimate(std::int64_t id, const Json& maps, const Json& textures) {
  Json request = make_request(id, "memory.estimate");
  request.update(Json{
      {"size", 256}, {"antialias", 1}, {"maps", maps}, {"backend", "cpu"}, {"high_triangles", 0}});
  if (!textures.is_null()) {
    request["textures"] = textures;
  }
  return request;
}

Json texture(std::uint64_t width, std::uint64_t height, std::uint64_t channels, const char* type) {
  return Json{{"width", width}, {"height", height}, {"channels", channels}, {"type", type}};
}

TEST(ServeBudget, EstimatesATransferFromItsTextures) {
  ServiceClient client;
  const Json both = Json::array({texture(512, 256, 4, "u8"), texture(64, 64, 1, "f32")});
  const Json reply = client.request(estimate(1, {"transfer"}, both));
  ASSERT_EQ(reply["ok"], true) << reply.dump();
  // Each texture decoded, and the output it fills at the estimate's size
  // with its channels and type, with a valid flag per texel.
  const std::uint64_t outputs = 256 * 256 * (4 * 1 + 1) + 256 * 256 * (1 * 4 + 1);
  EXPECT_EQ(reply["texture_bytes"], 512 * 256 * 4 + 64 * 64 * 4 + outputs);
  EXPECT_GE(reply["bytes"].get<std::uint64_t>(), reply["texture_bytes"].get<std::uint64_t>());
  // A 16-bit texture fills a 16-bit output.
  const Json wider = Json::array({texture(512, 512, 4, "u16"), texture(64, 64, 1, "f32")});
  EXPECT_EQ(client.request(estimate(2, {"transfer"}, wider))["texture_bytes"],
            512 * 512 * 4 * 2 + 64 * 64 * 4 + 256 * 256 * (4 * 2 + 1) + 256 * 256 * (1 * 4 + 1));
  // A bake reads no textures.
  EXPECT_EQ(client.request(estimate(3, {"normal", "ao"}, nullptr))["texture_bytes"], 0);

  const auto error = [&](std::int64_t id, const Json& maps, const Json& textures) {
    const Json failed = client.request(estimate(id, maps, textures));
    EXPECT_EQ(failed["id"], id);
    return failed.value("error", "(no error)");
  };
  EXPECT_EQ(error(4, {"transfer"}, nullptr), "memory.estimate: missing field \"textures\"");
  EXPECT_EQ(error(5, {"normal"}, both),
            "memory.estimate: textures: only a transfer reads textures");
  EXPECT_EQ(error(6, {"transfer"}, Json::array()),
            "memory.estimate: textures: must be a list of 1 to 64 textures");
  EXPECT_EQ(error(7, {"transfer"}, Json(std::vector<Json>(65, texture(1, 1, 1, "u8")))),
            "memory.estimate: textures: must be a list of 1 to 64 textures");
  EXPECT_EQ(error(8, {"transfer"}, "albedo.png"),
            "memory.estimate: textures: expected a list of objects, got string");
  EXPECT_EQ(
      error(9, {"transfer"}, Json::array({Json{{"width", 4}, {"height", 4}, {"channels", 1}}})),
      "memory.estimate: textures[0]: missing field \"type\"");
  Json extra = texture(4, 4, 1, "u8");
  extra["depth"] = 8;
  EXPECT_EQ(error(10, {"transfer"}, Json::array({texture(4, 4, 1, "u8"), extra})),
            "memory.estimate: textures[1]: unknown field \"depth\"");
  EXPECT_EQ(error(11, {"transfer"}, Json::array({texture(0, 4, 1, "u8")})),
            "memory.estimate: textures[0]: width: must be 1 to 16384 texels");
  EXPECT_EQ(error(12, {"transfer"}, Json::array({texture(4, 16385, 1, "u8")})),
            "memory.estimate: textures[0]: height: must be 1 to 16384 texels");
  EXPECT_EQ(error(13, {"transfer"}, Json::array({texture(4, 4, 5, "u8")})),
            "memory.estimate: textures[0]: channels: must be 1 to 4");
  EXPECT_EQ(error(14, {"transfer"}, Json::array({texture(4, 4, 1, "u32")})),
            "memory.estimate: textures[0]: type: expected u8, u16, f16 or f32");
  EXPECT_EQ(error(15, {"transfer", "glow"}, both), "memory.estimate: maps: unknown map \"glow\"");
  EXPECT_EQ(client.finish(), 0);
}

Json transfer(std::int64_t id, const std::string& size, const std::filesystem::path& texture,
              const std::filesystem::path& out) {
  Json request = make_request(id, "transfer");
  request["target"] = "target";
  request["source"] = "high";
  request["settings"] = {"--mode", "m2m", "--size", size};
  request["outputs"] = {"--texture",  texture.string(), "--out",
                        out.string(), "--out-mask",     (out.string() + ".mask.png")};
  return request;
}

Json meshmaps(std::int64_t id, const std::string& size, const std::filesystem::path& out) {
  Json request = make_request(id, "meshmaps");
  request["low"] = "low";
  request["high"] = "high";
  request["settings"] = {"--size", size, "--ao-rays", "4"};
  request["outputs"] = Json{{"ao", out.string()}};
  return request;
}

// The refusal's form, and nothing written.
std::uint64_t refused_need(const Json& reply, const std::string& op,
                           const std::filesystem::path& out) {
  EXPECT_EQ(reply["ok"], false) << reply.dump();
  EXPECT_EQ(reply["code"], "out_of_memory");
  EXPECT_EQ(reply["limit_mb"], 1);
  EXPECT_TRUE(reply["available_mb"].is_number_unsigned());
  const std::uint64_t need = reply.value("need_mb", std::uint64_t{0});
  EXPECT_GT(need, 1u);
  EXPECT_EQ(reply["error"], op + ": not enough memory: the job needs " + std::to_string(need) +
                                " MiB and the memory budget is 1 MiB");
  EXPECT_FALSE(std::filesystem::exists(out));
  return need;
}

// Region events of a job, in order, from the lines read.
std::vector<Json> regions_of(const std::vector<Json>& lines, std::int64_t job) {
  std::vector<Json> regions;
  for (const Json& line : lines) {
    if (line.value("event", "") == "region" && line["job"] == job) {
      regions.push_back(line);
    }
  }
  return regions;
}

TEST(ServeBudget, RefusesTransfersAndMeshmapsThatCannotFit) {
  ScratchDir dir;
  Quad target;
  target.object = "target";
  Quad high = target;
  high.object = "high";
  high.z = 0.001f;
  write_obj(dir, "target.obj", {target});
  write_obj(dir, "high.obj", {high});
  const std::filesystem::path small = dir / "small.kvt";
  write_kvt(small, pattern_image(16, 16, 4, ComponentType::kU8));
  // A flat grey PNG of a few kilobytes whose texels take 16 MiB: priced from
  // its header, never decoded for the estimate.
  const std::filesystem::path large = dir / "large.png";
  TexelImage grey;
  grey.width = grey.height = 4096;
  grey.channels = 1;
  grey.data.assign(grey.expected_bytes(), 128);
  writePng(large, grey);
  ASSERT_LT(std::filesystem::file_size(large), 1u << 20);

  for (const char* budget : {"1", "4096"}) {
    ServiceClient client({"--memory-budget-mb", budget, "--threads", "1"});
    ASSERT_EQ(client.request(load(1, "target", dir / "target.obj"))["ok"], true);
    ASSERT_EQ(client.request(load(2, "high", dir / "high.obj"))["ok"], true);
    ASSERT_EQ(client.request(load(3, "low", kLow))["ok"], true);
    ASSERT_EQ(client.request(load(4, "high_sphere", kHigh))["ok"], true);
    const std::string tag = budget;
    const std::filesystem::path out_small = dir / (tag + "_small.kvt");
    const std::filesystem::path out_large = dir / (tag + "_large.png");
    const std::filesystem::path out_ao = dir / (tag + "_ao.png");
    std::vector<Json> lines;
    const Json a = client.request(transfer(5, "512", small, out_small), &lines);
    const Json b = client.request(transfer(6, "512", large, out_large));
    Json maps = meshmaps(7, "256", out_ao);
    maps["high"] = "high_sphere";
    const Json c = client.request(maps);
    if (tag == "1") {
      const std::uint64_t need_small = refused_need(a, "transfer", out_small);
      // At least the larger texture's 16 MiB of texels (each need is
      // rounded up to whole MiB).
      EXPECT_GE(refused_need(b, "transfer", out_large), need_small + 15);
      refused_need(c, "meshmaps", out_ao);
      // A fault of the job itself keeps its own message, without a code.
      const Json missing = client.request(transfer(8, "512", dir / "none.kvt", dir / "x.kvt"));
      EXPECT_NE(missing.value("error", "").find("none.kvt"), std::string::npos) << missing.dump();
      EXPECT_FALSE(missing.contains("code"));
    } else {
      for (const Json& reply : {a, b, c}) {
        EXPECT_EQ(reply["ok"], true) << reply.dump();
      }
      // A transfer too comes in at least sixteen bands.
      EXPECT_EQ(regions_of(lines, 5).size(), 16u);
      EXPECT_TRUE(std::filesystem::exists(out_small));
      EXPECT_TRUE(std::filesystem::exists(out_large));
      EXPECT_TRUE(std::filesystem::exists(out_ao));
    }
    EXPECT_EQ(client.finish(), 0);
  }
}

TEST(ServeBudget, AMeshmapsJobRunsInBandsThatACancelEnds) {
  ScratchDir dir;
  ServiceClient client({"--threads", "1"});
  ASSERT_EQ(client.request(load(1, "low", kLow))["ok"], true);
  ASSERT_EQ(client.request(load(2, "high", kHigh))["ok"], true);

  // Even at the automatic budget a small job comes in sixteen bands, each
  // reported, which together cover the map once.
  std::vector<Json> lines;
  ASSERT_EQ(client.request(meshmaps(3, "64", dir / "whole.png"), &lines)["ok"], true);
  const std::vector<Json> whole = regions_of(lines, 3);
  ASSERT_EQ(whole.size(), 16u);
  std::int64_t next_row = 0;
  for (const Json& region : whole) {
    EXPECT_EQ(region["x"], 0);
    EXPECT_EQ(region["y"], next_row);
    EXPECT_EQ(region["w"], 64);
    EXPECT_EQ(region["total"], 64 * 64);
    next_row += region["h"].get<std::int64_t>();
    EXPECT_EQ(region["done"], next_row * 64);
  }
  EXPECT_EQ(next_row, 64);

  // A long job cancelled after its first band ends long before its last.
  Json request = meshmaps(4, "256", dir / "cancelled.png");
  request["settings"] = {"--size", "256", "--antialias", "2", "--ao-rays", "64"};
  client.send_json(request);
  const Json first = client.event(4, "region");
  ASSERT_EQ(first["done"], 16 * 256);
  Json cancel = make_request(5, "cancel");
  cancel["job"] = 4;
  lines.clear();
  EXPECT_EQ(client.request(cancel, &lines)["cancelling"], true);
  for (const Json& line : lines) {  // the job answers after the cancel, never before
    EXPECT_FALSE(line.contains("ok")) << line.dump();
  }
  EXPECT_EQ(client.reply(4, &lines), Json::parse("{\"id\":4,\"ok\":false,\"error\":\"meshmaps: "
                                                 "cancelled\",\"code\":\"cancelled\"}"));
  const std::vector<Json> after = regions_of(lines, 4);
  EXPECT_LT(after.size(), 14u);  // of the 15 bands left, at most those under way
  for (const Json& region : after) {
    EXPECT_LT(region["done"].get<std::uint64_t>(), 256u * 256u);
  }
  EXPECT_FALSE(std::filesystem::exists(dir / "cancelled.png"));
  EXPECT_EQ(client.finish(), 0);
}

// A job that passes the budget but then runs out of memory answers with the
// same code and numbers as a refusal, its estimate as the need; the service
// goes on.
TEST(ServeBudget, AJobThatRunsOutOfMemoryCarriesTheCode) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer's allocator ends the process instead of failing the allocation";
#endif
  ScratchDir dir;
  std::optional<ServiceClient> client;
  {
    // The service inherits the lowered limit; this process gets its own back.
    test::AddressSpaceLimit limit(std::uint64_t{2} << 30);
    ASSERT_TRUE(limit.applied());
    client.emplace(std::vector<std::string>{"--memory-budget-mb", "1000000"});
  }
  ASSERT_EQ(client->request(load(1, "low", kLow))["ok"], true);
  ASSERT_EQ(client->request(load(2, "high", kHigh))["ok"], true);
  Json bake = make_request(3, "bake");
  bake["low"] = "low";
  bake["high"] = "high";
  bake["settings"] = {"--size", "16384", "--aa", "4"};
  bake["outputs"] = {{"normal", (dir / "n.exr").string()}};
  const Json failed = client->request(bake);
  EXPECT_EQ(failed["ok"], false) << failed.dump();
  EXPECT_EQ(failed["code"], "out_of_memory") << failed.dump();
  EXPECT_NE(failed.value("error", "").find("out of memory"), std::string::npos);
  EXPECT_GT(failed.value("need_mb", 0), 4096);  // 16384^2 texels at 4 samples each
  EXPECT_EQ(failed["limit_mb"], 1000000);
  EXPECT_TRUE(failed.contains("available_mb"));
  EXPECT_FALSE(std::filesystem::exists(dir / "n.exr"));
  EXPECT_EQ(client->request(make_request(4, "hello"))["ok"], true);
  EXPECT_EQ(client->finish(), 0);
}

}  // namespace
}  // namespace kv::test
