// Meshes handed over in shared memory and the load transforms, through the
// running service; the memory budget's estimate and refusal.
#include <gtest/gtest.h>

#include <filesystem>

#include "service/raw_mesh.h"
#include "service/service_client.h"
#include "support/test_support.h"

namespace kv::test {
namespace {

// A flat low grid whose UVs fill most of the map, and a bumpy high grid over
// it in two objects.
std::vector<RawObject> low_objects() {
  RawObject low = grid_object("Low", 8, true, false);
  for (std::size_t k = 0; k < low.indices.size(); ++k) {
    const float* p = &low.positions[3 * low.indices[k]];
    low.uvs[2 * k] = p[0] / 0.8f;
    low.uvs[2 * k + 1] = p[1] / (8.0f / 3.0f);
  }
  return {low};
}

std::vector<RawObject> high_objects() {
  RawObject a = grid_object("HighA", 30, false, true);
  RawObject b = grid_object("HighB", 4, false, false);
  for (std::size_t i = 0; i < b.positions.size(); i += 3) {
    b.positions[i] += 0.05f;
    b.positions[i + 2] += 0.002f;
  }
  return {a, b};
}

Json section_objects(const Layout& layout) {
  Json list = Json::array();
  for (const service::SectionObject& o : layout.objects) {
    Json object = {{"name", o.name},
                   {"vertices", o.vertices},
                   {"triangles", o.triangles},
                   {"positions", o.positions},
                   {"indices", o.indices}};
    if (o.uvs) {
      object["uvs"] = *o.uvs;
    }
    if (o.normals) {
      object["normals"] = *o.normals;
    }
    list.push_back(object);
  }
  return list;
}

Json load_shm(std::int64_t id, const std::string& key, const TestSection& section,
              const Layout& layout) {
  Json request = make_request(id, "mesh.load_shm");
  request["key"] = key;
  request["section"] = section.name();
  request["size"] = layout.bytes.size();
  request["objects"] = section_objects(layout);
  return request;
}

Json load_file(std::int64_t id, const std::string& key, const std::filesystem::path& path) {
  Json request = make_request(id, "mesh.load_file");
  request["key"] = key;
  request["path"] = path.string();
  return request;
}

Json bake(std::int64_t id, const std::string& low, const std::string& high,
          const std::filesystem::path& out, const std::string& size = "48") {
  Json request = make_request(id, "bake");
  request["low"] = low;
  request["high"] = high;
  request["settings"] = Json::array({"--size", size, "--aa", "2", "--threads", "2"});
  request["outputs"] = Json::object({{"normal", out.string()}});
  return request;
}

void expect_same_load(const Json& a, const Json& b) {
  ASSERT_EQ(a["ok"], true) << a.dump();
  ASSERT_EQ(b["ok"], true) << b.dump();
  for (const char* field : {"triangles", "vertices", "objects", "has_uvs"}) {
    EXPECT_EQ(a[field], b[field]) << field;
  }
}

TEST(ServeMeshes, SharedAndClientMemoryBakeAsTheSameDataFromAnObjFile) {
  ScratchDir dir;
  const std::vector<RawObject> low = low_objects(), high = high_objects();
  write_text_file(dir / "low.obj", obj_text(low));
  write_text_file(dir / "high.obj", obj_text(high));
  const Layout low_layout = lay_out(low), high_layout = lay_out(high);
  const TestSection low_section("svc-low", low_layout.bytes);
  const TestSection high_section("svc-high", high_layout.bytes);

  ServiceClient client;
  const Json shm_low = client.request(load_shm(1, "ls", low_section, low_layout));
  const Json file_low = client.request(load_file(2, "lf", dir / "low.obj"));
  expect_same_load(shm_low, file_low);
  EXPECT_EQ(shm_low["has_uvs"], true);
  const Json shm_high = client.request(load_shm(3, "hs", high_section, high_layout));
  const Json file_high = client.request(load_file(4, "hf", dir / "high.obj"));
  expect_same_load(shm_high, file_high);
  EXPECT_EQ(shm_high["objects"], Json::array({"HighA", "HighB"}));
  EXPECT_EQ(shm_high["triangles"], 2 * 30 * 30 + 2 * 4 * 4);

  const Json from_shm = client.request(bake(5, "ls", "hs", dir / "shm.exr"));
  const Json from_file = client.request(bake(6, "lf", "hf", dir / "file.exr"));
  ASSERT_EQ(from_shm["ok"], true) << from_shm.dump();
  ASSERT_EQ(from_file["ok"], true) << from_file.dump();
  EXPECT_GT(from_shm["summary"]["hits"].get<std::uint64_t>(), 1000u);
  EXPECT_EQ(read_text_file(dir / "shm.exr"), read_text_file(dir / "file.exr"));

  // The same arrays in this process's memory, which the service may read as
  // its parent's: addresses instead of offsets.
  Json process = load_shm(10, "lp", low_section, low_layout);
  process.erase("section");
  process.erase("size");
  process["op"] = "mesh.load_process";
  process["pid"] = platform::process_id();
  const auto base = reinterpret_cast<std::uintptr_t>(low_layout.bytes.data());
  for (Json& object : process["objects"]) {
    for (const char* field : {"positions", "indices", "uvs"}) {
      object[field] = object[field].get<std::uint64_t>() + base;
    }
  }
  expect_same_load(client.request(process), file_low);
  const Json from_process = client.request(bake(11, "lp", "hs", dir / "process.exr"));
  ASSERT_EQ(from_process["ok"], true) << from_process.dump();
  EXPECT_EQ(read_text_file(dir / "process.exr"), read_text_file(dir / "file.exr"));

  // A layout fault is the request's field error; a fault of the data is the
  // reader's own message, without a code.
  Json bad = load_shm(7, "bad", low_section, low_layout);
  bad["objects"][0]["positions"] = low_layout.bytes.size() - 4;
  const Json layout_error = client.request(bad);
  EXPECT_EQ(layout_error["id"], 7);
  EXPECT_EQ(
      layout_error["error"].get<std::string>().rfind("mesh.load_shm: objects[0]: positions: ", 0),
      0u)
      << layout_error.dump();
  bad = load_shm(8, "bad", low_section, low_layout);
  bad["section"] = "kv-test-svcmesh-never-created";
  const Json missing = client.request(bad);
  EXPECT_EQ(missing["id"], 8);
  EXPECT_EQ(missing["error"].get<std::string>().rfind(
                "cannot open shared memory section \"kv-test-svcmesh-never-created\"", 0),
            0u)
      << missing.dump();
  EXPECT_FALSE(missing.contains("code"));
  // The key of a failed load holds nothing.
  const Json status = client.request(make_request(9, "cache.status"));
  for (const Json& mesh : status["meshes"]) {
    EXPECT_NE(mesh["key"], "bad");
  }
  EXPECT_EQ(client.finish(), 0);
}

TEST(ServeMeshes, UpMatrixAndObjectFiltersShapeTheLoadedMesh) {
  ScratchDir dir;
  const std::vector<RawObject> low = low_objects(), high = high_objects();
  write_text_file(dir / "low.obj", obj_text(low));
  write_text_file(dir / "high.obj", obj_text(high));
  ServiceClient client;
  ASSERT_EQ(client.request(load_file(1, "low", dir / "low.obj"))["ok"], true);
  const Json whole = client.request(load_file(2, "high", dir / "high.obj"));

  Json request = load_file(3, "b", dir / "high.obj");
  request["objects"] = Json::array({"HighB"});
  const Json only_b = client.request(request);
  ASSERT_EQ(only_b["ok"], true) << only_b.dump();
  EXPECT_EQ(only_b["objects"], Json::array({"HighB"}));
  EXPECT_EQ(only_b["triangles"], 2 * 4 * 4);
  EXPECT_EQ(only_b["vertices"], 5 * 5);
  request = load_file(4, "none", dir / "high.obj");
  request["objects"] = Json::array({"HighC"});
  EXPECT_EQ(client.request(request)["error"], "the mesh has no object \"HighC\"");

  // The high mesh lifted far above the low one: no ray reaches it.
  request = load_file(5, "lifted", dir / "high.obj");
  request["matrix"] = Json::array({1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 50, 0, 0, 0, 1});
  ASSERT_EQ(client.request(request)["ok"], true);
  // Turned from Y-up: the grid stands on the x-z plane, beside the rays.
  request = load_file(6, "turned", dir / "high.obj");
  request["up"] = "Y";
  const Json turned = client.request(request);
  EXPECT_EQ(turned["triangles"], whole["triangles"]);

  const auto hits = [&](std::int64_t id, const std::string& key) {
    const Json reply = client.request(bake(id, "low", key, dir / (key + ".exr"), "32"));
    EXPECT_EQ(reply["ok"], true) << reply.dump();
    return reply["summary"]["hits"].get<std::uint64_t>();
  };
  const std::uint64_t all = hits(7, "high");
  const std::uint64_t b = hits(8, "b");
  EXPECT_GT(all, 0u);
  EXPECT_GT(b, 0u);
  EXPECT_LT(b, all);
  EXPECT_EQ(hits(9, "lifted"), 0u);
  EXPECT_LT(hits(10, "turned"), all);
  EXPECT_EQ(client.finish(), 0);
}

TEST(ServeMeshes, MemoryBudgetEstimatesAndRefusesAJobThatCannotFit) {
  ScratchDir dir;
  write_text_file(dir / "low.obj", obj_text(low_objects()));
  write_text_file(dir / "high.obj", obj_text(high_objects()));
  ServiceClient client({"--memory-budget-mb", "64"});
  ASSERT_EQ(client.request(load_file(1, "low", dir / "low.obj"))["ok"], true);
  ASSERT_EQ(client.request(load_file(2, "high", dir / "high.obj"))["ok"], true);

  const auto estimate = [&](std::int64_t id, const Json& size, const Json& maps) {
    Json request = make_request(id, "memory.estimate");
    request["size"] = size;
    request["antialias"] = 1;
    request["maps"] = maps;
    request["backend"] = "cpu";
    request["high"] = "high";
    const Json reply = client.request(request);
    EXPECT_EQ(reply["ok"], true) << reply.dump();
    return reply;
  };
  const Json small = estimate(3, 1024, Json::array({"normal"}));
  const Json large = estimate(4, 2048, Json::array({"normal"}));
  const Json both = estimate(5, Json::array({1024, 2048}), Json::array({"normal"}));
  EXPECT_EQ(large["texel_bytes"].get<std::uint64_t>(),
            4 * small["texel_bytes"].get<std::uint64_t>());
  EXPECT_EQ(both["texel_bytes"].get<std::uint64_t>(),
            small["texel_bytes"].get<std::uint64_t>() + large["texel_bytes"].get<std::uint64_t>());
  EXPECT_EQ(small["texture_bytes"], 0);
  EXPECT_EQ(small["limit_mb"], 64);
  EXPECT_EQ(small["fits"], small["need_mb"].get<std::uint64_t>() <= 64);
  EXPECT_EQ(large["fits"], false);
  EXPECT_GT(estimate(6, 1024, Json::array({"normal", "ao"}))["texel_bytes"].get<std::uint64_t>(),
            small["texel_bytes"].get<std::uint64_t>());
  Json unknown = make_request(7, "memory.estimate");
  unknown.update(Json{{"size", 64},
                      {"antialias", 1},
                      {"maps", {"normal", "glow"}},
                      {"backend", "cpu"},
                      {"high_triangles", 1}});
  EXPECT_EQ(client.request(unknown)["error"], "memory.estimate: maps: unknown map \"glow\"");

  // A bake of 2048 x 2048 cannot fit in 64 MiB: refused before any work.
  const Json refused = client.request(bake(8, "low", "high", dir / "big.exr", "2048"));
  EXPECT_EQ(refused["ok"], false);
  EXPECT_EQ(refused["code"], "out_of_memory");
  const std::uint64_t need = refused["need_mb"].get<std::uint64_t>();
  EXPECT_GT(need, 64u);
  EXPECT_EQ(refused["limit_mb"], 64);
  EXPECT_TRUE(refused["available_mb"].is_number_unsigned());
  EXPECT_EQ(refused["error"], "bake: not enough memory: the job needs " + std::to_string(need) +
                                  " MiB and the memory budget is 64 MiB");
  EXPECT_FALSE(std::filesystem::exists(dir / "big.exr"));
  // A bake that fits still runs.
  EXPECT_EQ(client.request(bake(9, "low", "high", dir / "small.exr", "64"))["ok"], true);
  EXPECT_EQ(client.finish(), 0);

  // Without the option the budget is taken from the memory free at the
  // start, the same in every reply.
  ServiceClient automatic;
  const std::uint64_t budget =
      automatic.request(make_request(1, "cache.status"))["memory_budget_mb"];
  EXPECT_GT(budget, 0u);
  Json request = make_request(2, "memory.estimate");
  request.update(Json{{"size", 64},
                      {"antialias", 1},
                      {"maps", {"normal"}},
                      {"backend", "cpu"},
                      {"high_triangles", 1}});
  EXPECT_EQ(automatic.request(request)["limit_mb"], budget);
  EXPECT_EQ(automatic.finish(), 0);
}

}  // namespace
}  // namespace kv::test
