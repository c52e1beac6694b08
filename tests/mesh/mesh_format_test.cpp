#include "mesh/mesh_format.h"

#include <gtest/gtest.h>

#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "mesh/fbx_test_scene.h"
#include "mesh/gltf_test_builder.h"
#include "mesh/kvm_file.h"
#include "mesh/mesh_test_util.h"
#include "support/address_space_limit.h"
#include "support/message_of.h"
#include "support/test_support.h"

namespace kv {
namespace {

using test::ScratchDir;

const std::string kMagic("KVMESH1\0", 8);

MeshFormat sniff_bytes(const ScratchDir& dir, const std::string& name, const std::string& bytes) {
  test::write_text_file(dir / name, bytes);
  return sniff_mesh_format(dir / name);
}

TEST(MeshFormat, SniffsContentThenExtensionThenContent) {
  ScratchDir dir;
  // The .kvm magic wins over any extension.
  EXPECT_EQ(sniff_bytes(dir, "x.obj", kMagic + "rest"), MeshFormat::Kvm);
  EXPECT_EQ(sniff_bytes(dir, "x.glb", kMagic), MeshFormat::Kvm);
  EXPECT_EQ(sniff_bytes(dir, "short.kvm", "KVMESH1"), MeshFormat::Obj);
  EXPECT_EQ(sniff_bytes(dir, "space.kvm", "KVMESH1 "), MeshFormat::Obj);
  EXPECT_EQ(sniff_bytes(dir, "x.kvm", "v 0 0 0\n"), MeshFormat::Obj);
  // Extensions, in any case.
  EXPECT_EQ(sniff_bytes(dir, "a.GLB", "v 0 0 0\n"), MeshFormat::Gltf);
  EXPECT_EQ(sniff_bytes(dir, "a.glTF", ""), MeshFormat::Gltf);
  EXPECT_EQ(sniff_bytes(dir, "a.FbX", "; FBX 7.4.0 project file"), MeshFormat::Fbx);
  EXPECT_EQ(sniff_bytes(dir, ".glb", "v 0 0 0\n"), MeshFormat::Gltf);
  EXPECT_EQ(sniff_bytes(dir, "a.fbx.obj", "v 0 0 0\n"), MeshFormat::Obj);
  // Signatures when the extension says nothing.
  EXPECT_EQ(sniff_bytes(dir, "noext", "glTF"), MeshFormat::Gltf);
  EXPECT_EQ(sniff_bytes(dir, "x.kvm", "glTF\x02"), MeshFormat::Gltf);
  EXPECT_EQ(sniff_bytes(dir, "three", "glT"), MeshFormat::Obj);
  EXPECT_EQ(sniff_bytes(dir, "b.mesh", "Kaydara FBX Binary"), MeshFormat::Fbx);
  EXPECT_EQ(sniff_bytes(dir, "c.mesh", std::string("Kaydara FBX Binary  \0\x1a\0", 23)),
            MeshFormat::Fbx);
  EXPECT_EQ(sniff_bytes(dir, "d.mesh", "Kaydara FBX Binar"), MeshFormat::Obj);
  EXPECT_EQ(sniff_bytes(dir, "e.mesh", "kaydara FBX Binary"), MeshFormat::Obj);
  // Files that cannot be read go to the OBJ reader, which names the problem.
  EXPECT_EQ(sniff_mesh_format(dir / "missing"), MeshFormat::Obj);
  EXPECT_EQ(sniff_mesh_format(dir / "missing.glb"), MeshFormat::Gltf);
  std::filesystem::create_directories(dir / "folder.fbx.d");
  EXPECT_EQ(sniff_mesh_format(dir / "folder.fbx.d"), MeshFormat::Obj);
  // Only the last component has an extension; "." and ".." have none.
  std::filesystem::create_directories(dir / "model.glb");
  test::write_text_file(dir / "model.glb" / "plain", "v 0 0 0\n");
  EXPECT_EQ(sniff_mesh_format(dir / "model.glb" / "plain"), MeshFormat::Obj);
  EXPECT_EQ(sniff_mesh_format(dir / "model.glb" / ".."), MeshFormat::Obj);
  EXPECT_EQ(sniff_mesh_format("dir.fbx/."), MeshFormat::Obj);
  EXPECT_EQ(sniff_mesh_format("dir.obj\\x.GLTF"), MeshFormat::Gltf);
}

TEST(MeshFormat, ReadMeshDispatchesAndFillsTheCounters) {
  ScratchDir dir;
  const std::string obj = "o Plate\nv 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nusemtl paint\nf 1 2 3 4\n";
  test::write_text_file(dir / "plate.kvm", obj);  // named .kvm, but OBJ text
  MeshStats stats;
  Mesh from_obj = read_mesh(dir / "plate.kvm", MeshReadOptions{}, &stats);
  EXPECT_EQ(stats.quads_split, 1u);
  EXPECT_EQ(from_obj.triangles.size(), 2u);
  EXPECT_EQ(from_obj.objects, std::vector<std::string>{"Plate"});

  write_kvm(dir / "plate.bin", from_obj, kKvmUvDouble | kKvmNormalsAsIs);
  EXPECT_EQ(sniff_mesh_format(dir / "plate.bin"), MeshFormat::Kvm);
  const Mesh from_kvm = read_mesh(dir / "plate.bin", MeshReadOptions{}, &stats);
  EXPECT_EQ(stats.quads_split, 0u);
  EXPECT_EQ(from_kvm.positions, from_obj.positions);
  EXPECT_TRUE(from_kvm.materials.empty());

  MeshReadOptions reject;
  reject.quads = QuadPolicy::reject;
  EXPECT_EQ(test::error_of([&] { read_mesh(dir / "plate.kvm", reject); },
                           (dir / "plate.kvm").string() + ": "),
            "quad face, but quads are set to be rejected; triangulate the mesh before export");
  // A .kvm file refused by its reader keeps the reader's message.
  test::write_text_file(dir / "bad.obj", kMagic + std::string(48, '\0'));
  EXPECT_EQ(test::error_of([&] { read_mesh(dir / "bad.obj", MeshReadOptions{}); }),
            (dir / "bad.obj").string() + ": unsupported .kvm version 0");
  EXPECT_THROW(read_mesh(dir / "absent.obj", MeshReadOptions{}), Error);
}

// The same two-object mesh written as OBJ, glTF and FBX.
const std::vector<std::array<float, 3>> kPositions = {{0, 0, 0}, {1, 0, 0},    {1, 1, 0},
                                                      {0, 1, 0}, {2, 0, 0.5f}, {3, 0.25f, 1}};
const std::vector<std::array<float, 3>> kNormals = {{0, 0.6f, 0.8f}, {0, 0, 1}, {0.6f, 0, 0.8f},
                                                    {0, 0, 1},       {1, 2, 2}, {0, -1, 0}};
const std::vector<std::array<float, 2>> kUvs = {{0, 0},    {0.5f, 0},       {0.5f, 0.5f},
                                                {0, 0.5f}, {0.75f, 0.125f}, {1, 0.25f}};

template <std::size_t N>
std::string line_of(const char* tag, const std::array<float, N>& values) {
  std::string out = tag;
  for (float v : values) {
    out += " " + std::to_string(v);
  }
  return out + "\n";
}

std::string as_obj() {
  std::string text = "mtllib parts.mtl\n";
  for (std::size_t i = 0; i < kPositions.size(); ++i) {
    text += line_of("v", kPositions[i]) + line_of("vn", kNormals[i]) + line_of("vt", kUvs[i]);
  }
  return text + "o Plate\nusemtl paint\nf 1/1/1 2/2/2 3/3/3 4/4/4\n" +
         "o Spike\nusemtl metal\nf 2/2/2 5/5/5 6/6/6\n";
}

std::string as_gltf() {
  test::GltfBuilder b;
  std::vector<float> p, n, t;
  for (std::size_t i = 0; i < kPositions.size(); ++i) {
    p.insert(p.end(), kPositions[i].begin(), kPositions[i].end());
    n.insert(n.end(), kNormals[i].begin(), kNormals[i].end());
    t.insert(t.end(), {kUvs[i][0], 1.0f - kUvs[i][1]});  // glTF's v runs downwards
  }
  const int pa = b.vec3(p), na = b.vec3(n), ta = b.vec2(t);
  b.doc["materials"] = {{{"name", "paint"}}, {{"name", "metal"}}};
  // The quad as the two triangles of the face rule.
  b.mesh("PlateMesh", pa, na, ta, b.indices_u32({0, 1, 3, 1, 2, 3}), 4, 0);
  b.mesh("SpikeMesh", pa, na, ta, b.indices_u32({1, 4, 5}), 4, 1);
  b.scene({b.node({{"name", "Plate"}, {"mesh", 0}}), b.node({{"name", "Spike"}, {"mesh", 1}})});
  return b.glb_bytes();
}

std::vector<test::FbxPart> as_fbx() {
  auto part = [&](const char* name, const char* material, std::vector<unsigned> corners) {
    test::FbxPart p;
    p.name = name;
    p.material = material;
    p.faces = {{}};
    for (unsigned i : corners) {
      p.positions.push_back(kPositions[i]);
      p.normals.push_back(kNormals[i]);
      p.uvs.push_back(kUvs[i]);
      p.faces[0].push_back(static_cast<unsigned>(p.faces[0].size()));
    }
    return p;
  };
  return {part("Plate", "paint", {0, 1, 2, 3}), part("Spike", "metal", {1, 4, 5})};
}

void expect_same_corners(const Mesh& a, const Mesh& b, double tolerance) {
  ASSERT_EQ(a.triangles.size(), b.triangles.size());
  EXPECT_EQ(a.objects, b.objects);
  EXPECT_EQ(a.materials, b.materials);
  EXPECT_EQ(a.triangle_materials, b.triangle_materials);
  for (std::size_t t = 0; t < a.triangles.size(); ++t) {
    EXPECT_EQ(a.triangles[t].object, b.triangles[t].object);
    for (std::size_t k = 0; k < 3; ++k) {
      SCOPED_TRACE("triangle " + std::to_string(t) + " corner " + std::to_string(k));
      const Corner& ca = a.triangles[t].corners[k];
      const Corner& cb = b.triangles[t].corners[k];
      EXPECT_EQ(a.positions[ca.position], b.positions[cb.position]);
      ASSERT_TRUE(ca.uv >= 0 && cb.uv >= 0 && ca.normal >= 0 && cb.normal >= 0);
      for (int i = 0; i < 2; ++i) {
        EXPECT_NEAR(a.uvs[ca.uv][i], b.uvs[cb.uv][i], tolerance);
      }
      for (int i = 0; i < 3; ++i) {
        EXPECT_NEAR(a.normals[ca.normal][i], b.normals[cb.normal][i], tolerance);
      }
    }
  }
}

TEST(MeshFormat, OneMeshReadsAlikeFromObjGltfAndFbx) {
  ScratchDir dir;
  test::write_text_file(dir / "parts.obj", as_obj());
  test::write_text_file(dir / "parts.glb", as_gltf());
  ASSERT_EQ(test::write_fbx(as_fbx(), dir / "parts.fbx"), "");
  MeshStats obj_stats, fbx_stats;
  const Mesh obj = read_mesh(dir / "parts.obj", MeshReadOptions{}, &obj_stats);
  const Mesh gltf = read_mesh(dir / "parts.glb", MeshReadOptions{});
  const Mesh fbx = read_mesh(dir / "parts.fbx", MeshReadOptions{}, &fbx_stats);
  EXPECT_EQ(obj_stats.quads_split, 1u);
  EXPECT_EQ(fbx_stats.quads_split, 1u);
  EXPECT_EQ(obj.objects, (std::vector<std::string>{"Plate", "Spike"}));
  // Float rounding only: the OBJ text holds six decimals, glTF float32 and
  // its v turned around in float64.
  expect_same_corners(obj, gltf, 1e-6);
  expect_same_corners(obj, fbx, 1e-6);
  // glTF and the OBJ normalise float32 normals the same way, bit for bit.
  const Corner& c = gltf.triangles[2].corners[2];
  EXPECT_EQ(gltf.normals[c.normal], obj.normals[obj.triangles[2].corners[2].normal]);
}

TEST(MeshFormat, WarningLineAndUniqueNames) {
  EXPECT_EQ(inexact_polygons_warning(3, "dir/high.obj"),
            "korvane: warning: 3 faces of dir/high.obj could not be triangulated exactly\n");
  UniqueNames names;
  EXPECT_EQ(names.make_unique("a"), "a");
  EXPECT_EQ(names.make_unique("a.1"), "a.1");
  EXPECT_EQ(names.make_unique("a"), "a.2");
  EXPECT_EQ(names.make_unique("a"), "a.3");
  EXPECT_EQ(names.make_unique(""), "");
  EXPECT_EQ(names.make_unique(""), ".1");
}

TEST(ReadMesh, RunningOutOfMemoryNamesTheFile) {
  ScratchDir dir;
  const auto path = dir / "huge.obj";  // the .kvm content decides the reader
  test::write_oversized_kvm(path);
  {
    // With 1 GiB of address space to spare, the positions cannot be mapped.
    const test::AddressSpaceLimit limit(std::uint64_t{1} << 30);
    ASSERT_TRUE(limit.applied());
    EXPECT_EQ(test::message_of<OutOfMemory>([&] { read_mesh(path, {}); }),
              path.string() + ": out of memory while reading the mesh");
  }

  // A container asked for an impossible size is the same shortage; the
  // reader's own errors, its own OutOfMemory included, keep their messages.
  const std::string named = path.string() + ": out of memory while reading the mesh";
  const auto through = [&](auto fail) {
    return test::message_of<OutOfMemory>([&] { naming_memory_failures(path, fail); });
  };
  EXPECT_EQ(through([] { std::vector<double>().reserve(std::vector<double>().max_size() + 1); }),
            named);
  EXPECT_EQ(through([] { throw OutOfMemory("out of memory for the scene"); }),
            "out of memory for the scene");
  // A plain Error stays one.
  EXPECT_EQ(through([] { throw Error("mesh has no faces"); }), "wrong type: mesh has no faces");
}

}  // namespace
}  // namespace kv
