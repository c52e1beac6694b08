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

enum : int { kUByte = 5121, kShort = 5122, kUShort = 5123, kUInt = 5125, kFloat = 5126 };

class GltfBuilder {
 public:
  template <typename T>
  static std::string pack(const std::vector<T>& values) {
    std::string bytes(values.size() * sizeof(T), '\0');
    std::memcpy(bytes.data(), values.data(), bytes.size());
    return bytes;
  }

  // Appends bytes as a new buffer view (4-byte aligned); returns its index.
  int view(const std::string& bytes, int stride = 0) {
    bin.resize((bin.size() + 3) / 4 * 4, '\0');
    nlohmann::json v = {{"buffer", 0}, {"byteOffset", bin.size()}, {"byteLength", bytes.size()}};
    if (stride != 0) {
      v["byteStride"] = stride;
    }
    bin += bytes;
    return add("bufferViews", v);
  }

  // An accessor over the view (none when negative).
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
    return add("accessors", a);
  }

  // The values in a view of their own, as elements of `width` components.
  template <typename T>
  int values(const std::vector<T>& v, int component_type, const std::string& type,
             std::size_t width, bool normalized = false) {
    return accessor(view(pack(v)), component_type, type, v.size() / width, 0, normalized);
  }
  int vec3(const std::vector<float>& v) { return values(v, kFloat, "VEC3", 3); }
  int vec2(const std::vector<float>& v) { return values(v, kFloat, "VEC2", 2); }
  int indices_u32(const std::vector<std::uint32_t>& v) { return values(v, kUInt, "SCALAR", 1); }

  // A mesh of one primitive; returns the mesh index.
  int mesh(const std::string& name, int position, int normal = -1, int uv = -1, int indices = -1,
           int mode = 4, int material = -1) {
    nlohmann::json prim = {{"attributes", {{"POSITION", position}}}};
    for (const auto& [key, value] : {std::pair("NORMAL", normal), std::pair("TEXCOORD_0", uv)}) {
      if (value >= 0) {
        prim["attributes"][key] = value;
      }
    }
    for (const auto& [key, value] :
         {std::pair("indices", indices), std::pair("mode", mode == 4 ? -1 : mode),
          std::pair("material", material)}) {
      if (value >= 0) {
        prim[key] = value;
      }
    }
    nlohmann::json m = {{"primitives", nlohmann::json::array({prim})}};
    if (!name.empty()) {
      m["name"] = name;
    }
    return add("meshes", m);
  }

  int node(nlohmann::json n) { return add("nodes", std::move(n)); }

  void scene(const std::vector<int>& roots) {
    doc["scenes"] = nlohmann::json::array({{{"nodes", roots}}});
    doc["scene"] = 0;
  }
  // One root node for each mesh, in mesh order.
  void scene_of_meshes() {
    std::vector<int> roots;
    for (std::size_t i = 0; i < doc["meshes"].size(); ++i) {
      roots.push_back(node({{"mesh", i}}));
    }
    scene(roots);
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

  std::string glb_bytes() const { return glb(finished().dump(), bin); }

  // A .glb of the JSON text as given (which may be more than nlohmann::json
  // can hold) and the binary chunk.
  static std::string glb(std::string json, std::string data) {
    json.resize((json.size() + 3) / 4 * 4, ' ');
    data.resize((data.size() + 3) / 4 * 4, '\0');
    std::string out = "glTF";
    auto put32 = [&out](std::size_t v) {
      const auto u = static_cast<std::uint32_t>(v);
      out.append(reinterpret_cast<const char*>(&u), 4);
    };
    put32(2);
    put32(12 + 8 + json.size() + 8 + data.size());
    put32(json.size());
    put32(0x4E4F534Au);  // "JSON"
    out += json;
    put32(data.size());
    put32(0x004E4942u);  // "BIN\0"
    return out + data;
  }

  nlohmann::json doc = {{"asset", {{"version", "2.0"}}},
                        {"bufferViews", nlohmann::json::array()},
                        {"accessors", nlohmann::json::array()}};
  std::string bin;

 private:
  int add(const char* list, nlohmann::json item) {
    doc[list].push_back(std::move(item));
    return static_cast<int>(doc[list].size()) - 1;
  }
};

}  // namespace kv::test
