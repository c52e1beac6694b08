#include "mesh/mesh_cache.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <unordered_map>
#include <vector>

#include "core/error.h"
#include "core/fnv1a.h"
#include "core/parse_number.h"
#include "mesh/kvm_file.h"
#include "mesh/mesh_format.h"
#include "platform/platform.h"

namespace kv {
namespace {

std::int64_t now_ns() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// The extension as the cache reads it: the part of the name from its last
// "." on ("." and ".." have none).
std::string_view extension_of(std::string_view name) {
  if (name == "." || name == "..") {
    return {};
  }
  const std::size_t dot = name.rfind('.');
  return dot == std::string_view::npos ? std::string_view{} : name.substr(dot);
}

bool is_space(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

std::vector<std::string_view> split_whitespace(std::string_view text) {
  std::vector<std::string_view> tokens;
  std::size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && is_space(text[i])) {
      ++i;
    }
    const std::size_t start = i;
    while (i < text.size() && !is_space(text[i])) {
      ++i;
    }
    if (i > start) {
      tokens.push_back(text.substr(start, i - start));
    }
  }
  return tokens;
}

// The counters after the key text: exactly these four names, in this order,
// each followed by an unsigned decimal number.
struct KeyFileTail {
  MeshStats stats;
  std::uint64_t kvc_size = 0;
};

std::optional<KeyFileTail> parse_key_file_tail(std::string_view text) {
  static constexpr std::array<std::string_view, 4> kNames = {"lines", "quads_split",
                                                             "polygons_inexact", "kvc"};
  const std::vector<std::string_view> tokens = split_whitespace(text);
  if (tokens.size() != 2 * kNames.size()) {
    return std::nullopt;
  }
  std::array<std::uint64_t, 4> values{};
  for (std::size_t i = 0; i < kNames.size(); ++i) {
    if (tokens[2 * i] != kNames[i]) {
      return std::nullopt;
    }
    const std::optional<std::uint64_t> value = parse_uint64(tokens[2 * i + 1]);
    if (!value) {
      return std::nullopt;
    }
    values[i] = *value;
  }
  KeyFileTail tail;
  tail.stats.lines = values[0];
  tail.stats.quads_split = values[1];
  tail.stats.polygons_inexact = values[2];
  tail.kvc_size = values[3];
  return tail;
}

std::optional<Mesh> lookup_or_throw(const std::filesystem::path& folder, std::string_view key,
                                    int threads, MeshStats* stats) {
  const std::filesystem::path kvc_path = mesh_cache_kvc_path(folder, key);
  const std::filesystem::path key_path = mesh_cache_key_path(folder, key);
  int error = 0;
  const std::optional<std::string> key_file = platform::read_file(key_path, &error);
  if (!key_file || key.empty() || !key_file->starts_with(key)) {
    return std::nullopt;
  }
  const std::optional<KeyFileTail> tail =
      parse_key_file_tail(std::string_view(*key_file).substr(key.size()));
  if (!tail) {
    return std::nullopt;
  }
  // A .kvc replaced or cut after its key was written has another size.
  const std::optional<platform::FileStatus> kvc_status = platform::file_status(kvc_path, &error);
  if (!kvc_status || !kvc_status->is_regular || kvc_status->size != tail->kvc_size) {
    return std::nullopt;
  }
  Mesh mesh = read_kvm(kvc_path, threads);
  if (platform::set_last_write_time(key_path, now_ns()) != 0) {
    return std::nullopt;
  }
  if (stats != nullptr) {
    stats->lines = tail->stats.lines;
    stats->quads_split = tail->stats.quads_split;
    stats->polygons_inexact = tail->stats.polygons_inexact;
  }
  return mesh;
}

// Writes the key file through "<key path>.tmp" and moves it into place, so a
// reader sees either no key or a complete one.
void write_key_file(const std::filesystem::path& key_path, std::string_view text) {
  std::filesystem::path temp_path = key_path;
  temp_path += ".tmp";
  int error = 0;
  platform::File file = platform::File::create_truncate(temp_path, &error);
  if (!file.is_open()) {
    throw Error("cannot write the cache file " + key_path.string());
  }
  if (file.write_all(text.data(), text.size()) != 0 || file.close() != 0) {
    platform::remove_file(temp_path);
    throw Error("cannot write the cache file " + key_path.string());
  }
  for (int attempt = 1;; ++attempt) {
    error = platform::rename_replace(temp_path, key_path);
    if (error == 0) {
      return;
    }
    if (!platform::is_transient_rename_error(error) || attempt == kMeshCacheRenameAttempts) {
      break;
    }
    platform::sleep_ms(kMeshCacheRenameWaitMs);
  }
  platform::remove_file(temp_path);
  throw Error("cannot replace the cache file " + key_path.string() + ": " +
              platform::system_error_text(error));
}

}  // namespace

std::optional<std::filesystem::path> default_mesh_cache_folder() {
  std::filesystem::path base;
  if (std::optional<std::string> xdg = platform::get_env("XDG_CACHE_HOME"); xdg && !xdg->empty()) {
    base = *xdg;
  } else if (std::optional<std::string> home = platform::get_env("HOME"); home && !home->empty()) {
    base = std::filesystem::path(*home) / ".cache";
  } else {
    return std::nullopt;
  }
  return base / "Tintwell" / "korvane-cache";
}

std::string mesh_cache_key_text(std::string_view absolute_source, std::uint64_t size,
                                std::int64_t mtime_ns, QuadPolicy quads) {
  std::string key(kMeshCacheKeyHeader);
  key += "source ";
  key += absolute_source;
  key += "\nsize ";
  key += std::to_string(size);
  key += "\ntime ";
  key += std::to_string(mtime_ns);
  key += "\nquads ";
  key += quads == QuadPolicy::reject ? "reject" : "split";
  key += "\n";
  return key;
}

std::optional<std::string> make_mesh_cache_key(const std::filesystem::path& source,
                                               QuadPolicy quads) {
  int error = 0;
  const std::optional<platform::FileStatus> status = platform::file_status(source, &error);
  if (!status || status->is_symlink || !status->is_regular) {
    return std::nullopt;
  }
  if (sniff_mesh_format(source) != MeshFormat::Obj) {
    return std::nullopt;
  }
  return mesh_cache_key_text(platform::absolute_path(source).string(), status->size,
                             status->mtime_ns, quads);
}

std::string mesh_cache_entry_name(std::string_view key) {
  return fnv1a_hex(fnv1a(key));
}

std::filesystem::path mesh_cache_kvc_path(const std::filesystem::path& folder,
                                          std::string_view key) {
  return folder / (mesh_cache_entry_name(key) + ".kvc");
}

std::filesystem::path mesh_cache_key_path(const std::filesystem::path& folder,
                                          std::string_view key) {
  return folder / (mesh_cache_entry_name(key) + ".key");
}

std::string mesh_cache_key_file_text(std::string_view key, const MeshStats& stats,
                                     std::uint64_t kvc_size) {
  std::string text(key);
  text += "lines " + std::to_string(stats.lines) + "\n";
  text += "quads_split " + std::to_string(stats.quads_split) + "\n";
  text += "polygons_inexact " + std::to_string(stats.polygons_inexact) + "\n";
  text += "kvc " + std::to_string(kvc_size) + "\n";
  return text;
}

std::optional<Mesh> mesh_cache_lookup(const std::filesystem::path& folder, std::string_view key,
                                      int threads, MeshStats* stats) {
  // A damaged or unreadable entry is a miss: the caller reads the source as if
  // there were no cache. Running out of memory is no fault of the entry.
  try {
    return lookup_or_throw(folder, key, threads, stats);
  } catch (const OutOfMemory&) {
    throw;
  } catch (const Error&) {
    return std::nullopt;
  }
}

void mesh_cache_store(const std::filesystem::path& folder, std::string_view key, const Mesh& mesh,
                      const MeshStats& stats, std::uint64_t cap_bytes) {
  if (const int error = platform::create_directories(folder); error != 0) {
    throw Error("cannot create the cache folder " + folder.string() + ": " +
                platform::system_error_text(error));
  }
  const std::filesystem::path kvc_path = mesh_cache_kvc_path(folder, key);
  const std::filesystem::path key_path = mesh_cache_key_path(folder, key);
  // Without its key the entry cannot be taken for valid while the .kvc changes.
  platform::remove_file(key_path);

  // Doubles and stored normals keep UVs and normals bit for bit; the material
  // table is not kept.
  const std::uint32_t flags =
      kKvmUvDouble | kKvmNormalsAsIs | (mesh.blocks.empty() ? 0 : kKvmBlocks);
  write_kvm(kvc_path, mesh, flags);

  int error = 0;
  const std::optional<platform::FileStatus> kvc_status = platform::file_status(kvc_path, &error);
  if (!kvc_status) {
    throw Error("cannot read the size of " + kvc_path.string() + ": " +
                platform::system_error_text(error));
  }
  write_key_file(key_path, mesh_cache_key_file_text(key, stats, kvc_status->size));
  mesh_cache_trim(folder, kvc_path, cap_bytes);
}

void mesh_cache_trim(const std::filesystem::path& folder, const std::filesystem::path& kept_kvc,
                     std::uint64_t cap_bytes) {
  const std::int64_t now = now_ns();
  int error = 0;
  const std::optional<std::vector<platform::DirEntry>> listing =
      platform::list_directory(folder, &error);
  if (!listing) {
    return;
  }

  std::unordered_map<std::string, const platform::FileStatus*> by_name;
  for (const platform::DirEntry& entry : *listing) {
    by_name.emplace(entry.name, &entry.status);
  }

  struct Entry {
    std::string kvc_name;
    std::string key_name;
    std::uint64_t bytes = 0;
    std::int64_t last_use = 0;
  };
  std::vector<Entry> entries;
  std::uint64_t total = 0;
  for (const platform::DirEntry& entry : *listing) {
    if (entry.status.is_directory) {
      continue;
    }
    const std::string_view extension = extension_of(entry.name);
    if (extension == ".tmp") {
      // A left-over of a store that died; a young one may still be in use.
      if (entry.status.mtime_ns < now - kMeshCacheStaleTempNs) {
        platform::remove_file(folder / entry.name);
      }
      continue;
    }
    if (extension != ".kvc") {
      continue;
    }
    Entry item;
    item.kvc_name = entry.name;
    item.key_name = entry.name.substr(0, entry.name.size() - 4) + ".key";
    item.bytes = entry.status.size;
    item.last_use = entry.status.mtime_ns;
    // The key's time is the last use; a .kvc left without key by a store
    // that died counts by its own, older, write time.
    if (const auto key = by_name.find(item.key_name); key != by_name.end()) {
      item.bytes += key->second->size;
      item.last_use = key->second->mtime_ns;
    }
    total += item.bytes;
    entries.push_back(std::move(item));
  }

  std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
    return a.last_use != b.last_use ? a.last_use < b.last_use : a.kvc_name < b.kvc_name;
  });

  const std::string kept_name = kept_kvc.filename().string();
  for (const Entry& entry : entries) {
    if (total <= cap_bytes) {
      break;
    }
    if (entry.kvc_name == kept_name) {
      continue;
    }
    if (platform::remove_file(folder / entry.kvc_name) != 0) {
      continue;
    }
    platform::remove_file(folder / entry.key_name);
    total -= entry.bytes;
  }
}

CachedMeshLoad load_mesh_cached(const std::filesystem::path& source, const MeshReadOptions& options,
                                const MeshCacheSettings& cache) {
  CachedMeshLoad load;
  std::optional<std::string> key;
  if (!cache.folder.empty()) {
    key = make_mesh_cache_key(source, options.quads);
  }
  if (key) {
    // The cached copy stands in for the source, so the source is named.
    std::optional<Mesh> hit = naming_memory_failures(source, [&] {
      return mesh_cache_lookup(cache.folder, *key, options.threads, &load.stats);
    });
    if (hit) {
      load.mesh = std::move(*hit);
      return load;
    }
  }

  load.mesh = read_mesh(source, options, &load.stats);
  if (load.stats.polygons_inexact != 0) {
    load.warnings.push_back(inexact_polygons_warning(load.stats.polygons_inexact, source));
  }
  if (key) {
    try {
      mesh_cache_store(cache.folder, *key, load.mesh, load.stats, cache.cap_bytes);
    } catch (const std::exception& failure) {
      load.warnings.push_back(std::string(cache.store_warning) + failure.what() + "\n");
    }
  }
  return load;
}

}  // namespace kv
