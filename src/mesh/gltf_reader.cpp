#include "mesh/gltf_reader.h"

#include "mesh/gltf_parser.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <set>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "core/error.h"
#include "mesh/mesh_format.h"
#include "mesh/node_transform.h"
#include "mesh/read_budget.h"
#include "platform/platform.h"

namespace kv {
namespace {

constexpr std::uint64_t kMaxElements = 2147483647;
// Elements of an accessor without a buffer view are zeros that no byte of the
// file backs: far more than any real file declares that way, far less than
// the gigabytes a bare count could otherwise ask for.
constexpr std::uint64_t kMaxZeroElements = std::uint64_t{1} << 24;

std::string accessor_name(int index, const std::string& what) {
  return "accessor " + std::to_string(index) + " (" + what + ")";
}

// Extensions a file may require: they change materials, textures or lights,
// or (quantization) only widen the component types this reader handles anyway.
bool extension_supported(std::string_view name) {
  static const std::set<std::string_view> supported = {
      "KHR_mesh_quantization", "KHR_texture_transform", "KHR_lights_punctual",
      "KHR_texture_basisu",    "EXT_texture_webp",      "MSFT_texture_dds",
      "KHR_materials_variants"};
  return supported.count(name) != 0 || name.rfind("KHR_materials_", 0) == 0;
}

std::string unsupported_extension(std::string_view name) {
  return "the file needs the glTF extension " + std::string(name) +
         ", which this reader does not support";
}

// Elements a reader would push, each capped at one past the limit so that
// sums of any counts never wrap.
struct ElementCounts {
  std::uint64_t positions = 0;
  std::uint64_t uvs = 0;
  std::uint64_t normals = 0;
  std::uint64_t triangles = 0;
  std::uint64_t working_bytes = 0;  // of the largest primitive, read at once

  static std::uint64_t capped(std::uint64_t n) { return std::min(n, kMaxElements + 1); }

  void add(const ElementCounts& other) {
    positions = capped(positions + other.positions);
    uvs = capped(uvs + other.uvs);
    normals = capped(normals + other.normals);
    triangles = capped(triangles + other.triangles);
    working_bytes = std::max(working_bytes, other.working_bytes);
  }
};

class GltfReader {
 public:
  GltfReader(const std::filesystem::path& path, const tinygltf::Model& model,
             const ReadBudget& budget)
      : path_(path), model_(model), budget_(budget) {}

  Mesh read();

 private:
  [[noreturn]] void fail(const std::string& message) const {
    throw Error(path_.string() + ": " + message);
  }

  std::vector<int> scene_roots() const;
  ElementCounts primitive_counts(const tinygltf::Primitive& prim) const;
  void check_placed_counts(const std::vector<int>& roots);
  Mat4 local_transform(int node_index) const;
  void add_node(int node_index, const Mat4& world);
  void add_primitive(int mesh_index, std::size_t primitive_index, const Mat4& world,
                     std::uint32_t object);
  const tinygltf::Accessor& checked_accessor(int index, int components,
                                             const std::string& what) const;
  std::vector<double> read_accessor(int index, int components, const std::string& what) const;
  int attribute_accessor(const tinygltf::Primitive& prim, const char* attribute, int components,
                         std::uint64_t vertex_count, const std::string& what,
                         const char* plural) const;
  std::vector<std::uint32_t> read_indices(int index, std::uint64_t vertex_count,
                                          const std::string& what) const;
  const tinygltf::BufferView& view(int index, const std::string& what) const;
  void check_view_range(const tinygltf::BufferView& bv, int index, std::uint64_t offset,
                        std::uint64_t bytes, const std::string& what) const;
  std::uint32_t material_index(int material);

  const std::filesystem::path& path_;
  const tinygltf::Model& model_;
  const ReadBudget& budget_;
  MeshEstimate placed_;  // what the scene's nodes place, counted up front
  bool budget_checked_ = false;
  Mesh mesh_;
  UniqueNames object_names_;
  MaterialTable materials_;
};

std::size_t component_bytes(int type) {
  switch (type) {
    case TINYGLTF_COMPONENT_TYPE_BYTE:
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_BYTE:
      return 1;
    case TINYGLTF_COMPONENT_TYPE_SHORT:
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_SHORT:
      return 2;
    case TINYGLTF_COMPONENT_TYPE_INT:
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_INT:
    case TINYGLTF_COMPONENT_TYPE_FLOAT:
      return 4;
    case TINYGLTF_COMPONENT_TYPE_DOUBLE:
      return 8;
    default:
      return 0;
  }
}

bool is_integer_type(int type) {
  return type != TINYGLTF_COMPONENT_TYPE_FLOAT && type != TINYGLTF_COMPONENT_TYPE_DOUBLE;
}

// One component as stored, widened to double; normalized integers are mapped
// to [0, 1] or [-1, 1] the way glTF defines it.
double component_value(const unsigned char* p, int type, bool normalized) {
  switch (type) {
    case TINYGLTF_COMPONENT_TYPE_BYTE: {
      std::int8_t v;
      std::memcpy(&v, p, 1);
      return normalized ? std::max(v / 127.0, -1.0) : v;
    }
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_BYTE: {
      std::uint8_t v;
      std::memcpy(&v, p, 1);
      return normalized ? v / 255.0 : v;
    }
    case TINYGLTF_COMPONENT_TYPE_SHORT: {
      std::int16_t v;
      std::memcpy(&v, p, 2);
      return normalized ? std::max(v / 32767.0, -1.0) : v;
    }
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_SHORT: {
      std::uint16_t v;
      std::memcpy(&v, p, 2);
      return normalized ? v / 65535.0 : v;
    }
    case TINYGLTF_COMPONENT_TYPE_INT: {
      std::int32_t v;
      std::memcpy(&v, p, 4);
      return normalized ? std::max(v / 2147483647.0, -1.0) : v;
    }
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_INT: {
      std::uint32_t v;
      std::memcpy(&v, p, 4);
      return normalized ? v / 4294967295.0 : v;
    }
    case TINYGLTF_COMPONENT_TYPE_FLOAT: {
      float v;
      std::memcpy(&v, p, 4);
      return v;
    }
    default: {
      double v;
      std::memcpy(&v, p, 8);
      return v;
    }
  }
}

const char* type_name(int components) {
  switch (components) {
    case 1:
      return "SCALAR";
    case 2:
      return "VEC2";
    case 3:
      return "VEC3";
    default:
      return "VEC4";
  }
}

int type_components(int type) {
  switch (type) {
    case TINYGLTF_TYPE_SCALAR:
      return 1;
    case TINYGLTF_TYPE_VEC2:
      return 2;
    case TINYGLTF_TYPE_VEC3:
      return 3;
    case TINYGLTF_TYPE_VEC4:
      return 4;
    default:
      return 0;  // matrices: never a vertex attribute we read
  }
}

const tinygltf::BufferView& GltfReader::view(int index, const std::string& what) const {
  if (index < 0 || static_cast<std::size_t>(index) >= model_.bufferViews.size()) {
    fail(what + " refers to buffer view " + std::to_string(index) + ", which does not exist");
  }
  return model_.bufferViews[static_cast<std::size_t>(index)];
}

// Checks that [offset, offset + bytes) lies inside the view and the view
// inside its buffer.
void GltfReader::check_view_range(const tinygltf::BufferView& bv, int index, std::uint64_t offset,
                                  std::uint64_t bytes, const std::string& what) const {
  if (bv.buffer < 0 || static_cast<std::size_t>(bv.buffer) >= model_.buffers.size()) {
    fail("buffer view " + std::to_string(index) + " refers to buffer " + std::to_string(bv.buffer) +
         ", which does not exist");
  }
  const tinygltf::Buffer& buffer = model_.buffers[static_cast<std::size_t>(bv.buffer)];
  if (bv.extensions.count("EXT_meshopt_compression") != 0 && buffer.data.empty()) {
    fail(unsupported_extension("EXT_meshopt_compression"));
  }
  if (bv.byteOffset > buffer.data.size() || bv.byteLength > buffer.data.size() - bv.byteOffset) {
    fail("buffer view " + std::to_string(index) + " lies past the end of buffer " +
         std::to_string(bv.buffer));
  }
  if (offset > bv.byteLength || bytes > bv.byteLength - offset) {
    fail(what + " reads past the end of buffer view " + std::to_string(index));
  }
}

// The accessor, once its element type is the one asked for and every element
// it declares is backed: by its buffer view, or, without one, by a count
// small enough to be read as zeros. Nothing is allocated here.
const tinygltf::Accessor& GltfReader::checked_accessor(int index, int components,
                                                       const std::string& what) const {
  if (index < 0 || static_cast<std::size_t>(index) >= model_.accessors.size()) {
    fail(what + " refers to accessor " + std::to_string(index) + ", which does not exist");
  }
  const tinygltf::Accessor& acc = model_.accessors[static_cast<std::size_t>(index)];
  const std::string name = accessor_name(index, what);
  if (type_components(acc.type) != components) {
    fail(name + " must hold " + type_name(components) + " elements");
  }
  const std::size_t size = component_bytes(acc.componentType);
  if (size == 0) {
    fail(name + " has the unknown component type " + std::to_string(acc.componentType));
  }
  if (acc.count > kMaxElements) {
    fail(name + " has too many elements");
  }
  if (acc.bufferView < 0) {
    if (acc.count > kMaxZeroElements) {
      fail(name + " has " + std::to_string(acc.count) +
           " elements without a buffer view; at most " + std::to_string(kMaxZeroElements) +
           " are read that way");
    }
  } else if (acc.count != 0) {
    const std::size_t element_bytes = size * static_cast<std::size_t>(components);
    const tinygltf::BufferView& bv = view(acc.bufferView, name);
    const std::size_t stride = bv.byteStride != 0 ? bv.byteStride : element_bytes;
    if (stride < element_bytes) {
      fail(name + " has elements of " + std::to_string(element_bytes) +
           " bytes but a byte stride of " + std::to_string(stride));
    }
    check_view_range(bv, acc.bufferView, acc.byteOffset,
                     std::uint64_t{stride} * (acc.count - 1) + element_bytes, name);
  }
  return acc;
}

// Reads `components` values per element of accessor `index` as doubles,
// sparse substitutions applied.
std::vector<double> GltfReader::read_accessor(int index, int components,
                                              const std::string& what) const {
  const tinygltf::Accessor& acc = checked_accessor(index, components, what);
  const std::string name = accessor_name(index, what);
  const std::size_t size = component_bytes(acc.componentType);
  const std::size_t element_bytes = size * static_cast<std::size_t>(components);
  // Sized only now that every element is known to be backed.
  std::vector<double> values(acc.count * static_cast<std::size_t>(components), 0.0);
  if (acc.bufferView >= 0 && acc.count != 0) {
    const tinygltf::BufferView& bv = model_.bufferViews[static_cast<std::size_t>(acc.bufferView)];
    const std::size_t stride = bv.byteStride != 0 ? bv.byteStride : element_bytes;
    const unsigned char* base = model_.buffers[static_cast<std::size_t>(bv.buffer)].data.data() +
                                bv.byteOffset + acc.byteOffset;
    for (std::size_t i = 0; i < acc.count; ++i) {
      const unsigned char* element = base + i * stride;
      for (int c = 0; c < components; ++c) {
        values[i * static_cast<std::size_t>(components) + static_cast<std::size_t>(c)] =
            component_value(element + static_cast<std::size_t>(c) * size, acc.componentType,
                            acc.normalized);
      }
    }
  }

  if (acc.sparse.isSparse && acc.sparse.count > 0) {
    const auto count = static_cast<std::uint64_t>(acc.sparse.count);
    if (acc.sparse.count < 0 || count > acc.count) {
      fail(name + " has a sparse count of " + std::to_string(acc.sparse.count) + " for " +
           std::to_string(acc.count) + " elements");
    }
    const int index_type = acc.sparse.indices.componentType;
    if (index_type != TINYGLTF_COMPONENT_TYPE_UNSIGNED_BYTE &&
        index_type != TINYGLTF_COMPONENT_TYPE_UNSIGNED_SHORT &&
        index_type != TINYGLTF_COMPONENT_TYPE_UNSIGNED_INT) {
      fail(name + " has sparse indices of the component type " + std::to_string(index_type) +
           "; they must be unsigned integers");
    }
    const std::string sparse_name = name + "'s sparse data";
    const tinygltf::BufferView& iv = view(acc.sparse.indices.bufferView, sparse_name);
    const tinygltf::BufferView& vv = view(acc.sparse.values.bufferView, sparse_name);
    const std::size_t index_size = component_bytes(index_type);
    if (acc.sparse.indices.byteOffset < 0 || acc.sparse.values.byteOffset < 0) {
      fail(sparse_name + " has a negative byte offset");
    }
    check_view_range(iv, acc.sparse.indices.bufferView,
                     static_cast<std::uint64_t>(acc.sparse.indices.byteOffset), count * index_size,
                     sparse_name);
    check_view_range(vv, acc.sparse.values.bufferView,
                     static_cast<std::uint64_t>(acc.sparse.values.byteOffset),
                     count * element_bytes, sparse_name);
    const unsigned char* ip = model_.buffers[static_cast<std::size_t>(iv.buffer)].data.data() +
                              iv.byteOffset +
                              static_cast<std::size_t>(acc.sparse.indices.byteOffset);
    const unsigned char* vp = model_.buffers[static_cast<std::size_t>(vv.buffer)].data.data() +
                              vv.byteOffset +
                              static_cast<std::size_t>(acc.sparse.values.byteOffset);
    for (std::uint64_t s = 0; s < count; ++s) {
      const auto target =
          static_cast<std::uint64_t>(component_value(ip + s * index_size, index_type, false));
      if (target >= acc.count) {
        fail(name + " has the sparse index " + std::to_string(target) + " for " +
             std::to_string(acc.count) + " elements");
      }
      for (int c = 0; c < components; ++c) {
        values[target * static_cast<std::size_t>(components) + static_cast<std::size_t>(c)] =
            component_value(vp + s * element_bytes + static_cast<std::size_t>(c) * size,
                            acc.componentType, acc.normalized);
      }
    }
  }
  return values;
}

std::vector<std::uint32_t> GltfReader::read_indices(int index, std::uint64_t vertex_count,
                                                    const std::string& what) const {
  const std::vector<double> raw = read_accessor(index, 1, what + " indices");
  const tinygltf::Accessor& acc = model_.accessors[static_cast<std::size_t>(index)];
  if (!is_integer_type(acc.componentType) || acc.normalized) {
    fail(accessor_name(index, what + " indices") + " must hold integers that are not normalized");
  }
  std::vector<std::uint32_t> indices(raw.size());
  for (std::size_t i = 0; i < raw.size(); ++i) {
    if (raw[i] < 0 || raw[i] >= static_cast<double>(vertex_count)) {
      fail(what + " has the index " + std::to_string(static_cast<std::int64_t>(raw[i])) +
           " at position " + std::to_string(i) + ", but only " + std::to_string(vertex_count) +
           " vertices");
    }
    indices[i] = static_cast<std::uint32_t>(raw[i]);
  }
  return indices;
}

Mat4 GltfReader::local_transform(int node_index) const {
  const tinygltf::Node& node = model_.nodes[static_cast<std::size_t>(node_index)];
  Mat4 m = mat4_identity();
  if (node.matrix.size() == 16) {
    for (int r = 0; r < 4; ++r) {
      for (int c = 0; c < 4; ++c) {
        m[r][c] = node.matrix[static_cast<std::size_t>(c * 4 + r)];  // stored column-major
      }
    }
  } else {
    std::array<double, 3> t{0, 0, 0};
    std::array<double, 3> s{1, 1, 1};
    std::array<double, 4> q{0, 0, 0, 1};
    if (node.translation.size() == 3) {
      std::copy(node.translation.begin(), node.translation.end(), t.begin());
    }
    if (node.scale.size() == 3) {
      std::copy(node.scale.begin(), node.scale.end(), s.begin());
    }
    if (node.rotation.size() == 4) {
      std::copy(node.rotation.begin(), node.rotation.end(), q.begin());
      const double len = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
      if (len > 0 && std::isfinite(len)) {
        for (double& v : q) {
          v /= len;
        }
      }
    }
    const double x = q[0], y = q[1], z = q[2], w = q[3];
    const double rot[3][3] = {{1 - 2 * (y * y + z * z), 2 * (x * y - z * w), 2 * (x * z + y * w)},
                              {2 * (x * y + z * w), 1 - 2 * (x * x + z * z), 2 * (y * z - x * w)},
                              {2 * (x * z - y * w), 2 * (y * z + x * w), 1 - 2 * (x * x + y * y)}};
    for (int r = 0; r < 3; ++r) {
      for (int c = 0; c < 3; ++c) {
        m[r][c] = rot[r][c] * s[static_cast<std::size_t>(c)];
      }
      m[r][3] = t[static_cast<std::size_t>(r)];
    }
  }
  for (const auto& row : m) {
    for (double v : row) {
      if (!std::isfinite(v)) {
        fail("node " + std::to_string(node_index) + " has a transform that is not finite");
      }
    }
  }
  return m;
}

std::uint32_t GltfReader::material_index(int material) {
  std::string name = "default";
  if (material >= 0) {
    if (static_cast<std::size_t>(material) >= model_.materials.size()) {
      fail("a primitive refers to material " + std::to_string(material) + ", which does not exist");
    }
    name = model_.materials[static_cast<std::size_t>(material)].name;
    if (name.empty()) {
      name = "material " + std::to_string(material);
    }
  }
  return materials_.index_of(name, mesh_.materials);
}

// The accessor of the primitive's `attribute`, -1 when it has none, once its
// count equals the positions': an unlike one is never read.
int GltfReader::attribute_accessor(const tinygltf::Primitive& prim, const char* attribute,
                                   int components, std::uint64_t vertex_count,
                                   const std::string& what, const char* plural) const {
  const auto it = prim.attributes.find(attribute);
  if (it == prim.attributes.end()) {
    return -1;
  }
  const std::uint64_t count =
      checked_accessor(it->second, components, what + " " + attribute).count;
  if (count != vertex_count) {
    fail(what + " has " + std::to_string(count) + " " + plural + " for " +
         std::to_string(vertex_count) + " positions");
  }
  return it->second;
}

// Appends the triangles of one primitive, its vertices placed by `world`.
void GltfReader::add_primitive(int mesh_index, std::size_t primitive_index, const Mat4& world,
                               std::uint32_t object) {
  const tinygltf::Mesh& gmesh = model_.meshes[static_cast<std::size_t>(mesh_index)];
  const tinygltf::Primitive& prim = gmesh.primitives[primitive_index];
  const std::string what =
      (gmesh.name.empty() ? "mesh " + std::to_string(mesh_index) : "mesh '" + gmesh.name + "'") +
      " primitive " + std::to_string(primitive_index);
  if (prim.mode != TINYGLTF_MODE_TRIANGLES && prim.mode != TINYGLTF_MODE_TRIANGLE_STRIP &&
      prim.mode != TINYGLTF_MODE_TRIANGLE_FAN) {
    return;  // points and lines carry no faces
  }
  const auto position_it = prim.attributes.find("POSITION");
  if (position_it == prim.attributes.end()) {
    return;  // nothing to place: such a primitive is not drawn
  }
  if (prim.extensions.count("KHR_draco_mesh_compression") != 0) {
    const int pa = position_it->second;
    if (pa >= 0 && static_cast<std::size_t>(pa) < model_.accessors.size() &&
        model_.accessors[static_cast<std::size_t>(pa)].bufferView < 0) {
      fail(unsupported_extension("KHR_draco_mesh_compression"));
    }
  }
  // Every accessor is checked before any is read, and the scene's estimate
  // weighed before the first is: a fault of the file is named first, and
  // nothing is sized from counts the budget refuses.
  const std::uint64_t vertex_count =
      checked_accessor(position_it->second, 3, what + " POSITION").count;
  const int normal_accessor = attribute_accessor(prim, "NORMAL", 3, vertex_count, what, "normals");
  const int uv_accessor =
      attribute_accessor(prim, "TEXCOORD_0", 2, vertex_count, what, "texture coordinates");
  if (prim.indices >= 0) {
    checked_accessor(prim.indices, 1, what + " indices");
  }
  if (!budget_checked_) {
    budget_.check_mesh(path_, placed_);
    budget_checked_ = true;
  }
  const std::vector<double> positions = read_accessor(position_it->second, 3, what + " POSITION");
  const std::vector<double> normals = normal_accessor >= 0
                                          ? read_accessor(normal_accessor, 3, what + " NORMAL")
                                          : std::vector<double>();
  const std::vector<double> uvs = uv_accessor >= 0
                                      ? read_accessor(uv_accessor, 2, what + " TEXCOORD_0")
                                      : std::vector<double>();
  std::vector<std::uint32_t> indices;
  if (prim.indices >= 0) {
    indices = read_indices(prim.indices, vertex_count, what);
  } else {
    indices.resize(vertex_count);
    for (std::uint64_t i = 0; i < vertex_count; ++i) {
      indices[i] = static_cast<std::uint32_t>(i);
    }
  }

  // Corner triples in the file's winding, strips and fans unrolled the way
  // glTF defines them; the joining triangles of strips and fans that repeat a
  // vertex are dropped.
  std::vector<std::array<std::uint32_t, 3>> faces;
  const std::size_t n = indices.size();
  if (prim.mode == TINYGLTF_MODE_TRIANGLES) {
    if (n % 3 != 0) {
      fail(what + " has " + std::to_string(n) + " indices, which is not a multiple of 3");
    }
    for (std::size_t i = 0; i + 2 < n; i += 3) {
      faces.push_back({indices[i], indices[i + 1], indices[i + 2]});
    }
  } else {
    for (std::size_t i = 0; i + 2 < n; ++i) {
      std::array<std::uint32_t, 3> f{};
      if (prim.mode == TINYGLTF_MODE_TRIANGLE_STRIP) {
        f = {indices[i], indices[i + 1 + i % 2], indices[i + 2 - i % 2]};
      } else {
        f = {indices[i + 1], indices[i + 2], indices[0]};
      }
      if (f[0] != f[1] && f[1] != f[2] && f[0] != f[2]) {
        faces.push_back(f);
      }
    }
  }
  if (faces.empty()) {
    return;
  }

  // A mirroring transform turns the winding around; swapping two corners
  // keeps the faces facing the way their normals do.
  const NodeTransform transform(world);
  const bool mirrored = transform.mirrored();

  const std::uint64_t position_base = mesh_.positions.size();
  for (std::uint64_t v = 0; v < vertex_count; ++v) {
    const double x = positions[3 * v];
    const double y = positions[3 * v + 1];
    const double z = positions[3 * v + 2];
    const std::array<float, 3> p = transform.point(x, y, z);
    if (!std::isfinite(p[0]) || !std::isfinite(p[1]) || !std::isfinite(p[2])) {
      fail(what + " has the position " + std::to_string(v) + ", which is not finite");
    }
    mesh_.positions.push_back(p);
  }

  const std::uint64_t normal_base = mesh_.normals.size();
  if (!normals.empty()) {
    for (std::uint64_t v = 0; v < vertex_count; ++v) {
      std::array<float, 3> unit{};
      if (!transform.normal(normals[3 * v], normals[3 * v + 1], normals[3 * v + 2], unit)) {
        fail(what + " has the normal " + std::to_string(v) + ", which has no direction");
      }
      mesh_.normals.push_back(unit);
    }
  }

  const std::uint64_t uv_base = mesh_.uvs.size();
  for (std::uint64_t v = 0; v < uvs.size() / 2; ++v) {
    const double u = uvs[2 * v];
    const double vv = uvs[2 * v + 1];
    if (!std::isfinite(u) || !std::isfinite(vv)) {
      fail(what + " has the texture coordinate " + std::to_string(v) + ", which is not finite");
    }
    mesh_.uvs.push_back({u, 1.0 - vv});
  }

  if (mesh_.positions.size() > kMaxElements || mesh_.normals.size() > kMaxElements ||
      mesh_.uvs.size() > kMaxElements || mesh_.triangles.size() + faces.size() > kMaxElements) {
    fail("too many elements");
  }
  const std::uint32_t material = material_index(prim.material);
  for (const auto& f : faces) {
    Triangle t;
    for (std::size_t k = 0; k < 3; ++k) {
      const std::uint32_t i = f[mirrored && k > 0 ? 3 - k : k];
      t.corners[k].position = static_cast<std::uint32_t>(position_base + i);
      t.corners[k].uv = uvs.empty() ? -1 : static_cast<std::int32_t>(uv_base + i);
      t.corners[k].normal = normals.empty() ? -1 : static_cast<std::int32_t>(normal_base + i);
    }
    t.object = object;
    mesh_.triangles.push_back(t);
    mesh_.triangle_materials.push_back(material);
  }
}

void GltfReader::add_node(int node_index, const Mat4& world) {
  const tinygltf::Node& node = model_.nodes[static_cast<std::size_t>(node_index)];
  if (node.mesh < 0) {
    return;
  }
  if (static_cast<std::size_t>(node.mesh) >= model_.meshes.size()) {
    fail("node " + std::to_string(node_index) + " refers to mesh " + std::to_string(node.mesh) +
         ", which does not exist");
  }
  const tinygltf::Mesh& gmesh = model_.meshes[static_cast<std::size_t>(node.mesh)];
  const std::string& base =
      !node.name.empty()
          ? node.name
          : (!gmesh.name.empty() ? gmesh.name : "node " + std::to_string(node_index));
  const std::size_t triangles_before = mesh_.triangles.size();
  const auto object = static_cast<std::uint32_t>(mesh_.objects.size());
  for (std::size_t p = 0; p < gmesh.primitives.size(); ++p) {
    add_primitive(node.mesh, p, world, object);
  }
  if (mesh_.triangles.size() != triangles_before) {
    mesh_.objects.push_back(object_names_.make_unique(base));
  }
}

std::vector<int> GltfReader::scene_roots() const {
  std::vector<int> roots;
  if (!model_.scenes.empty()) {
    const std::size_t scene =
        model_.defaultScene >= 0 ? static_cast<std::size_t>(model_.defaultScene) : 0;
    if (scene >= model_.scenes.size()) {
      fail("the default scene " + std::to_string(model_.defaultScene) + " does not exist");
    }
    return model_.scenes[scene].nodes;
  }
  // No scene: every node that is nobody's child, in index order.
  std::vector<bool> is_child(model_.nodes.size(), false);
  for (const tinygltf::Node& node : model_.nodes) {
    for (int child : node.children) {
      if (child >= 0 && static_cast<std::size_t>(child) < is_child.size()) {
        is_child[static_cast<std::size_t>(child)] = true;
      }
    }
  }
  for (std::size_t i = 0; i < model_.nodes.size(); ++i) {
    if (!is_child[i]) {
      roots.push_back(static_cast<int>(i));
    }
  }
  return roots;
}

// At most the elements add_primitive reads and pushes for the primitive, from
// the accessors' counts alone: strips and fans may drop joining triangles,
// and vertices are read even when no face is left, so they count all the
// same. References that do not resolve count nothing: the read refuses them.
ElementCounts GltfReader::primitive_counts(const tinygltf::Primitive& prim) const {
  auto count_of = [this](int accessor) -> std::uint64_t {
    return accessor >= 0 && static_cast<std::size_t>(accessor) < model_.accessors.size()
               ? ElementCounts::capped(model_.accessors[static_cast<std::size_t>(accessor)].count)
               : 0;
  };
  const auto position_it = prim.attributes.find("POSITION");
  if ((prim.mode != TINYGLTF_MODE_TRIANGLES && prim.mode != TINYGLTF_MODE_TRIANGLE_STRIP &&
       prim.mode != TINYGLTF_MODE_TRIANGLE_FAN) ||
      position_it == prim.attributes.end()) {
    return {};
  }
  const std::uint64_t vertices = count_of(position_it->second);
  const std::uint64_t corners = prim.indices >= 0 ? count_of(prim.indices) : vertices;
  ElementCounts counts;
  counts.triangles = prim.mode == TINYGLTF_MODE_TRIANGLES ? corners / 3
                     : corners >= 3                       ? corners - 2
                                                          : 0;
  counts.positions = vertices;
  counts.normals = prim.attributes.count("NORMAL") != 0 ? vertices : 0;
  counts.uvs = prim.attributes.count("TEXCOORD_0") != 0 ? vertices : 0;
  // Attributes are read as doubles, indices as 32 bits, faces as triples.
  counts.working_bytes = 8 * (3 * counts.positions + 3 * counts.normals + 2 * counts.uvs) +
                         4 * corners + 12 * counts.triangles;
  return counts;
}

// Refuses a scene whose nodes, each placing its mesh's elements anew, would
// exceed the mesh limits, and keeps the totals for the memory budget: counted
// from the accessors before anything is read, since a few nodes can multiply
// a small file into billions of vertices.
void GltfReader::check_placed_counts(const std::vector<int>& roots) {
  std::vector<ElementCounts> per_mesh(model_.meshes.size());
  for (std::size_t m = 0; m < model_.meshes.size(); ++m) {
    for (const tinygltf::Primitive& prim : model_.meshes[m].primitives) {
      per_mesh[m].add(primitive_counts(prim));
    }
  }
  // The walk of read(), without its checks: a node that does not exist or
  // comes again is left to it to refuse.
  ElementCounts total;
  std::vector<bool> counted(model_.nodes.size(), false);
  std::vector<int> stack(roots.rbegin(), roots.rend());
  while (!stack.empty()) {
    const int index = stack.back();
    stack.pop_back();
    if (index < 0 || static_cast<std::size_t>(index) >= model_.nodes.size() ||
        counted[static_cast<std::size_t>(index)]) {
      continue;
    }
    counted[static_cast<std::size_t>(index)] = true;
    const tinygltf::Node& node = model_.nodes[static_cast<std::size_t>(index)];
    if (node.mesh >= 0 && static_cast<std::size_t>(node.mesh) < per_mesh.size()) {
      total.add(per_mesh[static_cast<std::size_t>(node.mesh)]);
    }
    stack.insert(stack.end(), node.children.rbegin(), node.children.rend());
  }
  const std::pair<std::uint64_t, const char*> totals[] = {{total.positions, "vertex positions"},
                                                          {total.uvs, "texture coordinates"},
                                                          {total.normals, "normals"},
                                                          {total.triangles, "triangles"}};
  for (const auto& [count, name] : totals) {
    if (count > kMaxElements) {
      fail("mesh has more than " + std::to_string(kMaxElements) + " " + name);
    }
  }
  placed_ =
      MeshEstimate{total.positions, total.uvs, total.normals, total.triangles, total.working_bytes};
}

Mesh GltfReader::read() {
  for (const std::string& name : model_.extensionsRequired) {
    if (!extension_supported(name)) {
      fail(unsupported_extension(name));
    }
  }
  const std::vector<int> roots = scene_roots();
  check_placed_counts(roots);

  // Depth first, children in their listed order, without recursion so a deep
  // hierarchy cannot exhaust the stack.
  std::vector<bool> visited(model_.nodes.size(), false);
  struct Pending {
    int node;
    Mat4 parent;
  };
  std::vector<Pending> stack;
  for (auto it = roots.rbegin(); it != roots.rend(); ++it) {
    stack.push_back({*it, mat4_identity()});
  }
  while (!stack.empty()) {
    const Pending next = stack.back();
    stack.pop_back();
    if (next.node < 0 || static_cast<std::size_t>(next.node) >= model_.nodes.size()) {
      fail("the scene refers to node " + std::to_string(next.node) + ", which does not exist");
    }
    if (visited[static_cast<std::size_t>(next.node)]) {
      fail("node " + std::to_string(next.node) + " appears twice in the node hierarchy");
    }
    visited[static_cast<std::size_t>(next.node)] = true;
    const Mat4 world = mat4_multiply(next.parent, local_transform(next.node));
    add_node(next.node, world);
    const auto& children = model_.nodes[static_cast<std::size_t>(next.node)].children;
    for (auto it = children.rbegin(); it != children.rend(); ++it) {
      stack.push_back({*it, world});
    }
  }

  if (mesh_.triangles.empty()) {
    fail("mesh has no faces");
  }
  return std::move(mesh_);
}

// Geometry only: images are neither decoded nor checked.
bool skip_image(tinygltf::Image*, const int, std::string*, std::string*, int, int,
                const unsigned char*, int, void*) {
  return true;
}

// Files beside the glTF (buffers) are read through the platform layer, each
// sized against the read's memory budget before it is read. A refusal is
// kept here and reported after the parser gives up.
struct BufferFiles {
  ReadBudget* budget = nullptr;
  std::string refusal;
};

// Regular files only (or links, followed when read): a named pipe would block
// the read for good.
bool file_exists(const std::string& path, void*) {
  int error = 0;
  const auto status = platform::file_status(path, &error);
  return status.has_value() && (status->is_regular || status->is_symlink);
}

std::string expand_path(const std::string& path, void*) {
  return path;
}

bool read_whole_file(std::vector<unsigned char>* out, std::string* err, const std::string& path,
                     void* user_data) {
  auto& files = *static_cast<BufferFiles*>(user_data);
  int error = 0;
  platform::File file = platform::File::open_read(path, &error);
  const std::int64_t size = file.is_open() ? file.size(&error) : -1;
  if (size >= 0 && !files.budget->take_file(static_cast<std::uint64_t>(size))) {
    files.refusal =
        "the buffer file " + path + ": " + files.budget->refusal(static_cast<std::uint64_t>(size));
    return false;
  }
  if (size >= 0) {
    out->resize(static_cast<std::size_t>(size));
    if (file.read_full(out->data(), out->size(), &error) == size) {
      return true;
    }
  }
  if (err != nullptr) {
    *err += "cannot read " + path + ": " + platform::system_error_text(error) + "\n";
  }
  return false;
}

bool refuse_write(std::string* err, const std::string&, const std::vector<unsigned char>&, void*) {
  if (err != nullptr) {
    *err += "writing is not supported\n";
  }
  return false;
}

// Documents nesting deeper are refused before parsing: the parser turns
// extras and extensions into values by recursion, one stack frame a level,
// while real files nest a dozen levels or so.
constexpr int kMaxJsonDepth = 512;

// Whether the arrays and objects of `json` nest deeper than `limit`; brackets
// inside strings do not count. Iterative, so any depth is measured safely.
bool nests_deeper_than(std::string_view json, int limit) {
  int depth = 0;
  bool in_string = false;
  for (std::size_t i = 0; i < json.size(); ++i) {
    const char c = json[i];
    if (in_string) {
      if (c == '\\') {
        ++i;  // the escaped character, a quote included
      } else if (c == '"') {
        in_string = false;
      }
    } else if (c == '"') {
      in_string = true;
    } else if (c == '[' || c == '{') {
      if (++depth > limit) {
        return true;
      }
    } else if ((c == ']' || c == '}') && depth > 0) {
      --depth;
    }
  }
  return false;
}

// The JSON chunk of a .glb, or nothing when the header frames none inside the
// file (the parser then refuses the file itself).
std::string_view glb_json_chunk(std::string_view bytes) {
  if (bytes.size() < 20) {
    return {};
  }
  std::uint64_t length = 0;
  for (std::size_t k = 0; k < 4; ++k) {
    length |= std::uint64_t{static_cast<unsigned char>(bytes[12 + k])} << (8 * k);
  }
  return length <= bytes.size() - 20 ? bytes.substr(20, length) : std::string_view{};
}

std::string one_line(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) {
    text.pop_back();
  }
  for (std::size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at)) {
    text.replace(at, 1, "; ");
  }
  return text;
}

}  // namespace

Mesh read_gltf(const std::filesystem::path& path, const MeshReadOptions& options,
               MeshStats* stats) {
  // glTF holds triangles only: the face policies never apply.
  if (stats != nullptr) {
    *stats = MeshStats{};
  }
  ReadBudget budget(options);
  // The parser takes the file's length as 32 bits.
  const std::string bytes =
      budget.read_whole_file(path, std::numeric_limits<unsigned int>::max(), "a glTF file");

  const bool binary = bytes.size() >= 4 && bytes.compare(0, 4, "glTF") == 0;
  if (nests_deeper_than(binary ? glb_json_chunk(bytes) : std::string_view(bytes), kMaxJsonDepth)) {
    throw Error(path.string() + ": the file's JSON nests deeper than " +
                std::to_string(kMaxJsonDepth) + " levels");
  }

  tinygltf::TinyGLTF loader;
  loader.SetImageLoader(&skip_image, nullptr);
  BufferFiles buffer_files{&budget, {}};
  loader.SetFsCallbacks(
      {&file_exists, &expand_path, &read_whole_file, &refuse_write, &buffer_files});
  tinygltf::Model model;
  std::string err;
  std::string warn;
  const std::string base_dir = path.parent_path().string();
  const auto size = static_cast<unsigned int>(bytes.size());
  const bool loaded =
      binary ? loader.LoadBinaryFromMemory(&model, &err, &warn,
                                           reinterpret_cast<const unsigned char*>(bytes.data()),
                                           size, base_dir)
             : loader.LoadASCIIFromString(&model, &err, &warn, bytes.data(), size, base_dir);
  if (!loaded && !buffer_files.refusal.empty()) {
    throw OutOfMemory(path.string() + ": " + buffer_files.refusal);
  }
  if (!loaded) {
    err = one_line(err);
    throw Error(path.string() + ": not a readable glTF file" + (err.empty() ? "" : ": " + err));
  }
  GltfReader reader(path, model, budget);
  return reader.read();
}

}  // namespace kv
