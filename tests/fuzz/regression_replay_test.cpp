// Replays every input that once made a reader fail, and every seed, through the
// harnesses the fuzz targets run: deterministic, no fuzzing here.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "fuzz/harness.h"
#include "fuzz/mesh_check.h"

namespace kv::fuzz {
namespace {

const std::filesystem::path kFuzzDir = std::filesystem::path(KV_SOURCE_DIR) / "fuzz";

std::vector<std::uint8_t> file_bytes(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// "<target>/<file>" of every file in the target folders under `root`.
std::vector<std::string> inputs_under(const std::filesystem::path& root) {
  std::vector<std::string> inputs;
  for (const std::string& target : target_names()) {
    if (!std::filesystem::is_directory(root / target)) {
      continue;
    }
    for (const auto& entry : std::filesystem::directory_iterator(root / target)) {
      inputs.push_back(target + "/" + entry.path().filename().string());
    }
  }
  std::sort(inputs.begin(), inputs.end());
  return inputs;
}

// regressions/outcomes.txt: "<target>/<file>" then a tab and either "read"
// or a text the refusal's message must contain.
std::map<std::string, std::string> expected_outcomes() {
  std::ifstream in(kFuzzDir / "regressions" / "outcomes.txt");
  std::map<std::string, std::string> outcomes;
  std::string line;
  while (std::getline(in, line)) {
    const std::size_t tab = line.find('\t');
    if (line.empty() || line[0] == '#' || tab == std::string::npos) {
      continue;
    }
    outcomes[line.substr(0, tab)] = line.substr(tab + 1);
  }
  return outcomes;
}

// Whether `message` holds one of the texts of `want`, separated by " | ".
bool holds_one_of(const std::string& message, const std::string& want) {
  std::size_t begin = 0;
  for (;;) {
    const std::size_t bar = want.find(" | ", begin);
    if (message.find(want.substr(begin, bar - begin)) != std::string::npos) {
      return true;
    }
    if (bar == std::string::npos) {
      return false;
    }
    begin = bar + 3;
  }
}

Outcome run_file(const std::filesystem::path& root, const std::string& input) {
  const std::vector<std::uint8_t> bytes = file_bytes(root / input);
  return run_target(input.substr(0, input.find('/')), bytes);
}

TEST(FuzzRegressions, EveryInputThatOnceFailedIsReadOrRefusedWithItsOwnMessage) {
  const std::filesystem::path root = kFuzzDir / "regressions";
  const std::vector<std::string> inputs = inputs_under(root);
  const std::map<std::string, std::string> expected = expected_outcomes();
  ASSERT_GE(inputs.size(), 8u);
  std::set<std::string> listed;
  for (const auto& [input, outcome] : expected) {
    if (input.rfind("fbx-contained/", 0) != 0) {
      listed.insert(input);
    }
  }
  for (const std::string& input : inputs) {
    SCOPED_TRACE(input);
    ASSERT_EQ(listed.count(input), 1u) << "outcomes.txt does not list this input";
    listed.erase(input);
    const std::string& want = expected.at(input);
    const Outcome got = run_file(root, input);
    if (want == "read") {
      EXPECT_FALSE(got.refused) << got.message;
    } else {
      EXPECT_TRUE(got.refused);
      EXPECT_TRUE(holds_one_of(got.message, want)) << got.message;
    }
  }
  EXPECT_TRUE(listed.empty()) << "listed but missing: " << *listed.begin();
}

// Inputs that fail inside Assimp take down the process that parses them: they
// are never given to read_fbx here, only to read_mesh (the read_mesh target,
// its first byte naming the file .fbx), which parses FBX in a child process.
// Each is listed in fuzz/README.md with what it does.
TEST(FuzzRegressions, FbxInputsThatFailInsideAssimpAreContainedByTheChildRead) {
  std::ifstream in(kFuzzDir / "README.md");
  const std::string readme{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  const std::map<std::string, std::string> expected = expected_outcomes();
  const std::filesystem::path folder = kFuzzDir / "regressions" / "fbx-contained";
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    const std::string name = entry.path().filename().string();
    SCOPED_TRACE(name);
    EXPECT_NE(readme.find("`" + name + "`"), std::string::npos) << "not listed in the README";
    ASSERT_EQ(expected.count("fbx-contained/" + name), 1u) << "outcomes.txt does not list it";
    std::vector<std::uint8_t> input = {4};
    const std::vector<std::uint8_t> bytes = file_bytes(entry.path());
    input.insert(input.end(), bytes.begin(), bytes.end());
    const Outcome got = run_target("read_mesh", input);
    EXPECT_TRUE(got.refused);
    EXPECT_TRUE(holds_one_of(got.message, expected.at("fbx-contained/" + name))) << got.message;
    ++count;
  }
  EXPECT_GE(count, 4u);
}

TEST(FuzzRegressions, EverySeedIsRead) {
  const std::filesystem::path root = kFuzzDir / "corpus";
  const std::vector<std::string> seeds = inputs_under(root);
  for (const std::string& target : target_names()) {
    EXPECT_TRUE(std::any_of(seeds.begin(), seeds.end(),
                            [&](const std::string& s) { return s.rfind(target + "/", 0) == 0; }))
        << target << " has no seed";
  }
  for (const std::string& seed : seeds) {
    SCOPED_TRACE(seed);
    const Outcome got = run_file(root, seed);
    EXPECT_FALSE(got.refused) << got.message;
  }
}

TEST(FuzzRegressions, TheMeshCheckerNamesEachBrokenRule) {
  Mesh mesh;
  mesh.positions = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}};
  mesh.normals = {{0, 0, 1}};
  Triangle t;
  for (std::uint32_t k = 0; k < 3; ++k) {
    t.corners[k] = Corner{k, -1, 0};
  }
  mesh.triangles = {t};
  mesh.objects = {"a"};
  ASSERT_EQ(mesh_rule_broken(mesh, true), "");

  Mesh bad = mesh;
  bad.triangles[0].corners[2].position = 3;
  EXPECT_EQ(mesh_rule_broken(bad, true), "triangle 0 has a corner index out of range");
  bad = mesh;
  bad.triangles[0].corners[1].uv = -2;
  EXPECT_EQ(mesh_rule_broken(bad, true), "triangle 0 has a corner index out of range");
  bad = mesh;
  bad.normals[0] = {0, 0, 1e-20f};  // its squared length underflows
  EXPECT_EQ(mesh_rule_broken(bad, false), "normal 0 has no direction");
  bad.normals[0] = {0, 0, 2};
  EXPECT_EQ(mesh_rule_broken(bad, false), "");
  EXPECT_EQ(mesh_rule_broken(bad, true), "normal 0 is not of unit length");
  bad = mesh;
  bad.objects = {"a", "a"};
  EXPECT_EQ(mesh_rule_broken(bad, true), "the object name 'a' is not unique");
  bad = mesh;
  bad.triangle_materials = {0};
  EXPECT_EQ(mesh_rule_broken(bad, true), "triangle 0 has a material index out of range");
  bad.materials = {"m"};
  EXPECT_EQ(mesh_rule_broken(bad, true), "");
  bad.triangle_materials = {0, 0};
  EXPECT_EQ(mesh_rule_broken(bad, true),
            "triangle_materials is neither empty nor one per triangle");
  bad = mesh;
  bad.positions[1][0] = std::numeric_limits<float>::infinity();
  EXPECT_EQ(mesh_rule_broken(bad, true), "position 1 is not finite");
  bad = mesh;
  bad.triangles[0].object = 1;
  EXPECT_EQ(mesh_rule_broken(bad, true), "triangle 0 has an object index out of range");
  bad = mesh;
  bad.objects = {std::string(65537, 'x')};
  EXPECT_EQ(mesh_rule_broken(bad, true), "an object name is longer than 65536 bytes");
}

TEST(FuzzRegressions, AnUnknownTargetIsNotSilentlyPassed) {
  const std::vector<std::uint8_t> bytes = {1, 2, 3};
  EXPECT_THROW(run_target("nonsense", bytes), std::invalid_argument);
}

}  // namespace
}  // namespace kv::fuzz
