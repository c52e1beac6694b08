#include "mesh/mesh_cache.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <new>
#include <set>
#include <string>
#include <vector>

#include "core/large_array.h"
#include "mesh/kvm_file.h"
#include "mesh/mesh_test_util.h"
#include "platform/platform.h"
#include "support/address_space_limit.h"
#include "support/message_of.h"
#include "support/test_support.h"

namespace kv {
namespace {

namespace fs = std::filesystem;
using test::read_text_file;
using test::ScratchDir;
using test::write_text_file;

constexpr std::int64_t kSecond = 1000000000ll;
constexpr std::uint64_t kNoCap = ~0ull;
const std::string kTriangle = "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n";

std::int64_t mtime_of(const fs::path& path) {
  int error = 0;
  const auto status = platform::file_status(path, &error);
  EXPECT_TRUE(status.has_value()) << path;
  return status ? status->mtime_ns : 0;
}

void set_mtime(const fs::path& path, std::int64_t ns) {
  ASSERT_EQ(platform::set_last_write_time(path, ns), 0) << path;
}

std::int64_t now_ns() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::set<std::string> names_in(const fs::path& folder) {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) {
    names.insert(entry.path().filename().string());
  }
  return names;
}

// The entry's two file names.
std::set<std::string> entry_names(const fs::path& folder, const std::string& key) {
  return {mesh_cache_kvc_path(folder, key).filename().string(),
          mesh_cache_key_path(folder, key).filename().string()};
}

Mesh sample_mesh(bool with_blocks) {
  Mesh m = test::sample_mesh();
  if (!with_blocks) {
    m.blocks.clear();
    m.object_blocks.clear();
  }
  return m;
}

std::string key_for(std::string_view source) {
  return mesh_cache_key_text(source, 1000, 5 * kSecond, QuadPolicy::split);
}

std::optional<std::string> key_of(const fs::path& source) {
  return make_mesh_cache_key(source, QuadPolicy::split);
}

TEST(MeshCacheKey, TextEntryNameAndDefaultFolder) {
  EXPECT_EQ(mesh_cache_key_text("/m/high.obj", 12345, 1700000000123456789ll, QuadPolicy::split),
            "korvane .kvc 3\nsource /m/high.obj\nsize 12345\ntime 1700000000123456789\n"
            "quads split\n");
  EXPECT_EQ(mesh_cache_key_text("/m/a b.obj", 0, -1500000000ll, QuadPolicy::reject),
            "korvane .kvc 3\nsource /m/a b.obj\nsize 0\ntime -1500000000\nquads reject\n");

  // The FNV-1a hash in sixteen hex digits.
  EXPECT_EQ(mesh_cache_entry_name(""), "cbf29ce484222325");
  EXPECT_EQ(mesh_cache_entry_name("a"), "af63dc4c8601ec8c");
  EXPECT_EQ(mesh_cache_entry_name("foobar"), "85944171f73967e8");
  const std::string key = key_for("/x.obj");
  const std::string name = mesh_cache_entry_name(key);
  ASSERT_EQ(name.size(), 16u);
  EXPECT_EQ(name.find_first_not_of("0123456789abcdef"), std::string::npos);
  EXPECT_EQ(mesh_cache_kvc_path("/c", key), fs::path("/c/" + name + ".kvc"));
  EXPECT_EQ(mesh_cache_key_path("/c", key), fs::path("/c/" + name + ".key"));

  const auto xdg = platform::get_env("XDG_CACHE_HOME");
  const auto home = platform::get_env("HOME");
  const auto folder = default_mesh_cache_folder();
  if (xdg && !xdg->empty()) {
    EXPECT_EQ(folder, fs::path(*xdg) / "Tintwell/korvane-cache");
  } else if (home && !home->empty()) {
    EXPECT_EQ(folder, fs::path(*home) / ".cache/Tintwell/korvane-cache");
  } else {
    EXPECT_FALSE(folder.has_value());
  }
}

TEST(MeshCacheKey, MadeFromPathSizeAndTimeOfPlainObjFilesOnly) {
  ScratchDir dir;
  const auto obj = dir / "low.obj";
  write_text_file(obj, kTriangle);
  set_mtime(obj, 1234567890987654321ll);
  // A relative spelling is resolved against the current folder.
  const auto relative = fs::proximate(obj, fs::current_path());
  ASSERT_TRUE(relative.is_relative());
  const std::string expected = "korvane .kvc 3\nsource " + obj.string() +
                               "\nsize 32\ntime 1234567890987654321\nquads split\n";
  EXPECT_EQ(key_of(relative), expected);
  EXPECT_EQ(key_of(obj), expected);
  EXPECT_TRUE(
      make_mesh_cache_key(obj, QuadPolicy::reject).value_or("").ends_with("\nquads reject\n"));
  // Times before the epoch keep their sign; touching the file changes the key.
  set_mtime(obj, -2 * kSecond - 250000000ll);
  EXPECT_NE(key_of(obj).value_or("").find("\ntime -2250000000\n"), std::string::npos);
  set_mtime(obj, 1234567890987654322ll);
  EXPECT_NE(key_of(obj), expected);

  // .kvm files whatever their name; glTF and FBX by extension (any case) or
  // signature; links, folders and missing files.
  write_kvm(dir / "mesh.kvm", sample_mesh(false), 0);
  fs::copy_file(dir / "mesh.kvm", dir / "kvm_inside.obj");
  for (const char* name : {"scene.glb", "scene.GLTF", "scene.fbx"}) {
    write_text_file(dir / name, kTriangle);
  }
  write_text_file(dir / "no_extension", "glTF\x02\0\0\0");
  write_text_file(dir / "binary_fbx", "Kaydara FBX Binary  \0");
  fs::create_symlink(obj, dir / "link.obj");
  fs::create_directory(dir / "folder.obj");
  for (const char* name :
       {"mesh.kvm", "kvm_inside.obj", "scene.glb", "scene.GLTF", "scene.fbx", "no_extension",
        "binary_fbx", "link.obj", "folder.obj", "missing.obj", "low.obj/below"}) {
    EXPECT_FALSE(key_of(dir / name)) << name;
  }
}

TEST(MeshCacheStore, HitReturnsTheStoredMeshBitForBitAndTheStoredCounters) {
  ScratchDir dir;
  const auto folder = dir / "nested" / "cache";  // created with its parents
  for (bool blocks : {false, true}) {
    SCOPED_TRACE(blocks);
    const std::string key = key_for(blocks ? "/b.obj" : "/a.obj");
    const Mesh mesh = sample_mesh(blocks);
    mesh_cache_store(folder, key, mesh, MeshStats{7, 3, 99, 2}, kNoCap);
    // The .kvc keeps float64 UVs and the normals as they are, plus blocks.
    const std::string kvc = read_text_file(mesh_cache_kvc_path(folder, key));
    ASSERT_GE(kvc.size(), 56u);
    std::uint32_t flags = 0;
    std::memcpy(&flags, kvc.data() + 12, 4);
    EXPECT_EQ(flags, blocks ? 11u : 3u);
    EXPECT_EQ(read_text_file(mesh_cache_key_path(folder, key)),
              key + "lines 7\nquads_split 3\npolygons_inexact 2\nkvc " +
                  std::to_string(kvc.size()) + "\n");

    MeshStats stats;
    stats.polygons = 5;  // not the cache's to set
    const auto old = now_ns() - 3600 * kSecond;
    set_mtime(mesh_cache_key_path(folder, key), old);
    const std::optional<Mesh> hit = mesh_cache_lookup(folder, key, 2, &stats);
    ASSERT_TRUE(hit.has_value());
    test::expect_same_mesh(*hit, mesh, false);
    EXPECT_TRUE(hit->materials.empty() && hit->triangle_materials.empty());
    EXPECT_EQ(std::tuple(stats.lines, stats.quads_split, stats.polygons_inexact, stats.polygons),
              std::tuple(7u, 3u, 2u, 5u));
    // The hit is the entry's last use.
    EXPECT_GT(mtime_of(mesh_cache_key_path(folder, key)), old + 3000 * kSecond);
  }
  EXPECT_FALSE(mesh_cache_lookup(folder, key_for("/c.obj"), 1, nullptr));
  EXPECT_FALSE(mesh_cache_lookup(dir / "absent", key_for("/a.obj"), 1, nullptr));
}

TEST(MeshCacheStore, DamagedEntriesAreMissesAndTheNextStoreReplacesBothFiles) {
  ScratchDir dir;
  const std::string key = key_for("/a.obj");
  const auto key_path = mesh_cache_key_path(dir.path(), key);
  const auto kvc_path = mesh_cache_kvc_path(dir.path(), key);
  mesh_cache_store(dir.path(), key, sample_mesh(false), MeshStats{7, 3, 99, 2}, kNoCap);
  const std::uint64_t kvc_size = fs::file_size(kvc_path);
  const std::string size = std::to_string(kvc_size);

  // Other spacing between the pairs is still a valid key file.
  write_text_file(key_path, key + "lines\t7  quads_split 3\r\npolygons_inexact 2 kvc " + size);
  MeshStats stats;
  ASSERT_TRUE(mesh_cache_lookup(dir.path(), key, 1, &stats));
  EXPECT_EQ(stats.quads_split, 3u);

  const std::string counters = "lines 7\nquads_split 3\npolygons_inexact 2\n";
  const std::string rest = "\nquads_split 3\npolygons_inexact 2\nkvc " + size + "\n";
  const std::string tail = counters + "kvc " + size + "\n";
  std::string other_key = key;
  other_key[other_key.find("split")] = 'S';
  for (const std::string& text : {
           std::string(),
           key,                                   // no counters
           key.substr(0, key.size() - 1) + tail,  // key text cut short
           other_key + tail,                      // another key
           key + counters + "kvc " + std::to_string(kvc_size - 1) + "\n",
           key + counters + "kvc " + std::to_string(kvc_size + 1) + "\n",
           key + "line 7" + rest,
           key + "quads_split 3\nlines 7\npolygons_inexact 2\nkvc " + size + "\n",
           key + "lines 7\nquads_split 3\nkvc " + size + "\npolygons_inexact 2\n",
           key + counters,
           key + tail + "extra 1\n",
           key + tail + "1\n",
           key + "lines -7" + rest,
           key + "lines 7x" + rest,
           key + "lines 99999999999999999999" + rest,
           key + counters + "kvc\n",
       }) {
    write_text_file(key_path, text);
    MeshStats untouched;
    EXPECT_FALSE(mesh_cache_lookup(dir.path(), key, 1, &untouched)) << text;
    // A miss leaves the counters alone and deletes nothing.
    EXPECT_EQ(untouched.lines, 0u);
    EXPECT_EQ(read_text_file(key_path), text);
    EXPECT_TRUE(fs::exists(kvc_path));
  }

  // A damaged .kvc of the recorded size is a miss too, and is not deleted.
  write_text_file(key_path, key + tail);
  std::string kvc = read_text_file(kvc_path);
  kvc[0] = 'X';
  write_text_file(kvc_path, kvc);
  EXPECT_FALSE(mesh_cache_lookup(dir.path(), key, 1, nullptr));
  EXPECT_TRUE(fs::exists(kvc_path) && fs::exists(key_path));

  // A different mesh under the same key replaces both files.
  Mesh other = sample_mesh(true);
  other.positions[3] = {9, 9, 9};
  mesh_cache_store(dir.path(), key, other, MeshStats{1, 0, 0, 0}, kNoCap);
  const std::uint64_t new_size = fs::file_size(kvc_path);
  EXPECT_NE(new_size, kvc_size);
  EXPECT_EQ(read_text_file(key_path), key + "lines 1\nquads_split 0\npolygons_inexact 0\nkvc " +
                                          std::to_string(new_size) + "\n");
  const auto hit = mesh_cache_lookup(dir.path(), key, 1, &stats);
  ASSERT_TRUE(hit.has_value());
  test::expect_same_mesh(*hit, other, false);
  EXPECT_EQ(stats.lines, 1u);
  // Only the entry's two files: the key's temporary file is gone.
  EXPECT_EQ(names_in(dir.path()), entry_names(dir.path(), key));
}

TEST(MeshCacheStore, RunningOutOfMemoryReadingAnEntryIsNoMiss) {
  // An intact entry of a mesh too large for the memory left.
  ScratchDir dir;
  const std::string key = key_for("/huge.obj");
  const std::uint64_t positions = test::kMostKvmPositions;
  const std::uint64_t kvc_size = test::write_oversized_kvm(mesh_cache_kvc_path(dir.path(), key));
  write_text_file(mesh_cache_key_path(dir.path(), key),
                  mesh_cache_key_file_text(key, MeshStats{}, kvc_size));

  // With 1 GiB of address space to spare, the positions cannot be mapped.
  const test::AddressSpaceLimit limit(std::uint64_t{1} << 30);
  ASSERT_TRUE(limit.applied());
  ASSERT_THROW(LargeBuffer(12 * positions), std::bad_alloc);
  // The failed allocation reaches the caller instead of reading as a miss.
  MeshStats stats;
  EXPECT_THROW(mesh_cache_lookup(dir.path(), key, 2, &stats), std::bad_alloc);
  EXPECT_EQ(stats.lines, 0u);
}

TEST(MeshCacheStore, FailuresGiveTheirMessages) {
  ScratchDir dir;
  const std::string key = key_for("/a.obj");
  auto store = [&](const fs::path& folder, const std::string& k, const Mesh& m) {
    return test::error_of([&] { mesh_cache_store(folder, k, m, {}, kNoCap); });
  };
  write_text_file(dir / "file", "not a folder");
  const auto folder = dir / "file" / "cache";
  EXPECT_EQ(store(folder, key, sample_mesh(false)),
            "cannot create the cache folder " + folder.string() + ": Not a directory");

  // A folder in the way of the key file: the write succeeds, the replacement
  // cannot.
  const auto key_path = mesh_cache_key_path(dir.path(), key);
  fs::create_directory(key_path);
  write_text_file(key_path / "keep", "x");
  EXPECT_EQ(store(dir.path(), key, sample_mesh(false)),
            "cannot replace the cache file " + key_path.string() + ": Is a directory");
  EXPECT_FALSE(fs::exists(key_path.string() + ".tmp"));
  fs::remove_all(key_path);

  // A folder where the key's temporary file goes: the write itself fails.
  fs::create_directory(key_path.string() + ".tmp");
  EXPECT_EQ(store(dir.path(), key, sample_mesh(false)),
            "cannot write the cache file " + key_path.string());
  EXPECT_FALSE(mesh_cache_lookup(dir.path(), key, 1, nullptr));

  // A mesh the .kvm writer refuses gives the writer's message; the entry it
  // was to replace is no longer valid, since its key goes first.
  const std::string other = key_for("/b.obj");
  mesh_cache_store(dir.path(), other, sample_mesh(false), {}, kNoCap);
  ASSERT_TRUE(mesh_cache_lookup(dir.path(), other, 1, nullptr));
  Mesh empty = sample_mesh(false);
  empty.triangles.clear();
  const std::string refused = store(dir.path(), other, empty);
  EXPECT_NE(refused.find("mesh has no faces"), std::string::npos) << refused;
  EXPECT_TRUE(fs::exists(mesh_cache_kvc_path(dir.path(), other)));
  EXPECT_FALSE(fs::exists(mesh_cache_key_path(dir.path(), other)));
  EXPECT_FALSE(mesh_cache_lookup(dir.path(), other, 1, nullptr));
}

struct StoredEntry {
  fs::path kvc, key_file;
  std::uint64_t bytes = 0;
  bool present() const { return fs::exists(kvc) && fs::exists(key_file); }
};

StoredEntry store_entry(const fs::path& folder, std::string_view source, std::int64_t last_use) {
  const std::string key = key_for(source);
  mesh_cache_store(folder, key, sample_mesh(false), {}, kNoCap);
  StoredEntry entry{mesh_cache_kvc_path(folder, key), mesh_cache_key_path(folder, key)};
  set_mtime(entry.key_file, last_use);
  entry.bytes = fs::file_size(entry.kvc) + fs::file_size(entry.key_file);
  return entry;
}

TEST(MeshCacheTrim, RemovesLeastRecentlyUsedEntriesUntilUnderTheCap) {
  ScratchDir dir;
  const std::int64_t now = now_ns();
  const StoredEntry newest = store_entry(dir.path(), "/n.obj", now - 10 * kSecond);
  const StoredEntry oldest = store_entry(dir.path(), "/o.obj", now - 300 * kSecond);
  const StoredEntry middle = store_entry(dir.path(), "/m.obj", now - 200 * kSecond);
  const std::uint64_t all = newest.bytes + oldest.bytes + middle.bytes;
  write_text_file(dir / "unrelated.txt", std::string(5000, 'x'));  // not counted

  // Exactly at the cap nothing goes; one byte below, the oldest goes, both
  // its files, nothing else.
  mesh_cache_trim(dir.path(), {}, all);
  EXPECT_TRUE(newest.present() && oldest.present() && middle.present());
  mesh_cache_trim(dir.path(), {}, all - 1);
  EXPECT_FALSE(fs::exists(oldest.kvc) || fs::exists(oldest.key_file));
  EXPECT_TRUE(newest.present() && middle.present());

  // The entry just stored survives even when it is the oldest.
  set_mtime(newest.key_file, now - 900 * kSecond);
  mesh_cache_trim(dir.path(), newest.kvc, newest.bytes);
  EXPECT_TRUE(newest.present());
  EXPECT_FALSE(middle.present());
  EXPECT_TRUE(fs::exists(dir / "unrelated.txt"));

  // A missing folder is ignored, not made.
  mesh_cache_trim(dir / "absent", {}, 0);
  EXPECT_FALSE(fs::exists(dir / "absent"));
}

TEST(MeshCacheTrim, AKeylessKvcGoesFirstAndCapZeroKeepsOnlyTheNewEntry) {
  ScratchDir dir;
  const std::int64_t now = now_ns();
  const StoredEntry live = store_entry(dir.path(), "/live.obj", now - 100 * kSecond);
  const StoredEntry torn = store_entry(dir.path(), "/torn.obj", now - 50 * kSecond);
  // A store that died between the .kvc and the .key; removing that .kvc alone
  // brings the folder under the cap.
  fs::remove(torn.key_file);
  set_mtime(torn.kvc, now - 200 * kSecond);
  mesh_cache_trim(dir.path(), {}, live.bytes + fs::file_size(torn.kvc) - 1);
  EXPECT_FALSE(fs::exists(torn.kvc));
  EXPECT_TRUE(live.present());

  const StoredEntry fresh = store_entry(dir.path(), "/fresh.obj", now);
  const std::string key = key_for("/c.obj");
  mesh_cache_store(dir.path(), key, sample_mesh(false), {}, 0);
  EXPECT_EQ(names_in(dir.path()), entry_names(dir.path(), key));
  EXPECT_FALSE(live.present() || fresh.present());
  EXPECT_TRUE(mesh_cache_lookup(dir.path(), key, 1, nullptr));
}

TEST(MeshCacheTrim, LeftOverTemporaryFilesGoAfterAnHour) {
  ScratchDir dir;
  const std::int64_t now = now_ns();
  for (const auto& [name, age] :
       std::vector<std::pair<std::string, std::int64_t>>{{"0123456789abcdef.key.tmp", 3700},
                                                         {"0123456789abcdef.kvc.77-3.tmp", 7200},
                                                         {"young.key.tmp", 3500},
                                                         {"fresh.tmp", 0},
                                                         {"old.txt", 7200},
                                                         {"tmp", 7200}}) {
    write_text_file(dir / name, "left over");
    set_mtime(dir / name, now - age * kSecond);
  }
  fs::create_directory(dir / "folder.tmp");
  set_mtime(dir / "folder.tmp", now - 7200 * kSecond);
  mesh_cache_trim(dir.path(), {}, kNoCap);
  EXPECT_EQ(names_in(dir.path()),
            (std::set<std::string>{"young.key.tmp", "fresh.tmp", "old.txt", "tmp", "folder.tmp"}));

  // A store trims too.
  set_mtime(dir / "young.key.tmp", now - 3601 * kSecond);
  mesh_cache_store(dir.path(), key_for("/a.obj"), sample_mesh(false), {}, kNoCap);
  EXPECT_FALSE(fs::exists(dir / "young.key.tmp"));
  EXPECT_TRUE(fs::exists(dir / "fresh.tmp"));
}

// A quad, a self-crossing pentagon (a star, which has no exact triangulation)
// and a line element.
constexpr std::string_view kObjText =
    "o Body\nv 0 10 0\nv 6 -8 0\nv -10 3 0\nv 10 3 0\nv -6 -8 0\n"
    "v 0 0 1\nv 1 0 1\nv 1 1 1\nv 0 1 1\nvt 0.1 0.2\nvt 0.3 0.4\nvt 0.5 0.6\nvt 0.7 0.8\n"
    "vn 0 0 3\nf 6/1/1 7/2/1 8/3/1 9/4/1\nf 1 2 3 4 5\nl 1 2\n";

// Loads the source; returns the warnings the load handed back, joined, and
// checks that the load printed nothing itself.
std::string captured_load(const fs::path& source, const MeshReadOptions& options,
                          const MeshCacheSettings& cache, Mesh* mesh, MeshStats* stats) {
  testing::internal::CaptureStderr();
  CachedMeshLoad load;
  try {
    load = load_mesh_cached(source, options, cache);
  } catch (...) {
    testing::internal::GetCapturedStderr();
    throw;
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  *mesh = std::move(load.mesh);
  *stats = load.stats;
  std::string warnings;
  for (const std::string& warning : load.warnings) {
    warnings += warning;
  }
  return warnings;
}

TEST(MeshCacheLoad, SecondLoadIsAHitWithTheSameMeshCountersAndNoWarning) {
  ScratchDir dir;
  const auto obj = dir / "high.obj";
  write_text_file(obj, kObjText);
  MeshCacheSettings cache;
  cache.folder = dir / "cache";
  MeshReadOptions options;
  options.threads = 2;
  Mesh first, second, third;
  MeshStats first_stats, second_stats, stats;
  EXPECT_EQ(
      captured_load(obj, options, cache, &first, &first_stats),
      "korvane: warning: 1 faces of " + obj.string() + " could not be triangulated exactly\n");
  EXPECT_EQ(std::tuple(first_stats.quads_split, first_stats.polygons_inexact), std::tuple(1u, 1u));
  EXPECT_EQ(names_in(cache.folder).size(), 2u);

  // Same size, same time, other content: only a hit can give the first mesh
  // back.
  const std::int64_t time = mtime_of(obj);
  std::string changed(kObjText);
  changed.replace(changed.find("v 0 10 0"), 8, "v 0 11 0");
  write_text_file(obj, changed);
  set_mtime(obj, time);
  EXPECT_EQ(captured_load(obj, options, cache, &second, &second_stats), "");
  test::expect_same_mesh(second, first, false);
  EXPECT_EQ(std::tuple(second_stats.lines, second_stats.quads_split, second_stats.polygons_inexact),
            std::tuple(first_stats.lines, 1u, 1u));

  // Touching the file makes a new key, hence a new entry beside the old one.
  set_mtime(obj, time + kSecond);
  EXPECT_NE(captured_load(obj, options, cache, &third, &stats), "");
  EXPECT_EQ(third.positions[0][1], 11.0f);
  EXPECT_EQ(names_in(cache.folder).size(), 4u);

  // Another quad policy is another entry too.
  write_text_file(obj, kTriangle);
  captured_load(obj, options, cache, &first, &stats);
  options.quads = QuadPolicy::reject;
  captured_load(obj, options, cache, &second, &stats);
  EXPECT_EQ(names_in(cache.folder).size(), 8u);
  test::expect_same_mesh(second, first, false);
}

TEST(MeshCacheLoad, BypassesFailedStoresAndReaderErrors) {
  ScratchDir dir;
  const Mesh mesh = sample_mesh(true);
  write_kvm(dir / "low.kvm", mesh, kKvmUvDouble | kKvmNormalsAsIs | kKvmBlocks);
  fs::copy_file(dir / "low.kvm", dir / "named.obj");
  write_text_file(dir / "real.obj", kObjText);
  fs::create_symlink(dir / "real.obj", dir / "link.obj");
  MeshCacheSettings cache;
  cache.folder = dir / "cache";
  Mesh got;
  MeshStats stats;
  // Sources that bypass the cache leave no files.
  for (const char* name : {"low.kvm", "named.obj", "link.obj"}) {
    stats.lines = 3;
    captured_load(dir / name, {}, cache, &got, &stats);
    if (std::string_view(name) != "link.obj") {
      test::expect_same_mesh(got, mesh, false);
      EXPECT_EQ(stats.lines, 0u);
    }
    EXPECT_FALSE(fs::exists(cache.folder)) << name;
  }
  // No folder: no cache at all.
  captured_load(dir / "real.obj", {}, MeshCacheSettings{}, &got, &stats);
  EXPECT_EQ(stats.polygons_inexact, 1u);
  EXPECT_FALSE(fs::exists(cache.folder));
  // A source the reader refuses is the reader's error, with no entry made.
  write_text_file(dir / "bad.obj", "f 1 2 3\n");
  EXPECT_THROW(captured_load(dir / "bad.obj", {}, cache, &got, &stats), Error);
  EXPECT_FALSE(fs::exists(cache.folder));

  // A failed store is a warning and the load goes on.
  write_text_file(dir / "low.obj", kTriangle);
  write_text_file(dir / "file", "in the way");
  cache.folder = dir / "file" / "cache";
  const std::string why = "the mesh cache was not written: cannot create the cache folder " +
                          cache.folder.string() + ": Not a directory\n";
  EXPECT_EQ(captured_load(dir / "low.obj", {}, cache, &got, &stats), "korvane: warning: " + why);
  EXPECT_EQ(got.triangles.size(), 1u);
  cache.store_warning = kMeshCacheServiceWarning;
  EXPECT_EQ(captured_load(dir / "low.obj", {}, cache, &got, &stats), "korvane serve: " + why);
}

TEST(MeshCacheLoad, RunningOutOfMemoryOnAHitNamesTheSource) {
  // The entry of a real source holds a mesh too large for the memory left.
  ScratchDir dir;
  const auto obj = dir / "huge.obj";
  write_text_file(obj, kTriangle);
  MeshCacheSettings cache;
  cache.folder = dir / "cache";
  fs::create_directory(cache.folder);
  const std::string key = *key_of(obj);
  const auto kvc_path = mesh_cache_kvc_path(cache.folder, key);
  const std::uint64_t kvc_size = test::write_oversized_kvm(kvc_path);
  write_text_file(mesh_cache_key_path(cache.folder, key),
                  mesh_cache_key_file_text(key, MeshStats{}, kvc_size));
  {
    const test::AddressSpaceLimit limit(std::uint64_t{1} << 30);
    ASSERT_TRUE(limit.applied());
    EXPECT_EQ(test::message_of<OutOfMemory>([&] { load_mesh_cached(obj, {}, cache); }),
              obj.string() + ": out of memory while reading the mesh");
  }
  // Not taken for a miss: the source was not read and stored over the entry.
  EXPECT_EQ(fs::file_size(kvc_path), kvc_size);
}

}  // namespace
}  // namespace kv
