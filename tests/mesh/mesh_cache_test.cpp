#include "mesh/mesh_cache.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "mesh/kvm_file.h"
#include "mesh/mesh_test_util.h"
#include "platform/platform.h"
#include "support/test_support.h"

namespace kv {
namespace {

using test::read_text_file;
using test::ScratchDir;
using test::write_text_file;

constexpr std::int64_t kSecond = 1000000000ll;

std::int64_t mtime_of(const std::filesystem::path& path) {
  int error = 0;
  const auto status = platform::file_status(path, &error);
  EXPECT_TRUE(status.has_value()) << path;
  return status ? status->mtime_ns : 0;
}

void set_mtime(const std::filesystem::path& path, std::int64_t ns) {
  ASSERT_EQ(platform::set_last_write_time(path, ns), 0) << path;
}

std::int64_t now_ns() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// File names in the folder, sorted.
std::set<std::string> names_in(const std::filesystem::path& folder) {
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    names.insert(entry.path().filename().string());
  }
  return names;
}

// The shared sample, with or without its blocks.
Mesh sample_mesh(bool with_blocks) {
  Mesh m = test::sample_mesh();
  if (!with_blocks) {
    m.blocks.clear();
    m.object_blocks.clear();
  }
  return m;
}

// The cache keeps no materials.
void expect_same_geometry(const Mesh& got, const Mesh& want) {
  test::expect_same_mesh(got, want, false);
}

MeshStats sample_stats() {
  MeshStats s;
  s.lines = 7;
  s.quads_split = 3;
  s.reader_internal = 99;
  s.polygons_inexact = 2;
  return s;
}

std::string key_for(std::string_view source) {
  return mesh_cache_key_text(source, 1000, 5 * kSecond, QuadPolicy::split);
}

constexpr std::uint64_t kNoCap = ~0ull;

// ---- key text and entry name ----------------------------------------------

TEST(MeshCacheKey, TextHasFiveLinesExactly) {
  EXPECT_EQ(mesh_cache_key_text("/m/high.obj", 12345, 1700000000123456789ll, QuadPolicy::split),
            "korvane .kvc 3\nsource /m/high.obj\nsize 12345\ntime 1700000000123456789\n"
            "quads split\n");
  EXPECT_EQ(mesh_cache_key_text("/m/a b.obj", 0, -1500000000ll, QuadPolicy::reject),
            "korvane .kvc 3\nsource /m/a b.obj\nsize 0\ntime -1500000000\nquads reject\n");
}

TEST(MeshCacheKey, MadeFromTheSourcesAbsolutePathSizeAndTime) {
  ScratchDir dir;
  const auto obj = dir / "low.obj";
  write_text_file(obj, "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n");
  set_mtime(obj, 1234567890987654321ll);

  // A relative spelling is resolved against the current folder.
  const auto relative = std::filesystem::proximate(obj, std::filesystem::current_path());
  ASSERT_TRUE(relative.is_relative());
  const std::string expected = "korvane .kvc 3\nsource " + obj.string() +
                               "\nsize 32\ntime 1234567890987654321\nquads split\n";
  EXPECT_EQ(make_mesh_cache_key(relative, QuadPolicy::split), expected);
  EXPECT_EQ(make_mesh_cache_key(obj, QuadPolicy::split), expected);

  EXPECT_TRUE(
      make_mesh_cache_key(obj, QuadPolicy::reject).value_or("").ends_with("\nquads reject\n"));

  // Times before the epoch keep their sign.
  set_mtime(obj, -2 * kSecond - 250000000ll);
  EXPECT_NE(make_mesh_cache_key(obj, QuadPolicy::split).value_or("").find("\ntime -2250000000\n"),
            std::string::npos);

  // Touching the file changes the key.
  set_mtime(obj, 1234567890987654322ll);
  EXPECT_NE(make_mesh_cache_key(obj, QuadPolicy::split), expected);
}

TEST(MeshCacheKey, SourcesThatBypassTheCache) {
  ScratchDir dir;
  const std::string triangle = "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n";
  write_text_file(dir / "real.obj", triangle);
  ASSERT_TRUE(make_mesh_cache_key(dir / "real.obj", QuadPolicy::split).has_value());

  // A .kvm file, whatever its name says.
  write_kvm(dir / "mesh.kvm", sample_mesh(false), 0);
  std::filesystem::copy_file(dir / "mesh.kvm", dir / "kvm_inside.obj");
  EXPECT_FALSE(make_mesh_cache_key(dir / "mesh.kvm", QuadPolicy::split));
  EXPECT_FALSE(make_mesh_cache_key(dir / "kvm_inside.obj", QuadPolicy::split));

  // glTF and FBX, by extension (any case) or by their signature.
  write_text_file(dir / "scene.glb", triangle);
  write_text_file(dir / "scene.GLTF", triangle);
  write_text_file(dir / "scene.fbx", triangle);
  write_text_file(dir / "no_extension", "glTF\x02\0\0\0");
  write_text_file(dir / "binary_fbx", "Kaydara FBX Binary  \0");
  for (const char* name : {"scene.glb", "scene.GLTF", "scene.fbx", "no_extension", "binary_fbx"}) {
    EXPECT_FALSE(make_mesh_cache_key(dir / name, QuadPolicy::split)) << name;
  }

  // Symbolic links, folders and missing files.
  std::filesystem::create_symlink(dir / "real.obj", dir / "link.obj");
  std::filesystem::create_directory(dir / "folder.obj");
  EXPECT_FALSE(make_mesh_cache_key(dir / "link.obj", QuadPolicy::split));
  EXPECT_FALSE(make_mesh_cache_key(dir / "folder.obj", QuadPolicy::split));
  EXPECT_FALSE(make_mesh_cache_key(dir / "missing.obj", QuadPolicy::split));
  EXPECT_FALSE(make_mesh_cache_key(dir / "real.obj" / "below", QuadPolicy::split));
}

TEST(MeshCacheKey, EntryNameIsTheFnv1aHashInSixteenHexDigits) {
  EXPECT_EQ(mesh_cache_entry_name(""), "cbf29ce484222325");
  EXPECT_EQ(mesh_cache_entry_name("a"), "af63dc4c8601ec8c");
  EXPECT_EQ(mesh_cache_entry_name("foobar"), "85944171f73967e8");
  // Leading zeros are kept: the name is always 16 digits.
  const std::string key = key_for("/x.obj");
  const std::string name = mesh_cache_entry_name(key);
  ASSERT_EQ(name.size(), 16u);
  EXPECT_EQ(name.find_first_not_of("0123456789abcdef"), std::string::npos);
  EXPECT_EQ(mesh_cache_kvc_path("/c", key), std::filesystem::path("/c/" + name + ".kvc"));
  EXPECT_EQ(mesh_cache_key_path("/c", key), std::filesystem::path("/c/" + name + ".key"));
}

TEST(MeshCacheKey, DefaultFolderFollowsTheUserCacheVariables) {
  const auto xdg = platform::get_env("XDG_CACHE_HOME");
  const auto home = platform::get_env("HOME");
  const auto folder = default_mesh_cache_folder();
  if (xdg && !xdg->empty()) {
    EXPECT_EQ(folder, std::filesystem::path(*xdg) / "Tintwell/korvane-cache");
  } else if (home && !home->empty()) {
    EXPECT_EQ(folder, std::filesystem::path(*home) / ".cache/Tintwell/korvane-cache");
  } else {
    EXPECT_FALSE(folder.has_value());
  }
}

// ---- store and lookup -----------------------------------------------------

TEST(MeshCacheStore, HitReturnsTheStoredMeshBitForBitAndTheStoredCounters) {
  ScratchDir dir;
  const auto folder = dir / "nested" / "cache";  // created with its parents
  for (bool blocks : {false, true}) {
    SCOPED_TRACE(blocks ? "with blocks" : "without blocks");
    const std::string key = key_for(blocks ? "/b.obj" : "/a.obj");
    const Mesh mesh = sample_mesh(blocks);
    mesh_cache_store(folder, key, mesh, sample_stats(), kNoCap);

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
    stats.reader_internal = 5;  // not the cache's to set
    const auto old = now_ns() - 3600 * kSecond;
    set_mtime(mesh_cache_key_path(folder, key), old);
    const std::optional<Mesh> hit = mesh_cache_lookup(folder, key, 2, &stats);
    ASSERT_TRUE(hit.has_value());
    expect_same_geometry(*hit, mesh);
    EXPECT_TRUE(hit->materials.empty() && hit->triangle_materials.empty());
    EXPECT_EQ(
        std::tuple(stats.lines, stats.quads_split, stats.polygons_inexact, stats.reader_internal),
        std::tuple(7u, 3u, 2u, 5u));
    // The hit is the entry's last use.
    EXPECT_GT(mtime_of(mesh_cache_key_path(folder, key)), old + 3000 * kSecond);
  }
  // Without the key file's text in full there is no hit.
  EXPECT_FALSE(mesh_cache_lookup(folder, key_for("/c.obj"), 1, nullptr));
  EXPECT_FALSE(mesh_cache_lookup(dir / "absent", key_for("/a.obj"), 1, nullptr));
}

TEST(MeshCacheStore, DamagedEntriesAreMissesAndTheNextStoreReplacesBothFiles) {
  ScratchDir dir;
  const std::string key = key_for("/a.obj");
  const auto key_path = mesh_cache_key_path(dir.path(), key);
  const auto kvc_path = mesh_cache_kvc_path(dir.path(), key);
  mesh_cache_store(dir.path(), key, sample_mesh(false), sample_stats(), kNoCap);
  const std::uint64_t kvc_size = std::filesystem::file_size(kvc_path);
  const std::string size = std::to_string(kvc_size);

  // Other spacing between the pairs is still a valid key file.
  write_text_file(key_path, key + "lines\t7  quads_split 3\r\npolygons_inexact 2 kvc " + size);
  MeshStats stats;
  ASSERT_TRUE(mesh_cache_lookup(dir.path(), key, 1, &stats));
  EXPECT_EQ(stats.quads_split, 3u);

  const std::string counters = "lines 7\nquads_split 3\npolygons_inexact 2\n";
  const std::string tail = counters + "kvc " + size + "\n";
  std::string other_key = key;
  other_key[other_key.find("split")] = 'S';
  const std::vector<std::string> damaged = {
      "",
      key,                                   // no counters
      key.substr(0, key.size() - 1) + tail,  // key text cut short
      other_key + tail,                      // another key
      key + counters + "kvc " + std::to_string(kvc_size - 1) + "\n",
      key + counters + "kvc " + std::to_string(kvc_size + 1) + "\n",
      key + "line 7\nquads_split 3\npolygons_inexact 2\nkvc " + size + "\n",
      key + "quads_split 3\nlines 7\npolygons_inexact 2\nkvc " + size + "\n",
      key + "lines 7\nquads_split 3\nkvc " + size + "\npolygons_inexact 2\n",
      key + counters,
      key + tail + "extra 1\n",
      key + tail + "1\n",
      key + "lines -7\nquads_split 3\npolygons_inexact 2\nkvc " + size + "\n",
      key + "lines 7x\nquads_split 3\npolygons_inexact 2\nkvc " + size + "\n",
      key + "lines 99999999999999999999\nquads_split 3\npolygons_inexact 2\nkvc " + size + "\n",
      key + counters + "kvc\n",
  };
  for (const std::string& text : damaged) {
    write_text_file(key_path, text);
    MeshStats untouched;
    EXPECT_FALSE(mesh_cache_lookup(dir.path(), key, 1, &untouched)) << text;
    EXPECT_EQ(untouched.lines, 0u);  // a miss leaves the counters alone
    // A miss deletes nothing.
    EXPECT_EQ(read_text_file(key_path), text);
    EXPECT_TRUE(std::filesystem::exists(kvc_path));
  }

  // A damaged .kvc of the recorded size is a miss too, and is not deleted.
  write_text_file(key_path, key + tail);
  std::string kvc = read_text_file(kvc_path);
  kvc[0] = 'X';
  write_text_file(kvc_path, kvc);
  EXPECT_FALSE(mesh_cache_lookup(dir.path(), key, 1, nullptr));
  EXPECT_TRUE(std::filesystem::exists(kvc_path) && std::filesystem::exists(key_path));

  // A different mesh under the same key replaces both files.
  Mesh other = sample_mesh(true);
  other.positions[3] = {9, 9, 9};
  MeshStats other_stats;
  other_stats.lines = 1;
  mesh_cache_store(dir.path(), key, other, other_stats, kNoCap);
  const std::uint64_t new_size = std::filesystem::file_size(kvc_path);
  EXPECT_NE(new_size, kvc_size);
  EXPECT_EQ(read_text_file(key_path), key + "lines 1\nquads_split 0\npolygons_inexact 0\nkvc " +
                                          std::to_string(new_size) + "\n");
  const auto hit = mesh_cache_lookup(dir.path(), key, 1, &stats);
  ASSERT_TRUE(hit.has_value());
  expect_same_geometry(*hit, other);
  EXPECT_EQ(stats.lines, 1u);
  // Only the entry's two files: the key's temporary file is gone.
  EXPECT_EQ(names_in(dir.path()),
            (std::set<std::string>{kvc_path.filename().string(), key_path.filename().string()}));
}

TEST(MeshCacheStore, FailuresGiveTheirMessages) {
  ScratchDir dir;
  const std::string key = key_for("/a.obj");
  auto store = [&](const std::filesystem::path& folder, const std::string& k, const Mesh& m) {
    return test::error_of([&] { mesh_cache_store(folder, k, m, {}, kNoCap); });
  };
  write_text_file(dir / "file", "not a folder");
  const auto folder = dir / "file" / "cache";
  EXPECT_EQ(store(folder, key, sample_mesh(false)),
            "cannot create the cache folder " + folder.string() + ": Not a directory");

  // A folder in the way of the key file: the write succeeds, the replacement
  // cannot.
  const auto key_path = mesh_cache_key_path(dir.path(), key);
  std::filesystem::create_directory(key_path);
  write_text_file(key_path / "keep", "x");
  EXPECT_EQ(store(dir.path(), key, sample_mesh(false)),
            "cannot replace the cache file " + key_path.string() + ": Is a directory");
  EXPECT_FALSE(std::filesystem::exists(key_path.string() + ".tmp"));
  std::filesystem::remove_all(key_path);

  // A folder where the key's temporary file goes: the write itself fails.
  std::filesystem::create_directory(key_path.string() + ".tmp");
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
  EXPECT_TRUE(std::filesystem::exists(mesh_cache_kvc_path(dir.path(), other)));
  EXPECT_FALSE(std::filesystem::exists(mesh_cache_key_path(dir.path(), other)));
  EXPECT_FALSE(mesh_cache_lookup(dir.path(), other, 1, nullptr));
}

// ---- trimming -------------------------------------------------------------

struct StoredEntry {
  std::string key;
  std::filesystem::path kvc;
  std::filesystem::path key_file;
  std::uint64_t bytes = 0;
};

StoredEntry store_entry(const std::filesystem::path& folder, std::string_view source,
                        std::int64_t last_use) {
  StoredEntry entry;
  entry.key = key_for(source);
  mesh_cache_store(folder, entry.key, sample_mesh(false), {}, kNoCap);
  entry.kvc = mesh_cache_kvc_path(folder, entry.key);
  entry.key_file = mesh_cache_key_path(folder, entry.key);
  set_mtime(entry.key_file, last_use);
  entry.bytes = std::filesystem::file_size(entry.kvc) + std::filesystem::file_size(entry.key_file);
  return entry;
}

bool present(const StoredEntry& entry) {
  return std::filesystem::exists(entry.kvc) && std::filesystem::exists(entry.key_file);
}

TEST(MeshCacheTrim, RemovesLeastRecentlyUsedEntriesUntilUnderTheCap) {
  ScratchDir dir;
  const std::int64_t now = now_ns();
  const StoredEntry newest = store_entry(dir.path(), "/n.obj", now - 10 * kSecond);
  const StoredEntry oldest = store_entry(dir.path(), "/o.obj", now - 300 * kSecond);
  const StoredEntry middle = store_entry(dir.path(), "/m.obj", now - 200 * kSecond);
  const std::uint64_t all = newest.bytes + oldest.bytes + middle.bytes;
  write_text_file(dir / "unrelated.txt", std::string(5000, 'x'));  // not counted

  // Exactly at the cap nothing goes.
  mesh_cache_trim(dir.path(), {}, all);
  EXPECT_TRUE(present(newest) && present(oldest) && present(middle));

  // One byte below: the oldest goes, both its files, nothing else.
  mesh_cache_trim(dir.path(), {}, all - 1);
  EXPECT_FALSE(std::filesystem::exists(oldest.kvc) || std::filesystem::exists(oldest.key_file));
  EXPECT_TRUE(present(newest) && present(middle));

  // The entry just stored survives even when it is the oldest.
  set_mtime(newest.key_file, now - 900 * kSecond);
  mesh_cache_trim(dir.path(), newest.kvc, newest.bytes);
  EXPECT_TRUE(present(newest));
  EXPECT_FALSE(present(middle));
  EXPECT_TRUE(std::filesystem::exists(dir / "unrelated.txt"));

  // A missing folder is ignored, not made.
  mesh_cache_trim(dir / "absent", {}, 0);
  EXPECT_FALSE(std::filesystem::exists(dir / "absent"));
}

TEST(MeshCacheTrim, AKeylessKvcGoesFirstAndCapZeroKeepsOnlyTheNewEntry) {
  ScratchDir dir;
  const std::int64_t now = now_ns();
  const StoredEntry live = store_entry(dir.path(), "/live.obj", now - 100 * kSecond);
  const StoredEntry torn = store_entry(dir.path(), "/torn.obj", now - 50 * kSecond);
  // A store that died between the .kvc and the .key.
  std::filesystem::remove(torn.key_file);
  set_mtime(torn.kvc, now - 200 * kSecond);
  // Removing the keyless .kvc alone brings the folder under the cap.
  mesh_cache_trim(dir.path(), {}, live.bytes + std::filesystem::file_size(torn.kvc) - 1);
  EXPECT_FALSE(std::filesystem::exists(torn.kvc));
  EXPECT_TRUE(present(live));

  const StoredEntry fresh = store_entry(dir.path(), "/fresh.obj", now);
  const std::string key = key_for("/c.obj");
  mesh_cache_store(dir.path(), key, sample_mesh(false), {}, 0);
  EXPECT_EQ(names_in(dir.path()),
            (std::set<std::string>{mesh_cache_kvc_path(dir.path(), key).filename().string(),
                                   mesh_cache_key_path(dir.path(), key).filename().string()}));
  EXPECT_FALSE(present(live) || present(fresh));
  EXPECT_TRUE(mesh_cache_lookup(dir.path(), key, 1, nullptr));
}

TEST(MeshCacheTrim, LeftOverTemporaryFilesGoAfterAnHour) {
  ScratchDir dir;
  const std::int64_t now = now_ns();
  const std::vector<std::pair<std::string, std::int64_t>> files = {
      {"0123456789abcdef.key.tmp", now - 3700 * kSecond},
      {"0123456789abcdef.kvc.77-3.tmp", now - 7200 * kSecond},
      {"young.key.tmp", now - 3500 * kSecond},
      {"fresh.tmp", now},
      {"old.txt", now - 7200 * kSecond},
      {"tmp", now - 7200 * kSecond},
  };
  for (const auto& [name, time] : files) {
    write_text_file(dir / name, "left over");
    set_mtime(dir / name, time);
  }
  std::filesystem::create_directory(dir / "folder.tmp");
  set_mtime(dir / "folder.tmp", now - 7200 * kSecond);

  mesh_cache_trim(dir.path(), {}, kNoCap);
  EXPECT_EQ(names_in(dir.path()),
            (std::set<std::string>{"young.key.tmp", "fresh.tmp", "old.txt", "tmp", "folder.tmp"}));

  // A store trims too.
  set_mtime(dir / "young.key.tmp", now - 3601 * kSecond);
  mesh_cache_store(dir.path(), key_for("/a.obj"), sample_mesh(false), {}, kNoCap);
  EXPECT_FALSE(std::filesystem::exists(dir / "young.key.tmp"));
  EXPECT_TRUE(std::filesystem::exists(dir / "fresh.tmp"));
}

// ---- the cached load ------------------------------------------------------

// A quad, a self-crossing pentagon (a star, which has no exact triangulation)
// and a line element.
constexpr std::string_view kObjText =
    "o Body\n"
    "v 0 10 0\nv 6 -8 0\nv -10 3 0\nv 10 3 0\nv -6 -8 0\n"
    "v 0 0 1\nv 1 0 1\nv 1 1 1\nv 0 1 1\n"
    "vt 0.1 0.2\nvt 0.3 0.4\nvt 0.5 0.6\nvt 0.7 0.8\n"
    "vn 0 0 3\n"
    "f 6/1/1 7/2/1 8/3/1 9/4/1\n"
    "f 1 2 3 4 5\n"
    "l 1 2\n";

std::string captured_load(const std::filesystem::path& source, const MeshReadOptions& options,
                          const MeshCacheSettings& cache, Mesh* mesh, MeshStats* stats) {
  testing::internal::CaptureStderr();
  try {
    *mesh = load_mesh_cached(source, options, cache, stats);
  } catch (...) {
    testing::internal::GetCapturedStderr();
    throw;
  }
  return testing::internal::GetCapturedStderr();
}

TEST(MeshCacheLoad, SecondLoadIsAHitWithTheSameMeshCountersAndNoWarning) {
  ScratchDir dir;
  const auto obj = dir / "high.obj";
  write_text_file(obj, kObjText);
  MeshCacheSettings cache;
  cache.folder = dir / "cache";
  MeshReadOptions options;
  options.threads = 2;

  Mesh first;
  MeshStats first_stats;
  const std::string first_err = captured_load(obj, options, cache, &first, &first_stats);
  EXPECT_EQ(first_err, "korvane: warning: 1 faces of " + obj.string() +
                           " could not be triangulated exactly\n");
  EXPECT_EQ(first_stats.quads_split, 1u);
  EXPECT_EQ(first_stats.polygons_inexact, 1u);
  EXPECT_EQ(names_in(cache.folder).size(), 2u);

  // Same bytes, same size, same time, other content: only a hit can give the
  // first mesh back.
  const std::int64_t time = mtime_of(obj);
  std::string changed(kObjText);
  changed.replace(changed.find("v 0 10 0"), 8, "v 0 11 0");
  write_text_file(obj, changed);
  set_mtime(obj, time);

  Mesh second;
  MeshStats second_stats;
  EXPECT_EQ(captured_load(obj, options, cache, &second, &second_stats), "");
  expect_same_geometry(second, first);
  EXPECT_EQ(second_stats.lines, first_stats.lines);
  EXPECT_EQ(second_stats.quads_split, 1u);
  EXPECT_EQ(second_stats.polygons_inexact, 1u);

  // Touching the file makes a new key, hence a new entry beside the old one.
  set_mtime(obj, time + kSecond);
  Mesh third;
  MeshStats third_stats;
  EXPECT_NE(captured_load(obj, options, cache, &third, &third_stats), "");
  EXPECT_EQ(third.positions[0][1], 11.0f);
  EXPECT_EQ(names_in(cache.folder).size(), 4u);

  // Another quad policy is another entry too.
  write_text_file(obj, "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n");
  Mesh split;
  Mesh rejected;
  MeshStats stats;
  captured_load(obj, options, cache, &split, &stats);
  options.quads = QuadPolicy::reject;
  captured_load(obj, options, cache, &rejected, &stats);
  EXPECT_EQ(names_in(cache.folder).size(), 8u);
  expect_same_geometry(rejected, split);
}

TEST(MeshCacheLoad, SourcesThatBypassTheCacheLeaveNoFiles) {
  ScratchDir dir;
  const Mesh mesh = sample_mesh(true);
  write_kvm(dir / "low.kvm", mesh, kKvmUvDouble | kKvmNormalsAsIs | kKvmBlocks);
  std::filesystem::copy_file(dir / "low.kvm", dir / "named.obj");
  write_text_file(dir / "real.obj", kObjText);
  std::filesystem::create_symlink(dir / "real.obj", dir / "link.obj");
  MeshCacheSettings cache;
  cache.folder = dir / "cache";

  for (const char* name : {"low.kvm", "named.obj", "link.obj"}) {
    Mesh got;
    MeshStats stats;
    stats.lines = 3;
    captured_load(dir / name, {}, cache, &got, &stats);
    if (std::string_view(name) != "link.obj") {
      expect_same_geometry(got, mesh);
      EXPECT_EQ(stats.lines, 0u);
    }
    EXPECT_FALSE(std::filesystem::exists(cache.folder)) << name;
  }

  // No folder: no cache at all.
  Mesh got;
  MeshStats stats;
  captured_load(dir / "real.obj", {}, MeshCacheSettings{}, &got, &stats);
  EXPECT_EQ(stats.polygons_inexact, 1u);
  EXPECT_FALSE(std::filesystem::exists(cache.folder));
}

TEST(MeshCacheLoad, AFailedStoreIsAWarningAndTheLoadGoesOn) {
  ScratchDir dir;
  const auto obj = dir / "low.obj";
  write_text_file(obj, "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n");
  write_text_file(dir / "file", "in the way");
  MeshCacheSettings cache;
  cache.folder = dir / "file" / "cache";
  Mesh mesh;
  MeshStats stats;
  EXPECT_EQ(captured_load(obj, {}, cache, &mesh, &stats),
            "korvane: warning: the mesh cache was not written: cannot create the cache folder " +
                cache.folder.string() + ": Not a directory\n");
  EXPECT_EQ(mesh.triangles.size(), 1u);

  cache.store_warning = kMeshCacheServiceWarning;
  EXPECT_EQ(captured_load(obj, {}, cache, &mesh, &stats),
            "korvane serve: the mesh cache was not written: cannot create the cache folder " +
                cache.folder.string() + ": Not a directory\n");

  // A source the reader refuses is the reader's error, with no entry made.
  write_text_file(dir / "bad.obj", "f 1 2 3\n");
  cache.folder = dir / "cache";
  EXPECT_THROW(captured_load(dir / "bad.obj", {}, cache, &mesh, &stats), Error);
  EXPECT_FALSE(std::filesystem::exists(cache.folder));
}

}  // namespace
}  // namespace kv
