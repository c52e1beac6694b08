// The mesh cache: every OBJ input that was read is kept as a .kvc file (a .kvm
// file under another extension) in a cache folder, with a small .key text file
// beside it naming the source it was made from. The next time the same,
// unchanged source is asked for, that pair is read instead of the OBJ text.
//
// An entry is two files with one base name, the 16 hex digits of the FNV-1a
// hash of its key text. The .key file is written last and carries the size of
// the finished .kvc, so a torn or replaced entry is a miss, never a wrong mesh.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mesh/mesh.h"
#include "mesh/obj_reader.h"
#include "mesh/triangulate.h"

namespace kv {

// The version line that opens every key text; a change of the cache's format
// changes its number, so old entries simply stop matching.
inline constexpr std::string_view kMeshCacheKeyHeader = "korvane .kvc 3\n";

// The size cap of a cache folder, the bake's included: 8192 MiB.
inline constexpr std::uint64_t kMeshCacheDefaultCapBytes = 8192ull * 1048576ull;

// Left-overs of a store that died are removed once they are this old.
inline constexpr std::int64_t kMeshCacheStaleTempNs = 3600ll * 1000000000ll;

// The key file is replaced through "<key path>.tmp" with this many attempts,
// this far apart, while the target is busy.
inline constexpr int kMeshCacheRenameAttempts = 20;
inline constexpr int kMeshCacheRenameWaitMs = 10;

// The start of the bake's warning when a store fails; the error's text and a
// line break follow.
inline constexpr std::string_view kMeshCacheBakeWarning =
    "korvane: warning: the mesh cache was not written: ";
// The service's form of the same warning.
inline constexpr std::string_view kMeshCacheServiceWarning =
    "korvane serve: the mesh cache was not written: ";

// The per-user default folder: "$XDG_CACHE_HOME/Tintwell/korvane-cache", else
// "$HOME/.cache/Tintwell/korvane-cache"; nothing when neither variable is set.
std::optional<std::filesystem::path> default_mesh_cache_folder();

// The key text of a source for the given quad policy, or nothing when the
// source must bypass the cache: its status cannot be read, it is a symbolic
// link or not a regular file, or its content is not OBJ text.
std::optional<std::string> make_mesh_cache_key(const std::filesystem::path& source,
                                               QuadPolicy quads);

// The key text from its parts (the absolute source path, its size and its
// last-write time in nanoseconds since the Unix epoch).
std::string mesh_cache_key_text(std::string_view absolute_source, std::uint64_t size,
                                std::int64_t mtime_ns, QuadPolicy quads);

// The entry's base name: "%016llx" of the 64-bit FNV-1a hash of the key text.
std::string mesh_cache_entry_name(std::string_view key);

// The entry's two files in the folder.
std::filesystem::path mesh_cache_kvc_path(const std::filesystem::path& folder,
                                          std::string_view key);
std::filesystem::path mesh_cache_key_path(const std::filesystem::path& folder,
                                          std::string_view key);

// The full text of a .key file: the key text, then the counters and the size
// of the finished .kvc, one per line.
std::string mesh_cache_key_file_text(std::string_view key, const MeshStats& stats,
                                     std::uint64_t kvc_size);

// Reads the entry of the key. A damaged or unreadable entry is a silent miss
// (nothing): nothing is printed and nothing deleted. Running out of memory
// (std::bad_alloc, kv::OutOfMemory) is no miss and propagates. On a hit the
// .key file's last-write time becomes now, and when `stats` is given its
// lines, quads_split and polygons_inexact are set from the key file.
std::optional<Mesh> mesh_cache_lookup(const std::filesystem::path& folder, std::string_view key,
                                      int threads, MeshStats* stats);

// Writes the entry of the key (.kvc first, .key last), then trims the folder
// to the cap. Throws kv::Error with the reason on any failure; a cached load
// turns it into a warning and goes on.
void mesh_cache_store(const std::filesystem::path& folder, std::string_view key, const Mesh& mesh,
                      const MeshStats& stats, std::uint64_t cap_bytes);

// Least-recently-used eviction: removes ".tmp" files older than one hour,
// then whole entries, oldest last use first, while the folder holds more than
// cap_bytes; the entry whose .kvc is `kept_kvc` is never removed. Every
// failure is ignored.
void mesh_cache_trim(const std::filesystem::path& folder, const std::filesystem::path& kept_kvc,
                     std::uint64_t cap_bytes);

// Where a cached load keeps its entries; an empty folder disables the cache.
struct MeshCacheSettings {
  std::filesystem::path folder;
  std::uint64_t cap_bytes = kMeshCacheDefaultCapBytes;
  // Put before the text of a failed store (the bake's or the service's).
  std::string_view store_warning = kMeshCacheBakeWarning;
};

// A loaded mesh input with its counters and the warnings the load met, each
// a whole line with its line break, for the caller to show.
struct CachedMeshLoad {
  Mesh mesh;
  MeshStats stats;
  std::vector<std::string> warnings;
};

// The load path of a mesh input: make the key; on a hit return the cached
// mesh and counters; otherwise read the source with read_mesh and, when there
// was a key, store it (a failed store adds a warning and never fails the
// load). The warning about polygons that could not be triangulated exactly
// comes only from a fresh read, never from a hit. Running out of memory, on a
// hit or a read, is kv::OutOfMemory naming the source.
CachedMeshLoad load_mesh_cached(const std::filesystem::path& source, const MeshReadOptions& options,
                                const MeshCacheSettings& cache);

}  // namespace kv
