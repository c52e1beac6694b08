#include "mesh/fbx_reader.h"

#include <assimp/config.h>
#include <assimp/material.h>
#include <assimp/scene.h>
#include <assimp/Importer.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "core/error.h"
#include "core/parallel.h"
#include "mesh/mesh_format.h"
#include "mesh/node_transform.h"
#include "mesh/read_budget.h"
#include "mesh/triangulate.h"
#include "platform/platform.h"

namespace kv {
namespace {

constexpr std::uint64_t kMaxElements = 2147483647;

// Row-major 4x4 matrix acting on column vectors, as Assimp stores it.

Mat4 to_mat4(const aiMatrix4x4& m) {
  return {{{m.a1, m.a2, m.a3, m.a4},
           {m.b1, m.b2, m.b3, m.b4},
           {m.c1, m.c2, m.c3, m.c4},
           {m.d1, m.d2, m.d3, m.d4}}};
}

class FbxReader {
 public:
  FbxReader(const std::filesystem::path& path, const aiScene& scene, const FacePolicy& policy)
      : path_(path), prefix_(path.string() + ": "), scene_(scene), policy_(policy) {}

  Mesh read(const WorkerPool& pool, const ReadBudget& budget, MeshStats& stats);

 private:
  [[noreturn]] void fail(const std::string& message) const { throw Error(prefix_ + message); }

  MeshEstimate mesh_counts(unsigned int index) const;
  void check_placed_counts(const ReadBudget& budget) const;
  void add_node(const aiNode& node, const Mat4& world);
  void add_mesh(const aiMesh& source, const Mat4& world, std::uint32_t object);
  std::uint32_t material_index(unsigned int material);

  const std::filesystem::path& path_;
  std::string prefix_;
  const aiScene& scene_;
  FacePolicy policy_;
  Mesh mesh_;
  UniqueNames object_names_;
  MaterialTable materials_;
  std::vector<PolygonRecord> polygons_;
  std::uint64_t quads_split_ = 0;
};

std::uint32_t FbxReader::material_index(unsigned int material) {
  std::string name = "default";
  if (material < scene_.mNumMaterials && scene_.mMaterials[material] != nullptr) {
    aiString text;
    if (scene_.mMaterials[material]->Get(AI_MATKEY_NAME, text) == aiReturn_SUCCESS &&
        text.length > 0) {
      name = text.C_Str();
    } else {
      name = "material " + std::to_string(material);
    }
  }
  return materials_.index_of(name, mesh_.materials);
}

// Appends one mesh's polygons, its vertices placed by `world`.
void FbxReader::add_mesh(const aiMesh& source, const Mat4& world, std::uint32_t object) {
  const std::string what = "mesh '" + std::string(source.mName.C_Str()) + "'";
  const NodeTransform transform(world);
  const bool mirrored = transform.mirrored();

  const std::uint64_t position_base = mesh_.positions.size();
  for (unsigned int v = 0; v < source.mNumVertices; ++v) {
    const aiVector3D& s = source.mVertices[v];
    const std::array<float, 3> p = transform.point(s.x, s.y, s.z);
    if (!std::isfinite(p[0]) || !std::isfinite(p[1]) || !std::isfinite(p[2])) {
      fail(what + " has the position " + std::to_string(v) + ", which is not finite");
    }
    mesh_.positions.push_back(p);
  }

  const bool has_normals = source.mNormals != nullptr;
  const std::uint64_t normal_base = mesh_.normals.size();
  if (has_normals) {
    for (unsigned int v = 0; v < source.mNumVertices; ++v) {
      const aiVector3D& n = source.mNormals[v];
      std::array<float, 3> unit{};
      if (!transform.normal(n.x, n.y, n.z, unit)) {
        fail(what + " has the normal " + std::to_string(v) + ", which has no direction");
      }
      mesh_.normals.push_back(unit);
    }
  }

  const bool has_uvs = source.mTextureCoords[0] != nullptr;
  const std::uint64_t uv_base = mesh_.uvs.size();
  if (has_uvs) {
    for (unsigned int v = 0; v < source.mNumVertices; ++v) {
      const aiVector3D& t = source.mTextureCoords[0][v];
      if (!std::isfinite(t.x) || !std::isfinite(t.y)) {
        fail(what + " has the texture coordinate " + std::to_string(v) + ", which is not finite");
      }
      mesh_.uvs.push_back({static_cast<double>(t.x), static_cast<double>(t.y)});
    }
  }

  const std::uint32_t material = material_index(source.mMaterialIndex);
  std::vector<unsigned int> corners;
  for (unsigned int f = 0; f < source.mNumFaces; ++f) {
    const aiFace& face = source.mFaces[f];
    if (face.mNumIndices < 3) {
      continue;  // points and lines carry no faces
    }
    check_face(face.mNumIndices, policy_, prefix_);
    // A mirroring transform turns the winding around: the corners are taken
    // in reverse from corner 0, which keeps a quad's split diagonal.
    corners.assign(face.mIndices, face.mIndices + face.mNumIndices);
    if (mirrored) {
      std::reverse(corners.begin() + 1, corners.end());
    }
    for (unsigned int i : corners) {
      if (i >= source.mNumVertices) {
        fail(what + " has a face with the vertex index " + std::to_string(i) + ", but only " +
             std::to_string(source.mNumVertices) + " vertices");
      }
    }
    const std::size_t n = corners.size();
    if (n == 4) {
      ++quads_split_;
    } else if (n >= 5) {
      polygons_.push_back({mesh_.triangles.size(), static_cast<std::uint32_t>(n)});
    }
    for (std::size_t t = 0; t < face_triangle_count(n); ++t) {
      const LocalTriangle local = face_triangle(n, t);
      Triangle tri;
      for (std::size_t k = 0; k < 3; ++k) {
        const unsigned int i = corners[local[k]];
        tri.corners[k].position = static_cast<std::uint32_t>(position_base + i);
        tri.corners[k].uv = has_uvs ? static_cast<std::int32_t>(uv_base + i) : -1;
        tri.corners[k].normal = has_normals ? static_cast<std::int32_t>(normal_base + i) : -1;
      }
      tri.object = object;
      mesh_.triangles.push_back(tri);
      mesh_.triangle_materials.push_back(material);
    }
  }
  if (mesh_.positions.size() > kMaxElements || mesh_.normals.size() > kMaxElements ||
      mesh_.uvs.size() > kMaxElements || mesh_.triangles.size() > kMaxElements) {
    fail("too many elements");
  }
}

// The elements add_mesh pushes for one mesh; none for a reference that does
// not resolve (add_node refuses it).
MeshEstimate FbxReader::mesh_counts(unsigned int index) const {
  MeshEstimate counts;
  if (index >= scene_.mNumMeshes || scene_.mMeshes[index] == nullptr) {
    return counts;
  }
  const aiMesh& source = *scene_.mMeshes[index];
  std::uint64_t largest_face = 0;
  for (unsigned int f = 0; f < source.mNumFaces; ++f) {
    const std::uint64_t n = source.mFaces[f].mNumIndices;
    counts.triangles += n >= 3 ? n - 2 : 0;
    largest_face = std::max(largest_face, n);
  }
  counts.positions = source.mNumVertices;
  counts.normals = source.mNormals != nullptr ? source.mNumVertices : 0;
  counts.uvs = source.mTextureCoords[0] != nullptr ? source.mNumVertices : 0;
  counts.working_bytes = 4 * largest_face;
  return counts;
}

// Nodes may share a mesh, each placing its elements anew: the totals are held
// against the mesh limits and the memory budget before anything is pushed.
void FbxReader::check_placed_counts(const ReadBudget& budget) const {
  std::vector<MeshEstimate> per_mesh(scene_.mNumMeshes);
  for (unsigned int m = 0; m < scene_.mNumMeshes; ++m) {
    per_mesh[m] = mesh_counts(m);
  }
  const auto capped = [](std::uint64_t a, std::uint64_t b) {
    return std::min(a + b, kMaxElements + 1);  // each term is below 2^33
  };
  MeshEstimate total;
  std::vector<const aiNode*> stack = {scene_.mRootNode};
  while (!stack.empty()) {
    const aiNode* node = stack.back();
    stack.pop_back();
    for (unsigned int k = 0; k < node->mNumMeshes; ++k) {
      if (node->mMeshes[k] < per_mesh.size()) {
        const MeshEstimate& e = per_mesh[node->mMeshes[k]];
        total.positions = capped(total.positions, e.positions);
        total.normals = capped(total.normals, e.normals);
        total.uvs = capped(total.uvs, e.uvs);
        total.triangles = capped(total.triangles, std::min(e.triangles, kMaxElements + 1));
        total.working_bytes = std::max(total.working_bytes, e.working_bytes);
      }
    }
    for (unsigned int c = 0; c < node->mNumChildren; ++c) {
      if (node->mChildren[c] != nullptr) {
        stack.push_back(node->mChildren[c]);
      }
    }
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
  budget.check_mesh(path_, total);
}

void FbxReader::add_node(const aiNode& node, const Mat4& world) {
  if (node.mNumMeshes == 0) {
    return;
  }
  std::string base = node.mName.C_Str();
  const auto object = static_cast<std::uint32_t>(mesh_.objects.size());
  const std::size_t triangles_before = mesh_.triangles.size();
  for (unsigned int k = 0; k < node.mNumMeshes; ++k) {
    const unsigned int index = node.mMeshes[k];
    if (index >= scene_.mNumMeshes || scene_.mMeshes[index] == nullptr) {
      fail("node '" + base + "' refers to mesh " + std::to_string(index) +
           ", which does not exist");
    }
    const aiMesh& source = *scene_.mMeshes[index];
    if (base.empty()) {
      base = source.mName.C_Str();
    }
    add_mesh(source, world, object);
  }
  if (mesh_.triangles.size() != triangles_before) {
    mesh_.objects.push_back(object_names_.make_unique(base.empty() ? "node" : base));
  }
}

Mesh FbxReader::read(const WorkerPool& pool, const ReadBudget& budget, MeshStats& stats) {
  if (scene_.mRootNode == nullptr) {
    fail("the file holds no scene");
  }
  check_placed_counts(budget);
  // Depth first, children in their stored order, without recursion.
  struct Pending {
    const aiNode* node;
    Mat4 parent;
  };
  std::vector<Pending> stack = {{scene_.mRootNode, mat4_identity()}};
  while (!stack.empty()) {
    const Pending next = stack.back();
    stack.pop_back();
    const Mat4 world = mat4_multiply(next.parent, to_mat4(next.node->mTransformation));
    for (const auto& row : world) {
      for (double v : row) {
        if (!std::isfinite(v)) {
          fail("node '" + std::string(next.node->mName.C_Str()) +
               "' has a transform that is not finite");
        }
      }
    }
    add_node(*next.node, world);
    for (unsigned int c = next.node->mNumChildren; c-- > 0;) {
      if (next.node->mChildren[c] != nullptr) {
        stack.push_back({next.node->mChildren[c], world});
      }
    }
  }
  if (mesh_.triangles.empty()) {
    fail("mesh has no faces");
  }
  stats.quads_split = quads_split_;
  stats.polygons_inexact = retriangulate_polygons(mesh_, polygons_, &pool);
  return std::move(mesh_);
}

}  // namespace

Mesh read_fbx(const std::filesystem::path& path, const MeshReadOptions& options, MeshStats* stats) {
  ReadBudget budget(options);
  const std::string bytes =
      budget.read_whole_file(path, std::numeric_limits<std::size_t>::max(), "an FBX file");
  Assimp::Importer importer;
  // Pivots evaluated into the node transforms, so every mesh hangs below the
  // node that names it; only geometry and material names are wanted.
  importer.SetPropertyBool(AI_CONFIG_IMPORT_FBX_PRESERVE_PIVOTS, false);
  importer.SetPropertyBool(AI_CONFIG_IMPORT_FBX_READ_TEXTURES, false);
  importer.SetPropertyBool(AI_CONFIG_IMPORT_FBX_READ_ANIMATIONS, false);
  importer.SetPropertyBool(AI_CONFIG_IMPORT_FBX_READ_CAMERAS, false);
  importer.SetPropertyBool(AI_CONFIG_IMPORT_FBX_READ_LIGHTS, false);
  // No post-processing: polygons arrive as stored and our own rule splits them.
  const aiScene* scene = importer.ReadFileFromMemory(bytes.data(), bytes.size(), 0, "fbx");
  if (scene == nullptr) {
    std::string reason = importer.GetErrorString();
    while (!reason.empty() && (reason.back() == '\n' || reason.back() == ' ')) {
      reason.pop_back();
    }
    throw Error(path.string() + ": not a readable FBX file" +
                (reason.empty() ? "" : ": " + reason));
  }
  FacePolicy policy;
  policy.quads = options.quads;
  policy.polygons = options.polygons;
  MeshStats local;
  WorkerPool pool(options.threads);
  FbxReader reader(path, *scene, policy);
  Mesh mesh = reader.read(pool, budget, local);
  if (stats != nullptr) {
    *stats = local;
  }
  return mesh;
}

}  // namespace kv
