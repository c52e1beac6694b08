// FBX files for the reader tests, written by Assimp's FBX exporter from a scene
// built here: a node per object, each with one mesh of polygons as given. The
// exporter's ASCII form is used: the binary files it writes (version 7500)
// are refused by the importer of the same release.
#pragma once

#include <assimp/material.h>
#include <assimp/scene.h>
#include <assimp/Exporter.hpp>

#include <array>
#include <filesystem>
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

// Writes the parts as ASCII FBX; returns Assimp's error text, empty on
// success.
inline std::string write_fbx(const std::vector<FbxPart>& parts, const std::filesystem::path& path) {
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
    // A copy of the points, or null when there are none.
    auto points = [](const auto& from) -> aiVector3D* {
      if (from.empty()) {
        return nullptr;
      }
      auto* to = new aiVector3D[from.size()];
      for (std::size_t v = 0; v < from.size(); ++v) {
        to[v] = aiVector3D(from[v][0], from[v][1], from[v].size() > 2 ? from[v].back() : 0);
      }
      return to;
    };
    mesh->mVertices = points(part.positions);
    mesh->mNormals = points(part.normals);
    mesh->mTextureCoords[0] = points(part.uvs);
    mesh->mNumUVComponents[0] = part.uvs.empty() ? 0 : 2;
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
    const auto& [sx, sy, sz] = part.scale;
    const auto& [tx, ty, tz] = part.translation;
    node->mTransformation = aiMatrix4x4(sx, 0, 0, tx, 0, sy, 0, ty, 0, 0, sz, tz, 0, 0, 0, 1);
    scene->mRootNode->mChildren[k] = node;
  }
  Assimp::Exporter exporter;
  if (exporter.Export(scene.get(), "fbxa", path.string()) != aiReturn_SUCCESS) {
    return exporter.GetErrorString();
  }
  return {};
}

}  // namespace kv::test
