#include "transfer/texture_bindings.h"

#include <algorithm>
#include <limits>
#include <string>

#include "core/error.h"

namespace kv::transfer {
namespace {

constexpr std::size_t kMaxTextures = std::numeric_limits<std::int16_t>::max();

// What one texture covers: a set of objects and a set of materials, each
// "every" when none is named.
struct Coverage {
  std::vector<std::uint8_t> objects;    // per source object; empty: every object
  std::vector<std::uint8_t> materials;  // per source material; empty: every material
};

std::uint32_t index_of(const std::vector<std::string>& names, const std::string& name,
                       const char* what) {
  const auto found = std::find(names.begin(), names.end(), name);
  if (found == names.end()) {
    throw Error(std::string("transfer: the source mesh has no ") + what + " named '" + name + "'");
  }
  return static_cast<std::uint32_t>(found - names.begin());
}

Coverage coverage_of(const Mesh& source, const TextureRequest& texture) {
  Coverage c;
  if (!texture.bind_objects.empty()) {
    c.objects.assign(source.objects.size(), 0);
    for (const std::string& name : texture.bind_objects) {
      c.objects[index_of(source.objects, name, "object")] = 1;
    }
  }
  if (!texture.bind_materials.empty()) {
    if (source.materials.empty() || source.triangle_materials.size() != source.triangles.size()) {
      throw Error("transfer: a binding by material needs a source with material names");
    }
    c.materials.assign(source.materials.size(), 0);
    for (const std::string& name : texture.bind_materials) {
      c.materials[index_of(source.materials, name, "material")] = 1;
    }
  }
  return c;
}

// The first index both sets hold (sets that are empty hold everything), or
// -1 when they share none.
std::int64_t first_shared(const std::vector<std::uint8_t>& a, const std::vector<std::uint8_t>& b,
                          std::size_t universe) {
  for (std::size_t i = 0; i < universe; ++i) {
    if ((a.empty() || a[i] != 0) && (b.empty() || b[i] != 0)) {
      return static_cast<std::int64_t>(i);
    }
  }
  return -1;
}

// Two textures may not both cover one triangle.
void check_no_overlap(const Mesh& source, const Coverage& a, const Coverage& b) {
  const std::int64_t object = first_shared(a.objects, b.objects, source.objects.size());
  if (object < 0) {
    return;
  }
  const std::size_t materials = std::max<std::size_t>(source.materials.size(), 1);
  const bool any_material = (a.materials.empty() && b.materials.empty()) ||
                            first_shared(a.materials, b.materials, materials) >= 0;
  if (!any_material) {
    return;
  }
  if (a.objects.empty() && b.objects.empty()) {
    const std::int64_t material = first_shared(a.materials, b.materials, materials);
    throw Error("transfer: material " + source.materials[static_cast<std::size_t>(material)] +
                " is bound twice in one output");
  }
  throw Error("transfer: object " + source.objects[static_cast<std::size_t>(object)] +
              " is bound twice in one output");
}

bool covers(const Coverage& c, const Mesh& source, std::size_t t) {
  const Triangle& triangle = source.triangles[t];
  if (!c.objects.empty() &&
      (triangle.object >= c.objects.size() || c.objects[triangle.object] == 0)) {
    return false;
  }
  if (!c.materials.empty()) {
    const std::uint32_t material = source.triangle_materials[t];
    return material < c.materials.size() && c.materials[material] != 0;
  }
  return true;
}

}  // namespace

std::vector<std::int16_t> bind_textures(const Mesh& source, const OutputRequest& output,
                                        TransferMode mode) {
  const bool any_binding = std::any_of(output.textures.begin(), output.textures.end(),
                                       [](const TextureRequest& t) { return t.bound(); });
  if (mode == TransferMode::uv2uv && (output.textures.size() > 1 || any_binding)) {
    throw Error("transfer: a UV-to-UV output reads one texture over every object");
  }
  if (output.textures.size() == 1 && !any_binding) {
    return {};
  }
  for (const TextureRequest& texture : output.textures) {
    if (!texture.bound()) {
      throw Error(
          "transfer: a texture without bindings covers every object and must be its "
          "output's only texture");
    }
  }
  if (output.textures.size() > kMaxTextures) {
    throw Error("transfer: an output reads at most " + std::to_string(kMaxTextures) + " textures");
  }
  std::vector<Coverage> coverage;
  for (const TextureRequest& texture : output.textures) {
    coverage.push_back(coverage_of(source, texture));
    for (std::size_t j = 0; j + 1 < coverage.size(); ++j) {
      check_no_overlap(source, coverage[j], coverage.back());
    }
  }
  std::vector<std::int16_t> texture_of(source.triangles.size(), -1);
  for (std::size_t t = 0; t < texture_of.size(); ++t) {
    for (std::size_t k = 0; k < coverage.size(); ++k) {
      if (covers(coverage[k], source, t)) {
        texture_of[t] = static_cast<std::int16_t>(k);
        break;
      }
    }
  }
  return texture_of;
}

}  // namespace kv::transfer
