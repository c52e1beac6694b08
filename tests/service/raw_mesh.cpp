#include "service/raw_mesh.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>

#include "platform/platform.h"

namespace kv::test {
namespace {

template <typename T>
std::uint64_t append(std::vector<unsigned char>& bytes, const std::vector<T>& data) {
  bytes.resize(bytes.size() + 8, 0xEE);  // a gap of junk before every array
  const std::uint64_t at = bytes.size();
  bytes.resize(at + data.size() * sizeof(T));
  if (!data.empty()) {
    std::memcpy(bytes.data() + at, data.data(), data.size() * sizeof(T));
  }
  return at;
}

}  // namespace

Layout lay_out(const std::vector<RawObject>& raw) {
  Layout layout;
  for (const RawObject& o : raw) {
    service::SectionObject s;
    s.name = o.name;
    s.vertices = o.positions.size() / 3;
    s.triangles = o.indices.size() / 3;
    s.positions = append(layout.bytes, o.positions);
    s.indices = append(layout.bytes, o.indices);
    if (!o.uvs.empty()) {
      s.uvs = append(layout.bytes, o.uvs);
    }
    if (!o.normals.empty()) {
      s.normals = append(layout.bytes, o.normals);
    }
    layout.objects.push_back(s);
  }
  return layout;
}

std::string obj_text(const std::vector<RawObject>& raw) {
  std::string text;
  char line[200];
  std::uint64_t positions = 0, uvs = 0, normals = 0;
  for (const RawObject& o : raw) {
    text += "o " + o.name + "\n";
    for (std::size_t i = 0; i < o.positions.size(); i += 3) {
      std::snprintf(line, sizeof line, "v %.9g %.9g %.9g\n", o.positions[i], o.positions[i + 1],
                    o.positions[i + 2]);
      text += line;
    }
    for (std::size_t i = 0; i < o.uvs.size(); i += 2) {
      std::snprintf(line, sizeof line, "vt %.17g %.17g\n", static_cast<double>(o.uvs[i]),
                    static_cast<double>(o.uvs[i + 1]));
      text += line;
    }
    for (std::size_t i = 0; i < o.normals.size(); i += 3) {
      std::snprintf(line, sizeof line, "vn %.9g %.9g %.9g\n", o.normals[i], o.normals[i + 1],
                    o.normals[i + 2]);
      text += line;
    }
    for (std::size_t t = 0; t < o.indices.size() / 3; ++t) {
      text += "f";
      for (std::size_t k = 0; k < 3; ++k) {
        text += " " + std::to_string(positions + o.indices[3 * t + k] + 1);
        const std::uint64_t corner = 3 * t + k + 1;
        if (!o.uvs.empty() || !o.normals.empty()) {
          text += "/";
        }
        if (!o.uvs.empty()) {
          text += std::to_string(uvs + corner);
        }
        if (!o.normals.empty()) {
          text += "/" + std::to_string(normals + corner);
        }
      }
      text += "\n";
    }
    positions += o.positions.size() / 3;
    uvs += o.uvs.size() / 2;
    normals += o.normals.size() / 3;
  }
  return text;
}

RawObject grid_object(const std::string& name, std::uint32_t n, bool uvs, bool normals) {
  RawObject o;
  o.name = name;
  for (std::uint32_t y = 0; y <= n; ++y) {
    for (std::uint32_t x = 0; x <= n; ++x) {
      o.positions.push_back(static_cast<float>(x) * 0.1f);
      o.positions.push_back(static_cast<float>(y) / 3.0f);
      o.positions.push_back(std::sin(static_cast<float>(x * 7 + y * 13)) * 1e-3f);
    }
  }
  for (std::uint32_t y = 0; y < n; ++y) {
    for (std::uint32_t x = 0; x < n; ++x) {
      const std::uint32_t a = y * (n + 1) + x, b = a + 1, c = a + n + 1, d = c + 1;
      for (std::uint32_t i : {a, b, d, a, d, c}) {
        o.indices.push_back(i);
      }
    }
  }
  const std::size_t corners = o.indices.size();
  for (std::size_t k = 0; uvs && k < corners; ++k) {
    const float* p = &o.positions[3 * o.indices[k]];
    o.uvs.push_back(p[0] / 7.0f);
    o.uvs.push_back(1.0f - p[1] / 11.0f);  // v up, as OBJ
  }
  for (std::size_t k = 0; normals && k < corners; ++k) {
    o.normals.push_back(0.25f * static_cast<float>(k % 5));
    o.normals.push_back(-0.5f);
    o.normals.push_back(3.0f);  // not unit: the reader normalises
  }
  return o;
}

TestSection::TestSection(const std::string& what, const std::vector<unsigned char>& bytes)
    : name_("kv-test-svcmesh-" + what + "-" + std::to_string(platform::process_id())) {
  int error = 0;
  platform::remove_shared_section(name_);
  EXPECT_TRUE(platform::create_shared_section(name_, bytes.size(), &error)) << error;
  std::uint64_t real = 0;
  auto writer = platform::SharedSection::open(name_, bytes.size(), true, &error, &real);
  EXPECT_TRUE(writer.has_value()) << error;
  std::memcpy(writer->data(), bytes.data(), bytes.size());
}

TestSection::~TestSection() {
  platform::remove_shared_section(name_);
}

}  // namespace kv::test
