#include "service/request_rules.h"

#include <algorithm>
#include <set>

#include "image/texel_image.h"
#include "service/memory_estimate.h"

namespace kv::service {
namespace {

constexpr std::size_t kMaxKeyBytes = 1024;
constexpr std::size_t kMaxNames = 4096;
constexpr std::size_t kMaxNameBytes = 1024;
constexpr std::size_t kMaxNameTotal = 262144;

std::string indexed(std::string_view field, std::size_t i) {
  return std::string(field) + "[" + std::to_string(i) + "]";
}

// A whole number from 1 to `most`, else `text`.
std::uint64_t read_whole(const FieldReader& t, std::string_view field, std::uint64_t most,
                         std::string_view text) {
  const std::uint64_t value = t.non_negative(field);
  if (value < 1 || value > most) {
    t.fail(field, text);
  }
  return value;
}

}  // namespace

std::string read_key(const FieldReader& fields, const Json& value, std::string_view field) {
  const std::string key = fields.string(value, field, true, 8192);
  if (key.size() > kMaxKeyBytes) {
    fields.fail(field, "keys must be 1 to 1024 bytes");
  }
  return key;
}

std::vector<std::string> read_keys(const FieldReader& fields, std::string_view field) {
  const Json& value = fields.at(field);
  if (value.is_string()) {
    return {read_key(fields, value, field)};
  }
  if (!value.is_array() || value.empty()) {
    fields.fail(field, "expected a key or a list of keys, got " + json_type_name(value));
  }
  std::vector<std::string> keys;
  for (std::size_t i = 0; i < value.size(); ++i) {
    keys.push_back(read_key(fields, value[i], indexed(field, i)));
  }
  return keys;
}

MeshPlacement read_placement(const FieldReader& fields) {
  MeshPlacement placement;
  if (fields.has("up")) {
    const std::string up = fields.string("up");
    if (up != "Y" && up != "Z") {
      fields.fail("up", "expected Y or Z");
    }
    if (fields.has("matrix")) {
      fields.fail("up", "give up or matrix, not both");
    }
    placement.up_y = up == "Y";
  }
  if (fields.has("matrix")) {
    const std::vector<double> m =
        fields.numbers(fields.at("matrix"), "matrix", 16, "every element must be finite");
    if (m[12] != 0.0 || m[13] != 0.0 || m[14] != 0.0 || m[15] != 1.0) {
      fields.fail("matrix", "the last row must be 0 0 0 1");
    }
    std::array<double, 16> matrix{};
    std::copy(m.begin(), m.end(), matrix.begin());
    placement.matrix = matrix;
  }
  return placement;
}

std::vector<std::string> read_name_filter(const FieldReader& fields, std::string_view field) {
  std::vector<std::string> names = fields.strings(fields.at(field), field);
  if (names.size() > kMaxNames) {
    fields.fail(field, "at most 4096 names");
  }
  std::set<std::string_view> seen;
  std::size_t total = 0;
  for (const std::string& name : names) {
    if (name.empty() || name.size() > kMaxNameBytes) {
      fields.fail(field, "names must be 1 to 1024 bytes");
    }
    if (!seen.insert(name).second) {
      fields.fail(field, "names must not repeat");
    }
    total += name.size();
  }
  if (total > kMaxNameTotal) {
    fields.fail(field, "the names must total at most 262144 bytes");
  }
  return names;
}

QuadPolicy read_quads(const FieldReader& fields) {
  if (!fields.has("quads")) {
    return QuadPolicy::split;
  }
  const std::string quads = fields.string("quads");
  if (quads != "split" && quads != "reject") {
    fields.fail("quads", "expected split or reject");
  }
  return quads == "reject" ? QuadPolicy::reject : QuadPolicy::split;
}

std::vector<SectionObject> read_section_objects(const FieldReader& fields) {
  const Json& list = fields.objects(fields.at("objects"), "objects");
  std::vector<SectionObject> objects;
  for (std::size_t i = 0; i < list.size(); ++i) {
    const FieldReader o(list[i], fields.context() + ": " + indexed("objects", i), fields.id());
    o.expect({"name", "vertices", "triangles", "positions", "indices"}, {"uvs", "normals"});
    SectionObject object;
    object.name = o.string("name", true, kMaxNameBytes);
    object.vertices = o.non_negative("vertices");
    object.triangles = o.non_negative("triangles");
    object.positions = o.non_negative("positions");
    object.indices = o.non_negative("indices");
    if (o.has("uvs")) {
      object.uvs = o.non_negative("uvs");
    }
    if (o.has("normals")) {
      object.normals = o.non_negative("normals");
    }
    objects.push_back(std::move(object));
  }
  return objects;
}

std::uint32_t read_antialias(const FieldReader& fields) {
  const std::uint64_t aa = fields.non_negative("antialias");
  if (aa != 1 && aa != 2 && aa != 4 && aa != 8) {
    fields.fail("antialias", "expected 1, 2, 4 or 8");
  }
  return static_cast<std::uint32_t>(aa);
}

bool read_backend_is_gpu(const FieldReader& fields) {
  const std::string backend = fields.string("backend");
  if (backend != "cpu" && backend != "gpu") {
    fields.fail("backend", "expected cpu or gpu");
  }
  return backend == "gpu";
}

std::vector<std::string> read_maps(const FieldReader& fields) {
  // The names are those the estimate knows, so an accepted map is priced;
  // a transfer is priced by its textures.
  const std::vector<std::string>& known = estimate_map_names();
  std::vector<std::string> maps = fields.strings(fields.at("maps"), "maps");
  if (maps.empty()) {
    fields.fail("maps", "needs at least one map");
  }
  for (const std::string& map : maps) {
    if (map != kTransferMap && std::find(known.begin(), known.end(), map) == known.end()) {
      fields.fail("maps", "unknown map \"" + map + "\"");
    }
  }
  return maps;
}

std::vector<TextureShape> read_estimate_textures(const FieldReader& fields) {
  constexpr std::size_t kMostTextures = 64;
  const Json& value = fields.at("textures");
  if (value.is_array() && (value.empty() || value.size() > kMostTextures)) {
    fields.fail("textures", "must be a list of 1 to 64 textures");
  }
  const Json& list = fields.objects(value, "textures");
  std::vector<TextureShape> textures;
  for (std::size_t i = 0; i < list.size(); ++i) {
    const FieldReader t(list[i], fields.context() + ": " + indexed("textures", i), fields.id());
    t.expect({"width", "height", "channels", "type"}, {});
    TextureShape texture;
    texture.width = read_whole(t, "width", kMaxImageSide, "must be 1 to 16384 texels");
    texture.height = read_whole(t, "height", kMaxImageSide, "must be 1 to 16384 texels");
    texture.channels = read_whole(t, "channels", 4, "must be 1 to 4");
    const std::string type = t.string("type");
    for (const ComponentType known :
         {ComponentType::kU8, ComponentType::kU16, ComponentType::kF16, ComponentType::kF32}) {
      if (type == component_type_name(known)) {
        texture.component_bytes = component_bytes(known);
      }
    }
    if (texture.component_bytes == 0) {
      t.fail("type", "expected u8, u16, f16 or f32");
    }
    // 8- and 16-bit textures may come as PNG files, the costlier read.
    if (type == "u8" || type == "u16") {
      texture.png_file_bytes = stored_png_file_bytes(texture);
    }
    textures.push_back(texture);
  }
  return textures;
}

}  // namespace kv::service
