#include "mesh/gltf_reader.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>

#include "mesh/gltf_test_builder.h"
#include "mesh/mesh_test_util.h"
#include "support/test_support.h"

namespace kv {
namespace {

using nlohmann::json;
using test::GltfBuilder;
using test::ScratchDir;

Mesh read_text(const ScratchDir& dir, const std::string& bytes, const std::string& name) {
  test::write_text_file(dir / name, bytes);
  return read_gltf(dir / name, MeshReadOptions{});
}

// The message of the refusal, less the path ("" when read).
std::string refusal(const std::string& bytes, const std::string& name = "m.gltf") {
  ScratchDir dir;
  test::write_text_file(dir / name, bytes);
  return test::error_of([&] { read_gltf(dir / name, MeshReadOptions{}); },
                        (dir / name).string() + ": ");
}

const std::vector<float> kQuad = {0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0};

// A unit quad in the xy plane as two indexed triangles, with normals and UVs.
GltfBuilder quad_scene(const json& node) {
  GltfBuilder b;
  const int p = b.vec3(kQuad);
  const int n = b.vec3({0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1});
  const int t = b.vec2({0, 0, 1, 0, 1, 0.25f, 0, 1});
  const int i = b.indices_u32({0, 1, 2, 0, 2, 3});
  b.doc["materials"] = json::array({{{"name", "paint"}}});
  b.mesh("QuadMesh", p, n, t, i, 4, 0);
  json with_mesh = node;
  with_mesh["mesh"] = 0;
  b.scene({b.node(with_mesh)});
  return b;
}

TEST(GltfReader, PlacesVerticesByTheNodeAndTurnsVToTheObjConvention) {
  ScratchDir dir;
  const GltfBuilder b =
      quad_scene({{"name", "Quad"}, {"translation", {10, 0, 0}}, {"scale", {2, 2, 2}}});
  MeshStats stats;
  stats.quads_split = 7;
  test::write_text_file(dir / "q.gltf", b.gltf_text());
  const Mesh m = read_gltf(dir / "q.gltf", MeshReadOptions{}, &stats);
  EXPECT_EQ(stats.quads_split, 0u);
  EXPECT_EQ(m.positions,
            (LargeArray<std::array<float, 3>>{{10, 0, 0}, {12, 0, 0}, {12, 2, 0}, {10, 2, 0}}));
  EXPECT_EQ(m.uvs, (LargeArray<std::array<double, 2>>{{0, 1}, {1, 1}, {1, 0.75}, {0, 0}}));
  EXPECT_EQ(m.normals, (LargeArray<std::array<float, 3>>(4, {0, 0, 1})));
  ASSERT_EQ(m.triangles.size(), 2u);
  const auto& c = m.triangles[1].corners;
  EXPECT_EQ(std::tuple(c[0].position, c[1].position, c[2].position, c[2].uv, c[2].normal),
            std::tuple(0u, 2u, 3u, 3, 3));
  EXPECT_EQ(m.objects, std::vector<std::string>{"Quad"});
  EXPECT_EQ(m.materials, std::vector<std::string>{"paint"});
  EXPECT_EQ(m.triangle_materials, (LargeArray<std::uint32_t>{0, 0}));

  // The same document as .glb, and with the buffer in a file beside it.
  test::expect_same_mesh(read_text(dir, b.glb_bytes(), "q.glb"), m);
  test::write_text_file(dir / "q.bin", b.bin);
  json external = b.finished();
  external["buffers"][0]["uri"] = "q.bin";
  test::expect_same_mesh(read_text(dir, external.dump(), "external.gltf"), m);
}

TEST(GltfReader, WalksTheSceneDepthFirstAndNamesObjectsUniquely) {
  ScratchDir dir;
  GltfBuilder b;
  const int p = b.vec3({1, 0, 0, 0, 1, 0, 0, 0, 1});
  b.mesh("Part", p);
  b.mesh("", p);
  const double h = std::sqrt(0.5);
  const int child = b.node({{"mesh", 0}, {"rotation", {0, 0, h, h}}});
  const int body =
      b.node({{"name", "Body"}, {"mesh", 0}, {"translation", {0, 0, 5}}, {"children", {child}}});
  const int body2 = b.node({{"name", "Body"}, {"mesh", 1}});
  const int anonymous = b.node({{"mesh", 1}});
  const int empty = b.node({{"name", "Empty"}});  // no mesh: no object
  b.scene({body, empty, body2, anonymous});
  const Mesh m = read_text(dir, b.gltf_text(), "s.gltf");
  EXPECT_EQ(m.objects, (std::vector<std::string>{"Body", "Part", "Body.1", "node 3"}));
  ASSERT_EQ(m.triangles.size(), 4u);
  for (std::uint32_t t = 0; t < 4; ++t) {
    EXPECT_EQ(m.triangles[t].object, t);
  }
  // The child: rotated a quarter turn about z, then lifted by its parent.
  const auto& rotated = m.positions[m.triangles[1].corners[0].position];
  for (int i = 0; i < 3; ++i) {
    EXPECT_NEAR(rotated[i], (std::array<float, 3>{0, 1, 5})[i], 1e-7f) << i;
  }
  EXPECT_EQ(m.positions[m.triangles[0].corners[2].position], (std::array<float, 3>{0, 0, 6}));
  EXPECT_EQ(m.materials, std::vector<std::string>{"default"});
  EXPECT_TRUE(m.uvs.empty());
  EXPECT_EQ(std::pair(m.triangles[2].corners[0].uv, m.triangles[2].corners[0].normal),
            std::pair(-1, -1));

  // A matrix given column by column places like the equivalent TRS.
  GltfBuilder mb;
  mb.mesh("M", mb.vec3({1, 2, 3, 0, 0, 0, 0, 1, 0}));
  mb.scene({mb.node({{"mesh", 0}, {"matrix", {2, 0, 0, 0, 0, 3, 0, 0, 0, 0, 4, 0, 7, 8, 9, 1}}})});
  const Mesh mm = read_text(dir, mb.gltf_text(), "matrix.gltf");
  EXPECT_EQ(mm.positions[0], (std::array<float, 3>{9, 14, 21}));
}

TEST(GltfReader, NormalsFollowTheInverseTransposeAndMirrorsKeepFacesOutward) {
  ScratchDir dir;
  for (const bool mirror : {false, true}) {
    SCOPED_TRACE(mirror);
    GltfBuilder b;
    const int p = b.vec3({0, 0, 0, 1, 0, 0, 0, 1, 0});
    const float r = std::sqrt(0.5f);
    const int n = b.vec3({r, r, 0, r, r, 0, 0, 0, 1});
    b.mesh("Tri", p, n);
    b.scene({b.node({{"mesh", 0}, {"scale", {mirror ? -2 : 2, 1, 1}}})});
    const Mesh m = read_text(dir, b.gltf_text(), "n.gltf");
    const float sign = mirror ? -1.0f : 1.0f;
    // (1, 1, 0) scaled by (1/2, 1, 1): direction (1, 2, 0) / sqrt(5).
    EXPECT_NEAR(m.normals[0][0], sign * 1.0f / std::sqrt(5.0f), 1e-6f);
    EXPECT_NEAR(m.normals[0][1], 2.0f / std::sqrt(5.0f), 1e-6f);
    EXPECT_EQ(m.normals[2], (std::array<float, 3>{0, 0, 1}));
    // A mirror swaps two corners, whole, so the face still points along +z.
    const auto& c = m.triangles[0].corners;
    EXPECT_EQ(std::tuple(c[0].position, c[1].position, c[2].position, c[1].normal),
              mirror ? std::tuple(0u, 2u, 1u, 2) : std::tuple(0u, 1u, 2u, 1));
  }
}

TEST(GltfReader, ReadsEveryComponentTypeStridesAndSparseAccessors) {
  ScratchDir dir;
  GltfBuilder b;
  // Quantized positions: normalized shorts and plain unsigned bytes; UVs as
  // normalized unsigned bytes and shorts; 8- and 16-bit indices.
  const int shorts = b.values<std::int16_t>({32767, 0, -32768, 0, -32767, 16384, 0, 0, 0},
                                            test::kShort, "VEC3", 3, true);
  const int bytes = b.values<std::uint8_t>({3, 0, 0, 0, 7, 0, 0, 0, 0}, test::kUByte, "VEC3", 3);
  const int uv8 = b.values<std::uint8_t>({255, 51, 0, 255, 0, 0}, test::kUByte, "VEC2", 2, true);
  const int uv16 =
      b.values<std::uint16_t>({65535, 0, 13107, 65535, 0, 0}, test::kUShort, "VEC2", 2, true);
  // Positions and normals interleaved in one view with a 24-byte stride.
  const int inter =
      b.view(GltfBuilder::pack<float>({0, 0, 0, 0, 0, 1, 4, 0, 0, 0, 0, 1, 0, 4, 0, 0, 0, 1}), 24);
  b.mesh("A", shorts, -1, uv8, b.values<std::uint8_t>({2, 1, 0}, test::kUByte, "SCALAR", 1));
  b.mesh("B", bytes, -1, uv16, b.values<std::uint16_t>({0, 2, 1}, test::kUShort, "SCALAR", 1));
  b.mesh("C", b.accessor(inter, test::kFloat, "VEC3", 3),
         b.accessor(inter, test::kFloat, "VEC3", 3, 12));
  b.scene_of_meshes();
  const Mesh m = read_text(dir, b.gltf_text(), "types.gltf");
  using Positions = LargeArray<std::array<float, 3>>;
  const float h = static_cast<float>(16384 / 32767.0);
  EXPECT_EQ(m.positions, (Positions{{1, 0, -1},
                                    {0, -1, h},
                                    {0, 0, 0},
                                    {3, 0, 0},
                                    {0, 7, 0},
                                    {0, 0, 0},
                                    {0, 0, 0},
                                    {4, 0, 0},
                                    {0, 4, 0}}));
  EXPECT_EQ(m.normals.size(), 3u);
  EXPECT_EQ(m.normals[1], (std::array<float, 3>{0, 0, 1}));
  EXPECT_EQ(m.uvs[0], (std::array<double, 2>{1, 1 - 51 / 255.0}));
  EXPECT_EQ(m.uvs[4], (std::array<double, 2>{13107 / 65535.0, 0}));
  EXPECT_EQ(m.triangles[0].corners[0].position, 2u);
  EXPECT_EQ(m.triangles[1].corners[1].position, 5u);
  EXPECT_EQ(m.triangles[2].corners[2].normal, 2);

  // Sparse: one substituted element over a view, and over implicit zeros.
  GltfBuilder s;
  const int base = s.vec3({0, 0, 0, 1, 0, 0, 0, 1, 0});
  const int sparse_indices = s.view(GltfBuilder::pack<std::uint16_t>({2, 0}));
  const int sparse_values = s.view(GltfBuilder::pack<float>({5, 5, 5, 6, 6, 6}));
  json sparse = {{"count", 1},
                 {"indices", {{"bufferView", sparse_indices}, {"componentType", test::kUShort}}},
                 {"values", {{"bufferView", sparse_values}}}};
  s.doc["accessors"][base]["sparse"] = sparse;
  const int zeros = s.accessor(-1, test::kFloat, "VEC3", 3);
  sparse["count"] = 2;
  s.doc["accessors"][zeros]["sparse"] = sparse;
  s.mesh("S", base);
  s.mesh("Z", zeros);
  s.scene_of_meshes();
  const Mesh sm = read_text(dir, s.gltf_text(), "sparse.gltf");
  EXPECT_EQ(sm.positions,
            (Positions{{0, 0, 0}, {1, 0, 0}, {5, 5, 5}, {6, 6, 6}, {0, 0, 0}, {5, 5, 5}}));
}

TEST(GltfReader, UnrollsStripsAndFansAndSkipsPointsAndLines) {
  ScratchDir dir;
  GltfBuilder b;
  const int p = b.vec3({0, 0, 0, 1, 0, 0, 0, 1, 0, 1, 1, 0, 2, 1, 0});
  b.mesh("Strip", p, -1, -1, -1, 5);
  b.mesh("Fan", p, -1, -1, -1, 6);
  b.mesh("Lines", p, -1, -1, -1, 1);
  b.mesh("Points", p, -1, -1, -1, 0);
  // A strip joined by a repeated vertex: the degenerate joints are dropped.
  b.mesh("Joined", p, -1, -1, b.indices_u32({0, 1, 2, 2, 2, 3, 4}), 5);
  b.scene_of_meshes();
  const Mesh m = read_text(dir, b.gltf_text(), "strip.gltf");
  auto corners = [&](std::size_t t) {
    const auto& c = m.triangles[t].corners;
    // Local vertex numbers within the primitive (5 vertices each).
    return std::array<std::uint32_t, 3>{c[0].position % 5, c[1].position % 5, c[2].position % 5};
  };
  ASSERT_EQ(m.triangles.size(), 3u + 3u + 2u);
  const std::vector<std::array<std::uint32_t, 3>> expected = {
      {0, 1, 2}, {1, 3, 2}, {2, 3, 4}, {1, 2, 0}, {2, 3, 0}, {3, 4, 0}, {0, 1, 2}, {2, 3, 4}};
  for (std::size_t t = 0; t < expected.size(); ++t) {
    EXPECT_EQ(corners(t), expected[t]) << t;
  }
  EXPECT_EQ(m.objects, (std::vector<std::string>{"Strip", "Fan", "Joined"}));
}

// The JSON text with a raw `"name": value` member added to its top-level
// object, so that it can hold more than nlohmann::json would.
std::string with_member(const std::string& json_text, const std::string& member) {
  return json_text.substr(0, json_text.size() - 1) + "," + member + "}";
}

TEST(GltfReader, RefusesJsonNestedDeeperThanItsLimitBeforeParsingIt) {
  const GltfBuilder b = quad_scene({{"name", "Q"}});
  // Extras of `levels` nested arrays, one level below the document's object.
  auto nested = [](std::size_t levels) {
    return std::string(levels, '[') + std::string(levels, ']');
  };
  const std::string too_deep = "the file's JSON nests deeper than 512 levels";
  for (const std::size_t levels : {std::size_t{512}, std::size_t{100000}}) {
    SCOPED_TRACE(levels);
    const std::string member = "\"extras\":" + nested(levels);
    EXPECT_EQ(refusal(with_member(b.gltf_text(), member)), too_deep);
    EXPECT_EQ(refusal(GltfBuilder::glb(with_member(b.finished().dump(), member), b.bin), "m.glb"),
              too_deep);
  }
  EXPECT_EQ(refusal(with_member(b.gltf_text(), "\"extras\":" + nested(511))), "");

  // Brackets in strings do not nest; an escaped quote does not end a string,
  // an escaped backslash before a quote does.
  const std::string brackets(1000, '[');
  EXPECT_EQ(refusal(with_member(b.gltf_text(), "\"extras\":\"" + brackets + "\"")), "");
  EXPECT_EQ(refusal(with_member(b.gltf_text(), "\"extras\":\"\\\"" + brackets + "\"")), "");
  EXPECT_EQ(refusal(with_member(b.gltf_text(), "\"extras\":[\"\\\\\"," + nested(600) + "]")),
            too_deep);
}

TEST(GltfReader, ChecksEveryAccessorCountAgainstItsBytesBeforeAllocating) {
  const std::uint64_t peak_before = platform::peak_resident_bytes();
  const std::string quad = "mesh 'QuadMesh' primitive 0 ";
  const std::string positions = "accessor 0 (" + quad + "POSITION)";
  auto without_view = [](GltfBuilder& b, int accessor, std::uint64_t count) {
    b.doc["accessors"][accessor].erase("bufferView");
    b.doc["accessors"][accessor]["count"] = count;
  };
  using Change = std::function<void(GltfBuilder&)>;
  const std::vector<std::pair<Change, std::string>> cases = {
      // Without a buffer view the elements are zeros no byte backs: a count
      // of 2^31 - 1 would ask for 48 GiB of values.
      {[&](GltfBuilder& b) { without_view(b, 0, 2147483647); },
       positions + " has 2147483647 elements without a buffer view; at most 16777216 are read " +
           "that way"},
      {[&](GltfBuilder& b) { without_view(b, 0, 16777217); },
       positions + " has 16777217 elements without a buffer view; at most 16777216 are read " +
           "that way"},
      {[](GltfBuilder& b) { b.doc["accessors"][3]["count"] = 4294967296; },
       "accessor 3 (" + quad + "indices) has too many elements"},
      // Counts unlike the positions' are refused before being read.
      {[&](GltfBuilder& b) { without_view(b, 1, 16777216); },
       quad + "has 16777216 normals for 4 positions"},
      {[&](GltfBuilder& b) { without_view(b, 2, 16777216); },
       quad + "has 16777216 texture coordinates for 4 positions"},
      // With a view: the last element's end, by count, stride and offset.
      {[](GltfBuilder& b) { b.doc["accessors"][0]["count"] = 2147483647; },
       positions + " reads past the end of buffer view 0"},
      {[](GltfBuilder& b) { b.doc["accessors"][0]["count"] = 5; },
       positions + " reads past the end of buffer view 0"},
      {[](GltfBuilder& b) { b.doc["bufferViews"][0]["byteStride"] = 16; },
       positions + " reads past the end of buffer view 0"},
      {[](GltfBuilder& b) { b.doc["accessors"][0]["byteOffset"] = 4; },
       positions + " reads past the end of buffer view 0"},
      {[](GltfBuilder& b) { b.doc["bufferViews"][3]["byteOffset"] = b.bin.size() - 20; },
       "buffer view 3 lies past the end of buffer 0"},
  };
  for (const auto& [change, message] : cases) {
    SCOPED_TRACE(message);
    GltfBuilder b = quad_scene({{"name", "Q"}});
    change(b);
    EXPECT_EQ(refusal(b.gltf_text()), message);
    EXPECT_EQ(refusal(b.glb_bytes(), "m.glb"), message);
  }
  // Nothing was sized by a count before the refusal (2^24 normals alone
  // would have been 384 MiB).
  EXPECT_LT(platform::peak_resident_bytes(), peak_before + (std::uint64_t{128} << 20));
}

TEST(GltfReader, CountsTheElementsOfEveryPlacedNodeBeforeReadingAny) {
  const std::uint64_t peak_before = platform::peak_resident_bytes();
  // 2^24 - 1 positions (a whole number of triangles), as zeros, placed by
  // 128 roots and one child: one node more than the limit allows, found only
  // by walking into the children.
  GltfBuilder zeros;
  zeros.bin = std::string(4, '\0');  // the parser wants a buffer, used or not
  zeros.mesh("Zeros", zeros.accessor(-1, test::kFloat, "VEC3", (std::size_t{1} << 24) - 1));
  std::vector<int> roots;
  for (int i = 0; i < 128; ++i) {
    roots.push_back(zeros.node({{"mesh", 0}}));
  }
  zeros.doc["nodes"][0]["children"] = {zeros.node({{"mesh", 0}})};
  zeros.scene(roots);
  const std::string too_many = "mesh has more than 2147483647 ";
  EXPECT_EQ(refusal(zeros.gltf_text()), too_many + "vertex positions");
  EXPECT_EQ(refusal(zeros.glb_bytes(), "m.glb"), too_many + "vertex positions");

  // Counts that would wrap around when added up.
  GltfBuilder wrap;
  wrap.bin = zeros.bin;
  wrap.mesh("Wrap", wrap.accessor(-1, test::kFloat, "VEC3", std::size_t{1} << 63));
  wrap.scene({wrap.node({{"mesh", 0}}), wrap.node({{"mesh", 0}})});
  EXPECT_EQ(refusal(wrap.gltf_text()), too_many + "vertex positions");

  // Triangles: 1024 of them over three vertices in each of 256 primitives,
  // the mesh placed by 8192 nodes.
  GltfBuilder tris;
  const int p = tris.vec3({0, 0, 0, 1, 0, 0, 0, 1, 0});
  std::vector<std::uint8_t> corners(3072);
  for (std::size_t i = 0; i < corners.size(); ++i) {
    corners[i] = static_cast<std::uint8_t>(i % 3);
  }
  tris.mesh("Tris", p, -1, -1, tris.values(corners, test::kUByte, "SCALAR", 1));
  for (int i = 1; i < 256; ++i) {
    tris.doc["meshes"][0]["primitives"].push_back(tris.doc["meshes"][0]["primitives"][0]);
  }
  tris.scene(std::vector<int>(1, tris.node({{"mesh", 0}})));
  for (int i = 1; i < 8192; ++i) {
    tris.doc["scenes"][0]["nodes"].push_back(tris.node({{"mesh", 0}}));
  }
  EXPECT_EQ(refusal(tris.glb_bytes(), "m.glb"), too_many + "triangles");

  // Vertices are read, and counted, even when their faces come to nothing.
  zeros.doc["meshes"][0]["primitives"][0]["indices"] =
      zeros.values<std::uint8_t>({0, 1}, test::kUByte, "SCALAR", 1);
  EXPECT_EQ(refusal(zeros.gltf_text()), too_many + "vertex positions");

  // Points and lines place no elements, however many.
  zeros.doc["meshes"][0]["primitives"][0]["mode"] = 1;
  EXPECT_EQ(refusal(zeros.gltf_text()), "mesh has no faces");

  EXPECT_LT(platform::peak_resident_bytes(), peak_before + (std::uint64_t{128} << 20));
}

TEST(GltfReader, RefusesNodesThatAreTheirOwnAncestorsOrShared) {
  const std::string twice = " appears twice in the node hierarchy";
  using Change = std::function<void(GltfBuilder&)>;
  const std::vector<std::pair<Change, std::string>> cases = {
      {[](GltfBuilder& b) {
         b.doc["nodes"][0]["children"] = {b.node({{"children", {0}}})};
       },
       "node 0" + twice},
      {[](GltfBuilder& b) {
         const int inner = b.node({{"mesh", 0}});
         b.doc["nodes"][0]["children"] = {b.node({{"children", {inner}}})};
         b.doc["nodes"][inner]["children"] = {1};
       },
       "node 1" + twice},
      {[](GltfBuilder& b) {
         const int shared = b.node({{"name", "Shared"}});
         b.doc["nodes"][0]["children"] = {shared, shared};
       },
       "node 1" + twice},
      // Without a scene the roots are the nodes nobody lists as a child: a
      // cycle below a root is walked into, a cycle alone has no root.
      {[](GltfBuilder& b) {
         b.doc.erase("scenes");
         b.doc.erase("scene");
         const int first = b.node({{"mesh", 0}});
         b.doc["nodes"][0]["children"] = {first};
         b.doc["nodes"][first]["children"] = {b.node({{"children", {first}}})};
       },
       "node 1" + twice},
      {[](GltfBuilder& b) {
         b.doc.erase("scenes");
         b.doc.erase("scene");
         b.doc["nodes"][0]["children"] = {b.node({{"children", {0}}})};
       },
       "mesh has no faces"},
  };
  for (const auto& [change, message] : cases) {
    SCOPED_TRACE(message);
    GltfBuilder b = quad_scene({{"name", "Q"}});
    change(b);
    EXPECT_EQ(refusal(b.gltf_text()), message);
  }
}

TEST(GltfReader, RefusesFilesItCannotReadFaithfully) {
  const std::string needs = "the file needs the glTF extension ";
  const std::string unsupported = ", which this reader does not support";
  const std::string draco = needs + "KHR_draco_mesh_compression" + unsupported;
  const std::string quad = "mesh 'QuadMesh' primitive 0 ";
  using Change = std::function<void(GltfBuilder&)>;
  const std::vector<std::pair<Change, std::string>> cases = {
      {[](GltfBuilder& b) {
         b.doc["extensionsUsed"] = b.doc["extensionsRequired"] = {"KHR_draco_mesh_compression"};
       },
       draco},
      {[](GltfBuilder& b) {
         b.doc["extensionsRequired"] = {"KHR_materials_emissive_strength",
                                        "EXT_meshopt_compression"};
       },
       needs + "EXT_meshopt_compression" + unsupported},
      {[](GltfBuilder& b) {
         b.doc["extensionsRequired"] = {"KHR_mesh_quantization", "KHR_texture_transform"};
       },
       ""},
      // Draco only "used", with the compressed primitive lacking plain data.
      {[](GltfBuilder& b) {
         b.doc["accessors"][0].erase("bufferView");
         b.doc["meshes"][0]["primitives"][0]["extensions"]["KHR_draco_mesh_compression"] = {
             {"bufferView", 0}, {"attributes", {{"POSITION", 0}}}};
       },
       draco},
      {[](GltfBuilder& b) { b.doc["accessors"][3]["count"] = 5; },
       quad + "has 5 indices, which is not a multiple of 3"},
      {[](GltfBuilder& b) {
         b.doc["accessors"][3]["count"] = 5;
         b.doc["meshes"][0].erase("name");
       },
       "mesh 0 primitive 0 has 5 indices, which is not a multiple of 3"},
      {[](GltfBuilder& b) { b.doc["accessors"][3]["count"] = 7; },
       "accessor 3 (" + quad + "indices) reads past the end of buffer view 3"},
      {[](GltfBuilder& b) { b.doc["accessors"][0]["count"] = 3; },
       quad + "has 4 normals for 3 positions"},
      {[](GltfBuilder& b) { b.doc["accessors"][1]["type"] = "VEC2"; },
       "accessor 1 (" + quad + "NORMAL) must hold VEC3 elements"},
      {[](GltfBuilder& b) {
         b.bin.replace(b.bin.size() - 4, 4, GltfBuilder::pack<std::uint32_t>({4}));
       },
       quad + "has the index 4 at position 5, but only 4 vertices"},
      {[](GltfBuilder& b) { b.bin.replace(0, 4, GltfBuilder::pack<float>({NAN})); },
       quad + "has the position 0, which is not finite"},
      {[](GltfBuilder& b) {
         b.bin.replace(48, 12, GltfBuilder::pack<float>({0, 0, 0}));
       },
       quad + "has the normal 0, which has no direction"},
      {[](GltfBuilder& b) { b.doc["bufferViews"][0]["byteLength"] = 4096; },
       "buffer view 0 lies past the end of buffer 0"},
      {[](GltfBuilder& b) { b.doc["nodes"][0]["children"] = {0}; },
       "node 0 appears twice in the node hierarchy"},
      {[](GltfBuilder& b) { b.doc["nodes"][0]["mesh"] = 4; },
       "node 0 refers to mesh 4, which does not exist"},
      {[](GltfBuilder& b) { b.doc["meshes"][0]["primitives"][0]["mode"] = 1; },
       "mesh has no faces"},
  };
  for (const auto& [change, message] : cases) {
    GltfBuilder b = quad_scene({{"name", "Q"}});
    change(b);
    EXPECT_EQ(refusal(b.gltf_text()), message);
  }

  for (const auto& [bytes, name] :
       {std::pair("{ this is not json", "m.gltf"), std::pair("glTF\x02\0\0\0garbage", "m.glb")}) {
    EXPECT_EQ(refusal(bytes, name).rfind("not a readable glTF file", 0), 0u) << name;
  }

  ScratchDir dir;
  EXPECT_EQ(test::error_of([&] { read_gltf(dir / "none.glb", MeshReadOptions{}); }),
            "cannot open mesh file: " + (dir / "none.glb").string());
}

}  // namespace
}  // namespace kv
