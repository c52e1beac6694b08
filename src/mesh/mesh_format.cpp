#include "mesh/mesh_format.h"

#include <cstring>

#include "mesh/fbx_reader.h"
#include "mesh/gltf_reader.h"
#include "mesh/isolated_read.h"
#include "mesh/kvm_file.h"
#include "platform/platform.h"

namespace kv {
namespace {

// Up to `size` bytes from the start of the file; fewer (maybe none) when the
// file is shorter or cannot be read.
std::string first_bytes(const std::filesystem::path& path, std::size_t size) {
  int error = 0;
  platform::File file = platform::File::open_read(path, &error);
  if (!file.is_open()) {
    return {};
  }
  std::string bytes(size, '\0');
  const std::int64_t got = file.read_full(bytes.data(), size, &error);
  bytes.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
  return bytes;
}

// The extension of the path's last component, lower-cased: from its last "."
// on; "." and ".." have none.
std::string lower_extension(const std::filesystem::path& path) {
  const std::string text = path.string();
  const std::size_t slash = text.find_last_of("/\\");
  const std::string name = slash == std::string::npos ? text : text.substr(slash + 1);
  if (name == "." || name == "..") {
    return {};
  }
  const std::size_t dot = name.rfind('.');
  if (dot == std::string::npos) {
    return {};
  }
  std::string extension = name.substr(dot);
  for (char& c : extension) {
    if (c >= 'A' && c <= 'Z') {
      c = static_cast<char>(c - 'A' + 'a');
    }
  }
  return extension;
}

}  // namespace

MeshFormat sniff_mesh_format(const std::filesystem::path& path) {
  const std::string magic = first_bytes(path, 8);
  if (magic.size() == 8 && std::memcmp(magic.data(), kKvmMagic, 8) == 0) {
    return MeshFormat::Kvm;
  }
  const std::string extension = lower_extension(path);
  if (extension == ".gltf" || extension == ".glb") {
    return MeshFormat::Gltf;
  }
  if (extension == ".fbx") {
    return MeshFormat::Fbx;
  }
  const std::string head = first_bytes(path, 18);
  if (head.size() >= 4 && head.compare(0, 4, "glTF") == 0) {
    return MeshFormat::Gltf;
  }
  if (head == "Kaydara FBX Binary") {
    return MeshFormat::Fbx;
  }
  return MeshFormat::Obj;
}

namespace {

// `isolate`: glTF and FBX are parsed in a child process (see isolated_read.h).
Mesh read_by_format(const std::filesystem::path& path, const MeshReadOptions& options,
                    MeshStats* stats, bool isolate) {
  switch (sniff_mesh_format(path)) {
    case MeshFormat::Kvm:
      if (stats != nullptr) {
        *stats = MeshStats{};
      }
      return read_kvm(path, options.threads);
    case MeshFormat::Gltf:
      return isolate ? read_isolated(path, MeshFormat::Gltf, options, stats)
                     : read_gltf(path, options, stats);
    case MeshFormat::Fbx:
      return isolate ? read_isolated(path, MeshFormat::Fbx, options, stats)
                     : read_fbx(path, options, stats);
    case MeshFormat::Obj:
      break;
  }
  ObjReadResult result = read_obj(path, options);
  if (stats != nullptr) {
    *stats = result.stats;
  }
  return std::move(result.mesh);
}

}  // namespace

Mesh read_mesh(const std::filesystem::path& path, const MeshReadOptions& options,
               MeshStats* stats) {
  return naming_memory_failures(path, [&] { return read_by_format(path, options, stats, true); });
}

Mesh read_mesh_in_process(const std::filesystem::path& path, const MeshReadOptions& options,
                          MeshStats* stats) {
  return naming_memory_failures(path, [&] { return read_by_format(path, options, stats, false); });
}

OutOfMemory mesh_out_of_memory(const std::filesystem::path& path) {
  return OutOfMemory(path.string() + ": out of memory while reading the mesh");
}

std::string inexact_polygons_warning(std::uint64_t count, const std::filesystem::path& path) {
  return "korvane: warning: " + std::to_string(count) + " faces of " + path.string() +
         " could not be triangulated exactly\n";
}

std::string UniqueNames::make_unique(const std::string& base) {
  if (taken_.insert(base).second) {
    return base;
  }
  for (std::uint64_t k = 1;; ++k) {
    std::string candidate = base + "." + std::to_string(k);
    if (taken_.insert(candidate).second) {
      return candidate;
    }
  }
}

std::uint32_t MaterialTable::index_of(const std::string& name,
                                      std::vector<std::string>& materials) {
  const auto [it, added] = lookup_.emplace(name, static_cast<std::uint32_t>(materials.size()));
  if (added) {
    materials.push_back(name);
  }
  return it->second;
}

}  // namespace kv
