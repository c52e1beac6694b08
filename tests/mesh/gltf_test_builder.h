// Builds small glTF documents byte by byte for the reader tests: one binary
// buffer, views and accessors added one at a time, written as .gltf (buffer
// as a data URI) or as .glb.
#pragma once

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace kv::test {

inline std::string base64(const std::string& bytes) {
  static const char* digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    unsigned v = 0;
    for (std::size_t k = 0; k < 3; ++k) {
      v = v << 8 | (i + k < bytes.size() ? static_cast<unsigned char>(bytes[i + k]) : 0u);
    }
    // 1, 2 or 3 bytes give 2, 3 or 4 digits; '=' pads to 4.
    const std::size_t count = std::min<std::size_t>(4, bytes.size() - i + 1);
    for (std::size_t k = 0; k < 4; ++k) {
      out += k < count ? digits[(v >> (18 - 6 * k)) & 63] : '=';
    }
  }
  return out;
}

enum : int {
  kByte = 5120,
  kUByte = 5121,
  kShort = 5122,
  kUShort = 5123,
  kUInt = 5125,
  kFloat = 5126,
};

class GltfBuilder {
 public:
  GltfBuilder() {
    doc["asset"] = {{"version", "2.0"}};
    doc["bufferViews"] = nlohmann::json::array();
    doc["accessors"] = nlohmann::json::array();
  }

  template <typename T>
  static std::string pack(const std::vector<T>& values) {
    std::string bytes(values.size() * sizeof(T), '\0');
    if (!values.empty()) {
      std::memcpy(bytes.data(), values.data(), bytes.size());
    }
    return bytes;
  }

  // Appends bytes as a new buffer view (4-byte aligned); returns its index.
  int view(const std::string& bytes, int stride = 0) {
    while (bin.size() % 4 != 0) {
      bin += '\0';
    }
    nlohmann::json v = {{"buffer", 0}, {"byteOffset", bin.size()}, {"byteLength", bytes.size()}};
    if (stride != 0) {
      v["byteStride"] = stride;
    }
    bin += bytes;
    doc["bufferViews"].push_back(v);
    return static_cast<int>(doc["bufferViews"].size()) - 1;
  }

  int accessor(int view_index, int component_type, const std::string& type, std::size_t count,
               std::size_t byte_offset = 0, bool normalized = false) {
    nlohmann::json a = {{"componentType", component_type}, {"type", type}, {"count", count}};
    if (view_index >= 0) {
      a["bufferView"] = view_index;
    }
    if (byte_offset != 0) {
      a["byteOffset"] = byte_offset;
    }
    if (normalized) {
      a["normalized"] = true;
    }
    doc["accessors"].push_back(a);
    return static_cast<int>(doc["accessors"].size()) - 1;
  }

  int floats(const std::vector<float>& values, const std::string& type, int per_element) {
    return accessor(view(pack(values)), kFloat, type, values.size() / per_element);
  }
  int vec3(const std::vector<float>& values) { return floats(values, "VEC3", 3); }
  int vec2(const std::vector<float>& values) { return floats(values, "VEC2", 2); }
  int indices_u32(const std::vector<std::uint32_t>& values) {
    return accessor(view(pack(values)), kUInt, "SCALAR", values.size());
  }

  // A mesh of one primitive; returns the mesh index.
  int mesh(const std::string& name, int position, int normal = -1, int uv = -1, int indices = -1,
           int mode = 4, int material = -1) {
    nlohmann::json prim;
    prim["attributes"]["POSITION"] = position;
    if (normal >= 0) {
      prim["attributes"]["NORMAL"] = normal;
    }
    if (uv >= 0) {
      prim["attributes"]["TEXCOORD_0"] = uv;
    }
    if (indices >= 0) {
      prim["indices"] = indices;
    }
    if (mode != 4) {
      prim["mode"] = mode;
    }
    if (material >= 0) {
      prim["material"] = material;
    }
    nlohmann::json m = {{"primitives", nlohmann::json::array({prim})}};
    if (!name.empty()) {
      m["name"] = name;
    }
    doc["meshes"].push_back(m);
    return static_cast<int>(doc["meshes"].size()) - 1;
  }

  int node(nlohmann::json n) {
    doc["nodes"].push_back(std::move(n));
    return static_cast<int>(doc["nodes"].size()) - 1;
  }

  void scene(const std::vector<int>& roots) {
    doc["scenes"] = nlohmann::json::array({{{"nodes", roots}}});
    doc["scene"] = 0;
  }

  nlohmann::json finished() const {
    nlohmann::json d = doc;
    d["buffers"] = nlohmann::json::array({{{"byteLength", bin.size()}}});
    return d;
  }

  std::string gltf_text() const {
    nlohmann::json d = finished();
    d["buffers"][0]["uri"] = "data:application/octet-stream;base64," + base64(bin);
    return d.dump();
  }

  std::string glb_bytes() const {
    std::string json = finished().dump();
    while (json.size() % 4 != 0) {
      json += ' ';
    }
    std::string data = bin;
    while (data.size() % 4 != 0) {
      data += '\0';
    }
    std::string out = "glTF";
    auto put32 = [&out](std::uint32_t v) { out.append(reinterpret_cast<const char*>(&v), 4); };
    put32(2);
    put32(static_cast<std::uint32_t>(12 + 8 + json.size() + 8 + data.size()));
    put32(static_cast<std::uint32_t>(json.size()));
    put32(0x4E4F534Au);  // "JSON"
    out += json;
    put32(static_cast<std::uint32_t>(data.size()));
    put32(0x004E4942u);  // "BIN\0"
    out += data;
    return out;
  }

  nlohmann::json doc;
  std::string bin;
};

}  // namespace kv::test
