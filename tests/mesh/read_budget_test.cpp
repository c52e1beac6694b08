#include "mesh/read_budget.h"

#include <gtest/gtest.h>

#include <string>

#include "mesh/fbx_reader.h"
#include "mesh/gltf_reader.h"
#include "mesh/gltf_test_builder.h"
#include "mesh/mesh_test_util.h"
#include "support/message_of.h"
#include "support/test_support.h"

namespace kv {
namespace {

using test::ScratchDir;

MeshReadOptions limited_to(std::uint64_t bytes) {
  MeshReadOptions options;
  options.memory_limit_bytes = bytes;
  return options;
}

TEST(ReadBudget, TakesFilesWholeAndHoldsTheMeshToTheSmallerOfWhatIsLeftAndTheFilesGrowth) {
  ReadBudget budget(limited_to(1000));
  EXPECT_TRUE(budget.take_file(600));
  EXPECT_FALSE(budget.take_file(401));
  EXPECT_EQ(budget.refusal(401), "401 bytes do not fit in the 400 bytes left of the memory budget");
  EXPECT_TRUE(budget.take_file(400));  // a refused file took nothing
  EXPECT_FALSE(budget.take_file(1));

  // 10 positions, 5 normals and 5 triangles: 120 + 60 + 220 bytes.
  ReadBudget small(limited_to(400));
  MeshEstimate e{10, 0, 5, 5, 0};
  EXPECT_EQ(e.bytes(), 400u);
  EXPECT_NO_THROW(small.check_mesh("m.gltf", e));
  e.working_bytes = 1;
  EXPECT_THROW(small.check_mesh("m.gltf", e), OutOfMemory);  // the memory is short
  EXPECT_EQ(
      test::error_of([&] { small.check_mesh("m.gltf", e); }),
      "m.gltf: the mesh file m.gltf gives 5 triangles and needs about 1 MB; the limit is 0 MB");

  // With room to spare, the files read set the limit: 1024 times their bytes,
  // at least 64 MiB.
  const std::uint64_t mib = std::uint64_t{1} << 20;
  ReadBudget roomy(limited_to(std::uint64_t{1} << 40));
  ASSERT_TRUE(roomy.take_file(1024));
  MeshEstimate at_floor{0, 0, 0, 0, 64 * mib};
  EXPECT_NO_THROW(roomy.check_mesh("m.gltf", at_floor));
  at_floor.working_bytes += 1;
  // Past the growth alone, the file is at fault, not the machine.
  EXPECT_EQ(test::message_of<OutOfMemory>([&] {
              roomy.check_mesh("m.gltf", at_floor);
            }).rfind("wrong type: ", 0),
            0u);
  EXPECT_EQ(test::error_of([&] { roomy.check_mesh("m.gltf", at_floor); }, "m.gltf: "),
            "the mesh file m.gltf gives 0 triangles and needs about 65 MB; the limit is 64 MB");
  ASSERT_TRUE(roomy.take_file(mib - 1024));
  MeshEstimate grown{0, 0, 0, 0, 1024 * mib};
  EXPECT_NO_THROW(roomy.check_mesh("m.gltf", grown));
  grown.working_bytes += 1;
  EXPECT_EQ(test::error_of([&] { roomy.check_mesh("m.gltf", grown); }, "m.gltf: "),
            "the mesh file m.gltf gives 0 triangles and needs about 1025 MB; the limit is 1024 MB");
}

// A quad in a .gltf whose buffer is the file b.bin beside it, placed by
// `nodes` nodes.
std::string quad_with_buffer_file(const ScratchDir& dir, int nodes) {
  test::GltfBuilder b;
  const int p = b.vec3({0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0});
  const int i = b.indices_u32({0, 1, 2, 0, 2, 3});
  b.mesh("Quad", p, -1, -1, i);
  std::vector<int> roots;
  for (int k = 0; k < nodes; ++k) {
    roots.push_back(b.node({{"mesh", 0}, {"name", "n" + std::to_string(k)}}));
  }
  b.scene(roots);
  nlohmann::json doc = b.finished();
  doc["buffers"][0]["uri"] = "b.bin";
  test::write_text_file(dir / "b.bin", b.bin);
  return doc.dump();
}

TEST(ReadBudget, GltfFilesAreSizedBeforeTheyAreReadAndThePlacedMeshBeforeItIsBuilt) {
  ScratchDir dir;
  const std::string text = quad_with_buffer_file(dir, 3);
  test::write_text_file(dir / "q.gltf", text);
  const std::uint64_t files = text.size() + 72;  // 48 bytes of positions, 24 of indices
  const auto read = [&](std::uint64_t limit) {
    return test::error_of([&] { read_gltf(dir / "q.gltf", limited_to(limit)); },
                          (dir / "q.gltf").string() + ": ");
  };
  EXPECT_EQ(read(text.size() - 1),
            "the file's " + std::to_string(text.size()) + " bytes do not fit in the " +
                std::to_string(text.size() - 1) + " bytes left of the memory budget");
  EXPECT_THROW(read_gltf(dir / "q.gltf", limited_to(files - 1)), OutOfMemory);
  const std::string buffer = read(files - 1);
  EXPECT_NE(buffer.find("the buffer file "), std::string::npos) << buffer;
  EXPECT_NE(buffer.find("b.bin: 72 bytes do not fit in the 71 bytes left of the memory budget"),
            std::string::npos)
      << buffer;
  // Three nodes place the quad three times: 6 triangles of 44 bytes, 12
  // positions of 12, and the working arrays of one primitive.
  EXPECT_EQ(read(files + 100), "the mesh file " + (dir / "q.gltf").string() +
                                   " gives 6 triangles and needs about 1 MB; the limit is 0 MB");
  const Mesh mesh = read_gltf(dir / "q.gltf", limited_to(files + 1000));
  EXPECT_EQ(mesh.triangles.size(), 6u);
}

// Two models that share one quad geometry.
const char* const kSharedQuadFbx = R"(; FBX 7.4.0 project file
FBXHeaderExtension:  {
	FBXHeaderVersion: 1003
	FBXVersion: 7400
}
Objects:  {
	Geometry: 1000, "Geometry::quad", "Mesh" {
		Vertices: *12 {
			a: 0,0,0,1,0,0,1,1,0,0,1,0
		}
		PolygonVertexIndex: *4 {
			a: 0,1,2,-4
		}
		GeometryVersion: 124
	}
	Model: 2000, "Model::a", "Mesh" {
		Version: 232
	}
	Model: 2001, "Model::b", "Mesh" {
		Version: 232
	}
}
Connections:  {
	C: "OO",2000,0
	C: "OO",2001,0
	C: "OO",1000,2000
	C: "OO",1000,2001
}
)";

TEST(ReadBudget, FbxFilesAreSizedBeforeTheyAreReadAndSharedMeshesCountedOncePerNode) {
  ScratchDir dir;
  const std::string text = kSharedQuadFbx;
  test::write_text_file(dir / "s.fbx", text);
  const auto read = [&](std::uint64_t limit) {
    return test::error_of([&] { read_fbx(dir / "s.fbx", limited_to(limit)); },
                          (dir / "s.fbx").string() + ": ");
  };
  EXPECT_EQ(read(text.size() - 1),
            "the file's " + std::to_string(text.size()) + " bytes do not fit in the " +
                std::to_string(text.size() - 1) + " bytes left of the memory budget");
  EXPECT_EQ(read(text.size() + 100),
            "the mesh file " + (dir / "s.fbx").string() +
                " gives 4 triangles and needs about 1 MB; the limit is 0 MB");
  const Mesh mesh = read_fbx(dir / "s.fbx", limited_to(text.size() + 1000));
  EXPECT_EQ(mesh.triangles.size(), 4u);
  EXPECT_EQ(mesh.objects, (std::vector<std::string>{"a", "b"}));
}

}  // namespace
}  // namespace kv
