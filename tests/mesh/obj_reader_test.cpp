#include "mesh/obj_reader.h"

#include <gtest/gtest.h>

#include <bit>
#include <charconv>
#include <random>
#include <sstream>
#include <string>

#include "mesh/mesh_test_util.h"
#include "support/test_support.h"

namespace kv {
namespace {

const std::filesystem::path kPath = "dir/model.obj";

ObjReadResult parse(std::string_view text, MeshReadOptions options = {}) {
  return parse_obj(text, kPath, options);
}

// The message of the error a text fails with, less the path ("" when read).
std::string failure(std::string_view text, MeshReadOptions options = {}) {
  return test::error_of([&] { parse(text, options); }, "dir/model.obj: ");
}

using Tri = std::array<std::uint32_t, 3>;

std::vector<Tri> positions_of(const Mesh& mesh) {
  std::vector<Tri> out;
  for (const Triangle& t : mesh.triangles) {
    out.push_back({t.corners[0].position, t.corners[1].position, t.corners[2].position});
  }
  return out;
}

// A failing text and the message it fails with.
using Failures = std::vector<std::pair<std::string, std::string>>;

void expect_failures(const Failures& cases) {
  for (const auto& [text, message] : cases) {
    EXPECT_EQ(failure(text), message) << text;
  }
}

void expect_same_mesh(const ObjReadResult& a, const ObjReadResult& b) {
  test::expect_same_mesh(a.mesh, b.mesh);
  EXPECT_EQ(a.material_libraries, b.material_libraries);
  EXPECT_EQ(
      std::tuple(a.stats.lines, a.stats.quads_split, a.stats.polygons, a.stats.polygons_inexact),
      std::tuple(b.stats.lines, b.stats.quads_split, b.stats.polygons, b.stats.polygons_inexact));
}

MeshReadOptions on_threads(int threads) {
  MeshReadOptions options;
  options.threads = threads;
  return options;
}

// The text read in chunks of at least `floor` bytes.
ObjReadResult chunked(std::string_view text, int threads, std::uint64_t floor) {
  return detail::parse_obj_chunked(text, kPath, on_threads(threads), floor);
}

TEST(ObjReader, ReadsElementsCornersColoursAndLines) {
  const auto r = parse(
      "# a comment line\nv 1 2 3\nv -1.5 +2.25 3e2 # trailing comment\n\tv\t0 0\t1\r\n"
      "vt 0.25 0.75\nvt 0.5\nvt 0.1 0.2 0.3\nvn 0 0 2\nvn 3 4 0\n"
      "f 1/1/1 2/2/2 3/3/2\nf 1//2 2//1 3//1\nf 3/1 2/2 1/3\n");
  const Mesh& m = r.mesh;
  ASSERT_EQ(m.positions.size(), 3u);
  EXPECT_EQ(m.positions[1], (std::array<float, 3>{-1.5f, 2.25f, 300.0f}));
  EXPECT_EQ(m.positions[2], (std::array<float, 3>{0, 0, 1}));
  // A lone u has v = 0; w is dropped.
  EXPECT_EQ(m.uvs, (LargeArray<std::array<double, 2>>{{0.25, 0.75}, {0.5, 0.0}, {0.1, 0.2}}));
  EXPECT_EQ(m.normals, (LargeArray<std::array<float, 3>>{
                           {0, 0, 1}, {3.0f * (1.0f / 5.0f), 4.0f * (1.0f / 5.0f), 0}}));
  ASSERT_EQ(m.triangles.size(), 3u);
  const Corner& a = m.triangles[0].corners[2];
  EXPECT_EQ(std::tuple(a.position, a.uv, a.normal), std::tuple(2u, 2, 1));
  const Corner& b = m.triangles[1].corners[0];
  EXPECT_EQ(std::tuple(b.position, b.uv, b.normal), std::tuple(0u, -1, 1));
  const Corner& c = m.triangles[2].corners[0];
  EXPECT_EQ(std::tuple(c.position, c.uv, c.normal), std::tuple(2u, 0, -1));
  // No o/g lines and no usemtl: the object and the material "default".
  EXPECT_EQ(m.objects, std::vector<std::string>{"default"});
  EXPECT_EQ(m.materials, std::vector<std::string>{"default"});
  EXPECT_EQ(m.triangle_materials, (LargeArray<std::uint32_t>{0, 0, 0}));
  EXPECT_TRUE(m.blocks.empty() && m.object_blocks.empty() && m.colors.empty());

  // Colours, line elements and statements without meaning here.
  auto coloured = parse(
      "v 0 0 0 1 0 0\nv 1 0 0\nv 0 1 0 0 0.5 1\nl 1 2\nl 2 3\ns off\nusemap x\nvp 0.5\n"
      "cstype bezier\nf 1 2 3\nf 3 2 1\n");
  ASSERT_EQ(coloured.mesh.colors.size(), 6u);
  EXPECT_EQ(coloured.mesh.colors[0], (std::array<float, 3>{1, 0, 0}));
  EXPECT_EQ(coloured.mesh.colors[1], (std::array<float, 3>{1, 1, 1}));  // no colour: white
  EXPECT_EQ(coloured.mesh.colors[2], (std::array<float, 3>{0, 0.5f, 1}));
  EXPECT_EQ(coloured.mesh.colors[3], (std::array<float, 3>{0, 0.5f, 1}));
  EXPECT_EQ(coloured.stats.lines, 2u);
  // Vertical tab, form feed and CR are whitespace too.
  auto spaced = parse("v\v1\f2\r3\r\nf 1 1 1\r\n");
  EXPECT_EQ(spaced.mesh.positions[0], (std::array<float, 3>{1, 2, 3}));
}

TEST(ObjReader, IndicesResolveRelativeToTheLinesBefore) {
  const std::string three = "v 0 0 0\nv 1 0 0\nv 0 1 0\n";
  EXPECT_EQ(positions_of(parse(three + "f -1 -2 -3\n").mesh), (std::vector<Tri>{{2, 1, 0}}));
  // A negative index counts only the elements defined before its line.
  const auto r = parse(three + "f -3 -2 -1\nv 5 5 5\nf -1 -2 -3\nf +1 +-1 2\n");
  EXPECT_EQ(positions_of(r.mesh), (std::vector<Tri>{{0, 1, 2}, {3, 2, 1}, {0, 3, 1}}));
  // Leading zeros, however many, are digits like any other.
  EXPECT_EQ(positions_of(parse(three + "f 00000003 0000000002 000000000001\n").mesh),
            (std::vector<Tri>{{2, 1, 0}}));
  expect_failures({
      {"f 1 2 3\nv 0 0 0\n", "vertex index out of range: 1"},
      {three + "f 1 2 4\nv 0 0 1\n", "vertex index out of range: 4"},
      {three + "f 1 2 -4\n", "vertex index out of range: -4"},
      {three + "f 0 1 2\n", "invalid vertex index '0'"},
      {three + "f 1 2 -0\n", "invalid vertex index '-0'"},
      {three + "f 1 2 3x\n", "invalid vertex index '3x'"},
      {three + "f 1 2 -+3\n", "invalid vertex index '-+3'"},
      {three + "f 1 2 99999999999999999999\n", "invalid vertex index '99999999999999999999'"},
      {three + "f 1 2 9223372036854775807\n", "vertex index out of range: 9223372036854775807"},
      {three + "f 1 2 3/\n", "invalid texture coordinate index '3/'"},
      {three + "vt 0 0\nf 1 2 3/a/1\n", "invalid texture coordinate index '3/a/1'"},
      {three + "f 1 2 3/1\n", "texture coordinate index out of range: 3/1"},
      {three + "f 1 2 3//\n", "invalid normal index '3//'"},
      {three + "vt 0 0\nvn 0 0 1\nf 1 2 3/1/1/1\n", "invalid normal index '3/1/1/1'"},
      {three + "vn 0 0 1\nf 1 2 3//-2\n", "normal index out of range: 3//-2"},
  });
}

TEST(ObjReader, FacesFollowTheTriangulationRule) {
  const std::string square = "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\n";
  auto quad = parse(square + "f 1 2 3 4\n");
  EXPECT_EQ(positions_of(quad.mesh), (std::vector<Tri>{{0, 1, 3}, {1, 2, 3}}));
  EXPECT_EQ(quad.stats.quads_split, 1u);
  EXPECT_EQ(quad.stats.polygons + quad.stats.polygons_inexact, 0u);  // a quad is no polygon

  MeshReadOptions reject;
  reject.quads = QuadPolicy::reject;
  reject.polygons = PolygonPolicy::reject;
  EXPECT_EQ(failure(square + "f 1 2 3 4\n", reject),
            "quad face, but quads are set to be rejected; triangulate the mesh before export");
  for (const char* face : {"f 1 2\n", "f\n", "f 1 2 # 3 4\n"}) {
    EXPECT_EQ(failure(square + face), "face with fewer than three corners") << face;
  }

  // A convex pentagon keeps its fan; with polygons refused it fails.
  const std::string pentagon = "v 0 0 0\nv 2 0 0\nv 3 1 0\nv 2 2 0\nv 0 2 0\n";
  auto fan = parse(pentagon + "f 1 2 3 4 5\n");
  EXPECT_EQ(positions_of(fan.mesh), (std::vector<Tri>{{0, 1, 2}, {0, 2, 3}, {0, 3, 4}}));
  EXPECT_EQ(fan.stats.polygons_inexact + fan.stats.quads_split, 0u);
  EXPECT_EQ(fan.stats.polygons, 1u);
  EXPECT_EQ(failure(pentagon + "f 1 2 3 4 5\n", reject),
            "face with 5 corners, but polygons are set to be rejected; triangulate the mesh "
            "before export");

  // A concave pentagon is re-triangulated; a self-intersecting one keeps its
  // fan and counts as inexact.
  const std::string chevron = "v 0 0 0\nv 2 0 0\nv 2 2 0\nv 1 1 0\nv 0 2 0\n";
  const std::string bow_tie = "v 0 0 0\nv 2 2 0\nv 2 0 0\nv 0 2 0\nv -1 1 0\n";
  auto crossed = parse(bow_tie + chevron + "f 1 2 3 4 5\nf 6 7 8 9 10\nf 1 2 3 4 5\n");
  EXPECT_EQ(positions_of(crossed.mesh), (std::vector<Tri>{{0, 1, 2},
                                                          {0, 2, 3},
                                                          {0, 3, 4},  // inexact: fan
                                                          {6, 7, 8},
                                                          {8, 9, 5},
                                                          {8, 5, 6},  // clipped
                                                          {0, 1, 2},
                                                          {0, 2, 3},
                                                          {0, 3, 4}}));
  EXPECT_EQ(crossed.stats.polygons_inexact, 2u);
  EXPECT_EQ(crossed.stats.polygons, 3u);
}

TEST(ObjReader, CornersAreCountedAlikeOnLongLines) {
  // Corner tokens and comments at every offset of the counting blocks.
  std::string text = "v 0 0 0\nv 1 0 0\nv 0 1 0\nv 1 1 0\nv 2 0 0\nvt 0 0\nvn 0 0 1\n";
  std::vector<Tri> expected;
  for (int pad = 0; pad < 40; ++pad) {
    const std::string gap(static_cast<std::size_t>(pad), pad % 3 == 0 ? ' ' : '\t');
    text += "f 1/1/1" + gap + " 2/1/1\v3/1/1" + gap + "\f#c 4 5 6\n";
    text += "f" + gap + " 0000001//1  \r0000002//1 0000003//1 0000004//1 000000005//1" + gap + "\n";
    text += "f 5 4 3" + gap + " #\n";
    expected.insert(expected.end(), {{0, 1, 2}, {0, 1, 2}, {0, 2, 3}, {0, 3, 4}, {4, 3, 2}});
  }
  EXPECT_EQ(positions_of(parse(text).mesh), expected);
}

TEST(ObjReader, ComponentsAreCheckedAndRoundedCorrectly) {
  const std::string tail = "f 1 1 1\n";
  Failures cases = {
      {"v 1 2\n", "missing vertex position component"},
      {"v 1 2 # 3\n", "missing vertex position component"},
      {"v 0 0 0\nvt\n", "missing texture coordinate component"},
      {"v 0 0 0\nvt 0 1e309\n", "invalid texture coordinate component '1e309'"},
      {"v 0 0 0\nvn 0 1\n", "missing normal component"},
      {"v 0 0 0\nvn 0 1 .\n", "invalid normal component '.'"},
      {"v 0 0 0\nvn 0 0 0\n", "zero-length normal"},
      {"v 0 0 0\nvn 1e30 0 0\n", "zero-length normal"},
      {"v 0 0 0 1 0 x\n", "invalid vertex color component 'x'"},
  };
  for (const char* bad : {"abc", "3,5", "++3", "1e39", "nan", "-inf", "0x10"}) {
    cases.push_back({std::string("v 1 2 ") + bad + "\n",
                     std::string("invalid vertex position component '") + bad + "'"});
  }
  for (auto& [text, message] : cases) {
    text += tail;
  }
  expect_failures(cases);
  // Extra components are ignored (w of a position, but a seventh number is
  // not a colour either).
  auto extra = parse("v 1 2 3 4\nv 1 2 3 0.5 0.5 0.5 9\n" + tail);
  EXPECT_EQ(extra.mesh.positions[0], (std::array<float, 3>{1, 2, 3}));
  EXPECT_TRUE(extra.mesh.colors.empty());
  // Underflow rounds to zero, keeping the sign.
  auto tiny = parse("v 1e-60 -1e-60 1e-400\nvt 1e-400 -2e-400\n" + tail);
  EXPECT_EQ(std::bit_cast<std::uint32_t>(tiny.mesh.positions[0][1]), 0x80000000u);
  EXPECT_EQ(tiny.mesh.positions[0][0], 0.0f);
  EXPECT_TRUE(std::signbit(tiny.mesh.uvs[0][1]));

  // Float positions and double UVs are correctly rounded, including decimals
  // whose double is exactly half-way between two floats.
  std::vector<std::string> texts;
  std::istringstream listed(
      "16777217 16777217.000000001 0.1 3.4028235e38 1.17549435e-38 1e-45 7e-46 "
      "123456789012345678 -0.000001 2.5e-7 33554435 4.0000001 9007199254740993 "
      "0.30000000000000004");
  for (std::string t; listed >> t;) {
    texts.push_back(t);
  }
  std::mt19937_64 random(7);
  for (int i = 0; i < 4000; ++i) {
    const int digits = 1 + static_cast<int>(random() % 18);
    std::string mantissa;
    for (int d = 0; d < digits; ++d) {
      mantissa += static_cast<char>('0' + random() % 10);
    }
    mantissa.insert(static_cast<std::size_t>(random() % (digits + 1)), ".");
    // Up to about 1e38: no float overflows; the smallest underflow.
    const int exponent = static_cast<int>(random() % 60) - 40;
    texts.push_back((random() % 2 ? "-" : "") + mantissa + "e" + std::to_string(exponent));
  }
  std::string text;
  for (const std::string& t : texts) {
    text += "v " + t + " 0 0\nvt " + t + " 0\n";
  }
  auto rounded = parse(text + tail);
  for (std::size_t i = 0; i < texts.size(); ++i) {
    float f = 0;
    double d = 0;
    const std::string& t = texts[i];
    if (std::from_chars(t.data(), t.data() + t.size(), f).ec == std::errc::result_out_of_range) {
      f = t[0] == '-' ? -0.0f : 0.0f;  // underflow: a zero of the text's sign
    }
    std::from_chars(t.data(), t.data() + t.size(), d);
    ASSERT_EQ(std::bit_cast<std::uint32_t>(rounded.mesh.positions[i][0]),
              std::bit_cast<std::uint32_t>(f))
        << t;
    ASSERT_EQ(std::bit_cast<std::uint64_t>(rounded.mesh.uvs[i][0]), std::bit_cast<std::uint64_t>(d))
        << t;
  }
  // The double of this decimal is a float midpoint; the float rounds up.
  EXPECT_EQ(rounded.mesh.positions[1][0], 16777218.0f);
  EXPECT_EQ(rounded.mesh.positions[0][0], 16777216.0f);
}

TEST(ObjReader, ObjectsBlocksAndMaterials) {
  const std::string tri = "v 0 0 0\nv 1 0 0\nv 0 1 0\n";
  // Faces before the first o/g are in "default"; two g Body blocks are one
  // object; names are the trimmed rest of the line; g lines without any o
  // line make no blocks.
  auto r =
      parse(tri + "f 1 2 3\ng Body\nf 1 2 3\ng  Left Arm \t\nf 1 2 3\ng Body # again\nf 1 2 3\n");
  EXPECT_EQ(r.mesh.objects, (std::vector<std::string>{"default", "Body", "Left Arm"}));
  std::vector<std::uint32_t> objects;
  for (const Triangle& t : r.mesh.triangles) {
    objects.push_back(t.object);
  }
  EXPECT_EQ(objects, (std::vector<std::uint32_t>{0, 1, 2, 1}));
  EXPECT_TRUE(r.mesh.blocks.empty() && r.mesh.object_blocks.empty());

  // With g lines, each o opens a block that the following g objects join.
  auto b = parse(tri +
                 "o Car\ng Wheel\nf 1 2 3\ng Door\nf 1 2 3\no Tree\ng Leaf\nf 1 2 3\n"
                 "o Car\ng Seat\nf 1 2 3\ng Wheel\nf 1 2 3\n");
  EXPECT_EQ(b.mesh.objects,
            (std::vector<std::string>{"Car", "Wheel", "Door", "Tree", "Leaf", "Seat"}));
  EXPECT_EQ(b.mesh.blocks, (std::vector<std::string>{"Car", "Tree"}));
  EXPECT_EQ(b.mesh.object_blocks, (LargeArray<std::uint32_t>{0, 0, 0, 1, 1, 0}));
  // Objects made before the first o take the block "default".
  auto early = parse(tri + "f 1 2 3\ng Part\nf 1 2 3\no Whole\ng Piece\nf 1 2 3\n");
  EXPECT_EQ(early.mesh.objects, (std::vector<std::string>{"default", "Part", "Whole", "Piece"}));
  EXPECT_EQ(early.mesh.blocks, (std::vector<std::string>{"Whole", "default"}));
  EXPECT_EQ(early.mesh.object_blocks, (LargeArray<std::uint32_t>{1, 1, 0, 0}));
  // o lines alone make objects, no blocks.
  auto plain = parse(tri + "o A\nf 1 2 3\no B\nf 1 2 3\n");
  EXPECT_EQ(plain.mesh.objects, (std::vector<std::string>{"A", "B"}));
  EXPECT_TRUE(plain.mesh.blocks.empty());

  // Materials in order of first use; a face with none current uses
  // "default"; mtllib names are all recorded.
  auto m = parse("mtllib a.mtl  b c.mtl\n" + tri +
                 "f 1 2 3\nusemtl Red Paint\nf 1 2 3\nusemtl Blue\nf 1 2 3\nusemtl Red Paint\n"
                 "f 1 2 3\nmtllib d.mtl\n");
  EXPECT_EQ(m.mesh.materials, (std::vector<std::string>{"default", "Red Paint", "Blue"}));
  EXPECT_EQ(m.mesh.triangle_materials, (LargeArray<std::uint32_t>{0, 1, 2, 1}));
  EXPECT_EQ(m.material_libraries, (std::vector<std::string>{"a.mtl", "b", "c.mtl", "d.mtl"}));
  EXPECT_EQ(parse("usemtl Skin\n" + tri + "f 1 2 3\n").mesh.materials,
            (std::vector<std::string>{"Skin"}));

  EXPECT_EQ(failure(tri + "o " + std::string(65537, 'x') + "\nf 1 2 3\n"),
            "object name is longer than 65536 bytes");
  EXPECT_EQ(failure(tri + "o " + std::string(65536, 'x') + "\nf 1 2 3\n"), "");
}

TEST(ObjReader, FilesHooksAndWholeFileFailures) {
  test::ScratchDir dir;
  const auto path = dir / "cube.obj";
  EXPECT_EQ(test::error_of([&] { read_obj(path, {}); }), "cannot open mesh file: " + path.string());
  EXPECT_EQ(test::error_of([&] { read_obj(dir.path(), {}); }),
            "cannot read mesh file: " + dir.path().string());
  const std::string text = "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n";
  test::write_text_file(path, text);
  MeshReadOptions options;
  std::vector<std::string> seen;
  options.on_text = [&](std::string_view t) { seen.emplace_back(t); };
  EXPECT_EQ(read_obj(path, options).mesh.triangles.size(), 1u);
  EXPECT_EQ(seen, std::vector<std::string>{text});

  test::write_text_file(path, "v 0 0 0\n# nothing else\n");
  EXPECT_EQ(test::error_of([&] { read_obj(path, {}); }),
            path.string() + ": mesh has no faces: " + path.string());
  EXPECT_EQ(failure(""), "mesh has no faces: dir/model.obj");

  // The memory estimate: 3 triangles, file size 24 + 16 * (5 * 3 + 1 * 3 * 8)
  // + 12 * (3 positions + 3 triangles) bytes.
  const std::string small = "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\nf 1 2 3\nf 1 2 3\n";
  const std::uint64_t estimate = small.size() + 16 * (5 * 3 + 3 * 8) + 12 * 6;
  MeshReadOptions limited = on_threads(1);
  limited.memory_limit_bytes = estimate;
  EXPECT_EQ(failure(small, limited), "");
  limited.memory_limit_bytes = estimate - 1;
  EXPECT_EQ(
      failure(small, limited),
      "the mesh file dir/model.obj gives 3 triangles and needs about 1 MB; the limit is 0 MB");
  // Polygon corners count as elements too: 5 positions, 3 triangles, 5 corners.
  const std::string pentagon = "v 0 0 0\nv 2 0 0\nv 3 1 0\nv 2 2 0\nv 0 2 0\nf 1 2 3 4 5\n";
  limited.memory_limit_bytes = pentagon.size() + 16 * (5 * 3 + 3 * 8) + 12 * 13;
  EXPECT_EQ(failure(pentagon, limited), "");
  limited.memory_limit_bytes -= 1;
  EXPECT_NE(failure(pentagon, limited), "");
  // Beyond one MiB the limit is written in whole MB, rounded down, the need up.
  limited.memory_limit_bytes = (std::uint64_t{5} << 20) + 12345;
  EXPECT_EQ(
      failure(small + std::string(6u << 20, '#') + "\n", limited),
      "the mesh file dir/model.obj gives 3 triangles and needs about 7 MB; the limit is 5 MB");
}

TEST(ObjReaderChunks, ChunksEndBehindTheFirstNewlineAfterTheirMinimum) {
  using Starts = std::vector<std::uint64_t>;
  // Floor 3: each chunk reaches 2 bytes, then ends behind the next "\n".
  EXPECT_EQ(obj_chunk_starts("aaaa\nbbbb\ncccc\n", 4, 3), (Starts{0, 5, 10}));
  // No newline after the search start: the chunk runs to the end.
  EXPECT_EQ(obj_chunk_starts("ab\ncd", 1, 4), (Starts{0}));
  // A newline exactly at the search start counts.
  EXPECT_EQ(obj_chunk_starts("abc\nd", 1, 4), (Starts{0, 4}));
  // The minimum end at the end of the buffer: one chunk.
  for (const char* text : {"abc\n", "abcd\n", ""}) {
    EXPECT_EQ(obj_chunk_starts(text, 1, 4), (Starts{0})) << text;
  }
  // Above the floor the target is size / (4 T).
  const auto starts = obj_chunk_starts(std::string(4000, '\n'), 2, 100);
  ASSERT_EQ(starts.size(), 8u);
  for (std::size_t i = 0; i < starts.size(); ++i) {
    EXPECT_EQ(starts[i], 501 * i);
  }
  // The real floor keeps a text below 1 MiB in one chunk.
  EXPECT_EQ(obj_chunk_starts(std::string(1048575, '\n'), 8).size(), 1u);
  EXPECT_EQ(obj_chunk_starts(std::string(1048578, '\n'), 8).size(), 2u);
}

// A text whose elements, objects, materials and relative indices cross many
// chunk boundaries when cut into small chunks.
std::string busy_text(int rows) {
  std::string text = "mtllib scene.mtl\n";
  for (int i = 0; i < rows; ++i) {
    const float x = static_cast<float>(i) * 0.37f;
    text +=
        "v " + std::to_string(x) + " " + std::to_string(i % 7) + " 0." + std::to_string(i) + "\n";
    text += "v " + std::to_string(x) + " 1 0\nv " + std::to_string(x + 1) + " 1 0\n";
    text += "v " + std::to_string(x + 1) + " 0 0\nv " + std::to_string(x + 0.5f) + " -1 0\n";
    text += "vt 0." + std::to_string(i) + " 0.5\nvn 0 " + std::to_string(i % 3) + " 1\n";
    if (i % 5 == 0) {
      text += (i % 10 == 0 ? "o Part" : "g Piece") + std::to_string(i % 4) + "\n";
    }
    if (i % 3 == 0) {
      text += "usemtl mat" + std::to_string(i % 4) + "\n";
    }
    // A triangle, a quad, a concave or crossed pentagon, a pentagon and a line.
    text += std::array<const char*, 4>{
        "f -5/-1/-1 -4/-1/-1 -3/-1/-1\n", "f -5//-1 -4//-1 -3//-1 -2//-1\n",
        "f -5/-1 -2/-1 -3/-1 -4/-1 -1/-1\n", "f -5 -4 -3 -2 -1 # pentagon\nl -1 -2\n"}[i % 4];
  }
  return text;
}

TEST(ObjReaderChunks, ChunkingAndThreadCountDoNotChangeTheMesh) {
  const std::string text = busy_text(600);
  const ObjReadResult whole = parse(text, on_threads(1));
  ASSERT_EQ(obj_chunk_starts(text, 1).size(), 1u);
  EXPECT_EQ(whole.mesh.triangles.size(), 600u / 4 * (1 + 2 + 3 + 3));
  EXPECT_EQ(whole.stats.quads_split, 150u);
  EXPECT_EQ(whole.stats.lines, 150u);
  EXPECT_GT(whole.mesh.blocks.size(), 0u);
  for (int threads : {1, 2, 3}) {
    for (std::uint64_t floor : {1u, 64u, 977u, 10000u}) {
      ASSERT_GT(obj_chunk_starts(text, threads, floor).size(), 1u);
      SCOPED_TRACE("threads " + std::to_string(threads) + " floor " + std::to_string(floor));
      expect_same_mesh(whole, chunked(text, threads, floor));
    }
  }
}

TEST(ObjReaderChunks, LargeFilesReadTheSameOnOneAndTwoThreads) {
  test::ScratchDir dir;
  const auto path = dir / "large.obj";
  // Beyond 8 MiB the file is also read in several slices.
  std::string text = busy_text(100000);
  ASSERT_GT(text.size(), 9u * 1048576);
  test::write_text_file(path, text);
  const ObjReadResult from_file = read_obj(path, on_threads(2));
  expect_same_mesh(read_obj(path, on_threads(1)), from_file);
  // The text as read matches the text as written, slice for slice.
  expect_same_mesh(from_file, parse_obj(text, path, on_threads(1)));
}

TEST(ObjReaderChunks, TheFirstErrorWinsAndDamageFailsAlikeOnEveryChunking) {
  const std::string busy = busy_text(300);
  const std::size_t line = busy.find('\n', busy.size() / 2) + 1;
  const std::string damaged = busy.substr(0, line) + "v 1 2 bad\n" + busy.substr(line) +
                              "vn 0 0 0\nf 1 2 3 4 5 6 7 8 9 10 11 12 1000000\n";
  for (int threads : {1, 2}) {
    for (std::uint64_t floor : {1u, 200u, 1048576u}) {
      EXPECT_EQ(test::error_of([&] { chunked(damaged, threads, floor); }, "dir/model.obj: "),
                "invalid vertex position component 'bad'");
    }
  }
  // Within one chunk the earlier line wins too.
  EXPECT_EQ(failure("vn 0 0 0\nv 1 2 bad\nf 1 1 1\n"), "zero-length normal");

  // Random byte damage: every outcome is a mesh or a kv::Error, and the same
  // one for one chunk and for many chunks on two threads.
  const std::string clean = busy_text(40);
  std::mt19937_64 random(11);
  const char alphabet[] = "0123456789 -+./#\nvftoge\t\r";
  int failures = 0;
  for (int round = 0; round < 300; ++round) {
    std::string text = clean;
    const int edits = 1 + static_cast<int>(random() % 4);
    for (int e = 0; e < edits; ++e) {
      text[random() % text.size()] = alphabet[random() % (sizeof alphabet - 1)];
    }
    auto outcome = [&](int threads, std::uint64_t floor) {
      std::size_t triangles = 0;
      std::string message =
          test::error_of([&] { triangles = chunked(text, threads, floor).mesh.triangles.size(); });
      return std::pair(message, triangles);
    };
    const auto whole = outcome(1, kObjChunkFloor);
    ASSERT_EQ(whole, outcome(2, 97)) << text;
    failures += whole.first.empty() ? 0 : 1;
  }
  EXPECT_GT(failures, 0);
}

}  // namespace
}  // namespace kv
