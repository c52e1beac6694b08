// Meshes as a client of the service holds them: raw arrays per object, laid
// out in one block of bytes for a shared-memory section, and the same data
// written as an OBJ file, so that tests can compare the two ways in.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "service/section_mesh.h"

namespace kv::test {

// One object as a client holds it.
struct RawObject {
  std::string name;
  std::vector<float> positions;        // 3 per vertex
  std::vector<std::uint32_t> indices;  // 3 per triangle
  std::vector<float> uvs;              // 6 per triangle, or empty
  std::vector<float> normals;          // 9 per triangle, or empty
};

// The objects' arrays laid out in one block of bytes, with gaps so that no
// offset is trivially 0, and the object list describing them.
struct Layout {
  std::vector<unsigned char> bytes;
  std::vector<service::SectionObject> objects;
};

Layout lay_out(const std::vector<RawObject>& raw);

// The same objects as an OBJ file: one `o` per object, one `vt` and `vn` per
// corner, numbers written so that they read back to the very same values.
std::string obj_text(const std::vector<RawObject>& raw);

// A displaced grid of n x n cells: enough items to cross the reader's
// chunks, values that float32 and decimal text both have to get right.
RawObject grid_object(const std::string& name, std::uint32_t n, bool uvs, bool normals);

// A section created for one test and removed when it ends.
class TestSection {
 public:
  TestSection(const std::string& what, const std::vector<unsigned char>& bytes);
  ~TestSection();
  TestSection(const TestSection&) = delete;
  TestSection& operator=(const TestSection&) = delete;
  const std::string& name() const { return name_; }

 private:
  std::string name_;
};

}  // namespace kv::test
