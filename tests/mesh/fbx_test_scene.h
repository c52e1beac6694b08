// FBX files for the reader tests, written by Assimp's FBX exporter from a scene
// built here: a node per object, each with one mesh of polygons as given. The
// exporter's ASCII form is used: the binary files it writes (version 7500)
// are refused by the importer of the same release.
#pragma once

#include <assimp/material.h>
#include <assimp/scene.h>
#include <assimp/Exporter.hpp>

#include <array>
#include <cstdint>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace kv::test {

struct FbxPart {
  std::string name;
  std::vector<std::array<float, 3>> positions;  // one per vertex
  std::vector<std::array<float, 3>> normals;    // empty, or one per vertex
  std::vector<std::array<float, 2>> uvs;        // empty, or one per vertex
  std::vector<std::vector<unsigned>> faces;     // vertex indices, any corner count
  std::array<float, 3> translation{0, 0, 0};
  std::array<float, 3> scale{1, 1, 1};
  std::string material = "default";
};

// Writes the parts as FBX ("fbxa" ASCII, or "fbx" binary); returns Assimp's
// error text, empty on success.
inline std::string write_fbx(const std::vector<FbxPart>& parts, const std::filesystem::path& path,
                             const char* format = "fbxa") {
  auto scene = std::make_unique<aiScene>();
  scene->mRootNode = new aiNode("RootNode");
  scene->mNumMeshes = static_cast<unsigned>(parts.size());
  scene->mMeshes = new aiMesh*[parts.size()];
  scene->mNumMaterials = static_cast<unsigned>(parts.size());
  scene->mMaterials = new aiMaterial*[parts.size()];
  scene->mRootNode->mNumChildren = static_cast<unsigned>(parts.size());
  scene->mRootNode->mChildren = new aiNode*[parts.size()];
  for (std::size_t k = 0; k < parts.size(); ++k) {
    const FbxPart& part = parts[k];
    auto* material = new aiMaterial();
    aiString material_name(part.material);
    material->AddProperty(&material_name, AI_MATKEY_NAME);
    scene->mMaterials[k] = material;

    auto* mesh = new aiMesh();
    mesh->mName = aiString(part.name + "Mesh");
    mesh->mMaterialIndex = static_cast<unsigned>(k);
    mesh->mNumVertices = static_cast<unsigned>(part.positions.size());
    mesh->mVertices = new aiVector3D[part.positions.size()];
    for (std::size_t v = 0; v < part.positions.size(); ++v) {
      mesh->mVertices[v] =
          aiVector3D(part.positions[v][0], part.positions[v][1], part.positions[v][2]);
    }
    if (!part.normals.empty()) {
      mesh->mNormals = new aiVector3D[part.normals.size()];
      for (std::size_t v = 0; v < part.normals.size(); ++v) {
        mesh->mNormals[v] = aiVector3D(part.normals[v][0], part.normals[v][1], part.normals[v][2]);
      }
    }
    if (!part.uvs.empty()) {
      mesh->mTextureCoords[0] = new aiVector3D[part.uvs.size()];
      mesh->mNumUVComponents[0] = 2;
      for (std::size_t v = 0; v < part.uvs.size(); ++v) {
        mesh->mTextureCoords[0][v] = aiVector3D(part.uvs[v][0], part.uvs[v][1], 0);
      }
    }
    mesh->mNumFaces = static_cast<unsigned>(part.faces.size());
    mesh->mFaces = new aiFace[part.faces.size()];
    for (std::size_t f = 0; f < part.faces.size(); ++f) {
      aiFace& face = mesh->mFaces[f];
      face.mNumIndices = static_cast<unsigned>(part.faces[f].size());
      face.mIndices = new unsigned[part.faces[f].size()];
      std::copy(part.faces[f].begin(), part.faces[f].end(), face.mIndices);
      mesh->mPrimitiveTypes |= face.mNumIndices == 3  ? aiPrimitiveType_TRIANGLE
                               : face.mNumIndices > 3 ? aiPrimitiveType_POLYGON
                                                      : aiPrimitiveType_LINE;
    }
    scene->mMeshes[k] = mesh;

    auto* node = new aiNode(part.name);
    node->mParent = scene->mRootNode;
    node->mNumMeshes = 1;
    node->mMeshes = new unsigned[1]{static_cast<unsigned>(k)};
    aiMatrix4x4 transform;
    transform.a1 = part.scale[0];
    transform.b2 = part.scale[1];
    transform.c3 = part.scale[2];
    transform.a4 = part.translation[0];
    transform.b4 = part.translation[1];
    transform.c4 = part.translation[2];
    node->mTransformation = transform;
    scene->mRootNode->mChildren[k] = node;
  }
  Assimp::Exporter exporter;
  if (exporter.Export(scene.get(), format, path.string()) != aiReturn_SUCCESS) {
    return exporter.GetErrorString();
  }
  return {};
}

// A binary FBX (version 7400) written record by record: the least a reader
// needs for one node with one mesh of polygons, normals and UVs.
class FbxBinaryNode {
 public:
  explicit FbxBinaryNode(std::string name) : name_(std::move(name)) {}

  FbxBinaryNode& i32(std::int32_t v) { return scalar('I', v); }
  FbxBinaryNode& i64(std::int64_t v) { return scalar('L', v); }
  FbxBinaryNode& f64(double v) { return scalar('D', v); }
  FbxBinaryNode& str(const std::string& v) {
    props_ += 'S';
    append(static_cast<std::uint32_t>(v.size()));
    props_ += v;
    ++count_;
    return *this;
  }
  template <typename T>
  FbxBinaryNode& array(char type, const std::vector<T>& values) {
    props_ += type;
    append(static_cast<std::uint32_t>(values.size()));
    append(std::uint32_t{0});  // not compressed
    append(static_cast<std::uint32_t>(values.size() * sizeof(T)));
    for (const T& v : values) {
      append(v);
    }
    ++count_;
    return *this;
  }
  FbxBinaryNode& child(const std::string& name) { return children_.emplace_back(name); }

  // The record placed at `offset` bytes from the start of the file.
  std::string bytes(std::uint64_t offset) const {
    std::string body;
    const std::uint64_t head = offset + 13 + name_.size() + props_.size();
    for (const FbxBinaryNode& c : children_) {
      body += c.bytes(head + body.size());
    }
    if (!children_.empty()) {
      body.append(13, '\0');
    }
    std::string out;
    auto put32 = [&out](std::uint32_t v) { out.append(reinterpret_cast<const char*>(&v), 4); };
    put32(static_cast<std::uint32_t>(head + body.size()));
    put32(count_);
    put32(static_cast<std::uint32_t>(props_.size()));
    out += static_cast<char>(name_.size());
    out += name_;
    out += props_;
    out += body;
    return out;
  }

 private:
  template <typename T>
  void append(T v) {
    props_.append(reinterpret_cast<const char*>(&v), sizeof v);
  }
  template <typename T>
  FbxBinaryNode& scalar(char type, T v) {
    props_ += type;
    append(v);
    ++count_;
    return *this;
  }

  std::string name_;
  std::string props_;
  std::uint32_t count_ = 0;
  std::deque<FbxBinaryNode> children_;
};

inline void write_fbx_binary(const FbxPart& part, const std::filesystem::path& path) {
  std::vector<FbxBinaryNode> top;
  FbxBinaryNode& header = top.emplace_back("FBXHeaderExtension");
  header.child("FBXHeaderVersion").i32(1003);
  header.child("FBXVersion").i32(7400);

  const std::int64_t geometry_id = 1001, model_id = 2002;
  FbxBinaryNode& objects = top.emplace_back("Objects");
  FbxBinaryNode& geometry = objects.child("Geometry");
  geometry.i64(geometry_id)
      .str(part.name + "Mesh" + std::string("\0\x01", 2) + "Geometry")
      .str("Mesh");
  std::vector<double> vertices;
  for (const auto& p : part.positions) {
    vertices.insert(vertices.end(), p.begin(), p.end());
  }
  std::vector<std::int32_t> polygon_index;
  std::vector<double> normals, uvs;
  std::vector<std::int32_t> uv_index;
  for (const auto& face : part.faces) {
    for (std::size_t k = 0; k < face.size(); ++k) {
      const auto v = static_cast<std::int32_t>(face[k]);
      polygon_index.push_back(k + 1 == face.size() ? -v - 1 : v);  // the last corner negated
      if (!part.normals.empty()) {
        normals.insert(normals.end(), part.normals[v].begin(), part.normals[v].end());
      }
      uv_index.push_back(v);
    }
  }
  for (const auto& t : part.uvs) {
    uvs.insert(uvs.end(), t.begin(), t.end());
  }
  geometry.child("Vertices").array('d', vertices);
  geometry.child("PolygonVertexIndex").array('i', polygon_index);
  FbxBinaryNode& layer = geometry.child("Layer");
  layer.i32(0);
  if (!part.normals.empty()) {
    FbxBinaryNode& n = geometry.child("LayerElementNormal");
    n.i32(0);
    n.child("MappingInformationType").str("ByPolygonVertex");
    n.child("ReferenceInformationType").str("Direct");
    n.child("Normals").array('d', normals);
    FbxBinaryNode& e = layer.child("LayerElement");
    e.child("Type").str("LayerElementNormal");
    e.child("TypedIndex").i32(0);
  }
  if (!part.uvs.empty()) {
    FbxBinaryNode& t = geometry.child("LayerElementUV");
    t.i32(0);
    t.child("MappingInformationType").str("ByPolygonVertex");
    t.child("ReferenceInformationType").str("IndexToDirect");
    t.child("UV").array('d', uvs);
    t.child("UVIndex").array('i', uv_index);
    FbxBinaryNode& e = layer.child("LayerElement");
    e.child("Type").str("LayerElementUV");
    e.child("TypedIndex").i32(0);
  }
  FbxBinaryNode& model = objects.child("Model");
  model.i64(model_id).str(part.name + std::string("\0\x01", 2) + "Model").str("Mesh");
  model.child("Properties70")
      .child("P")
      .str("Lcl Translation")
      .str("Lcl Translation")
      .str("")
      .str("A")
      .f64(part.translation[0])
      .f64(part.translation[1])
      .f64(part.translation[2]);

  FbxBinaryNode& connections = top.emplace_back("Connections");
  connections.child("C").str("OO").i64(geometry_id).i64(model_id);
  connections.child("C").str("OO").i64(model_id).i64(0);

  std::string file("Kaydara FBX Binary  \0\x1a\0", 23);
  const std::uint32_t version = 7400;
  file.append(reinterpret_cast<const char*>(&version), 4);
  for (const FbxBinaryNode& node : top) {
    file += node.bytes(file.size());
  }
  file.append(13, '\0');  // the list of top records ends with an empty one
  std::ofstream(path, std::ios::binary) << file;
}

}  // namespace kv::test
