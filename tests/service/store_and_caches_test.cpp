// The mesh store's loads and releases, the scene cache's keys and order, the
// joined high mesh, and the memory watch.
#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "service/memory_watch.h"
#include "service/mesh_join.h"
#include "service/mesh_store.h"
#include "service/scene_cache.h"
#include "support/bake_test_meshes.h"

namespace kv::service {
namespace {

Mesh one_triangle(float z) {
  Mesh mesh;
  test::add_triangle(mesh, {{{0, 0, z}, {1, 0, z}, {0, 1, z}}});
  return mesh;
}

TEST(MeshStore, LoadsReleasesAndGenerations) {
  MeshStore store;
  const std::uint64_t first = store.begin_load("a");
  EXPECT_FALSE(store.find("a").has_value());
  EXPECT_TRUE(store.finish_load("a", first, one_triangle(0), {}, "t", "h"));
  const auto stored = store.find("a");
  ASSERT_TRUE(stored.has_value());
  EXPECT_EQ(stored->hash, "h");
  EXPECT_EQ(stored->token, "t");
  EXPECT_TRUE(store.holds("a", first));

  // A reload replaces the mesh under a new generation; the old holder keeps
  // its mesh alive.
  const std::uint64_t second = store.begin_load("a");
  EXPECT_TRUE(store.finish_load("a", second, one_triangle(1), {}, "", ""));
  EXPECT_FALSE(store.holds("a", first));
  EXPECT_EQ(stored->mesh->positions[0][2], 0.0f);

  // A key released while its load runs keeps nothing.
  const std::uint64_t third = store.begin_load("b");
  EXPECT_EQ(store.release({"b", "none", "a"}), (std::vector<std::string>{"b", "a"}));
  EXPECT_FALSE(store.finish_load("b", third, one_triangle(2), {}, "", ""));
  EXPECT_FALSE(store.find("b").has_value());
  EXPECT_EQ(store.status(), Json::array());

  // An abandoned load stops holding back the jobs that wait for its key.
  const std::uint64_t fourth = store.begin_load("c");
  store.abandon_load("c", fourth);
  std::atomic<bool> cancel{false};
  store.wait_for_loads({"c"}, cancel);  // returns at once
  const std::uint64_t fifth = store.begin_load("c");
  cancel = true;
  store.wait_for_loads({"c"}, cancel);  // a cancel ends the wait
  EXPECT_TRUE(store.finish_load("c", fifth, one_triangle(3), {}, "", ""));
  EXPECT_EQ(store.status()[0]["triangles"], 1);
}

TEST(SceneCache, KeysOrderAndDrops) {
  NormalBakeSettings s;
  const std::string base = prep_key(s, "low", 1, "4:high#2 ");
  EXPECT_NE(base, prep_key(s, "low", 2, "4:high#2 "));  // another load of the key
  EXPECT_EQ(base, prep_key(s, "low", 1, "4:high#3 "));  // the high mesh does not matter
  NormalBakeSettings aa = s;
  aa.aa = 2;
  EXPECT_NE(base, prep_key(aa, "low", 1, "4:high#2 "));
  NormalBakeSettings named = s;
  named.match_by_name = true;
  EXPECT_NE(prep_key(named, "low", 1, "4:high#2 "), prep_key(named, "low", 1, "4:high#3 "));
  EXPECT_EQ(tracer_key(s, "low", 1, "h"), tracer_key(aa, "other", 5, "h"));
  EXPECT_NE(tracer_key(named, "low", 1, "h"), tracer_key(named, "low", 2, "h"));

  SceneCache cache;
  const auto mesh = std::make_shared<const Mesh>(one_triangle(0));
  for (int i = 0; i < 5; ++i) {
    cache.keep_tracer("t" + std::to_string(i), {nullptr, mesh}, {"k" + std::to_string(i)});
    if (i == 3) {
      EXPECT_TRUE(cache.find_tracer("t0").has_value());  // t0 is used again
    }
  }
  EXPECT_EQ(cache.tracer_count(), SceneCache::kCapacity);
  EXPECT_TRUE(cache.find_tracer("t0").has_value());
  EXPECT_FALSE(cache.find_tracer("t1").has_value());  // the least recently used went
  cache.drop_key("k0");
  EXPECT_FALSE(cache.find_tracer("t0").has_value());
  EXPECT_EQ(cache.trim_tracers(), 3u);
  EXPECT_EQ(cache.tracer_count(), 0u);
}

TEST(MeshJoin, TrianglesAndObjectsFollowInListOrder) {
  Mesh a = one_triangle(0);
  a.objects = {"a"};
  Mesh b;
  test::add_triangle(b, {{{0, 0, 1}, {1, 0, 1}, {0, 1, 1}}}, test::Uvs3{{{0, 0}, {1, 0}, {0, 1}}},
                     1);
  b.objects = {"b0", "b1"};
  const Mesh joined = join_meshes({&a, &b});
  ASSERT_EQ(joined.triangles.size(), 2u);
  EXPECT_EQ(joined.objects, (std::vector<std::string>{"a", "b0", "b1"}));
  EXPECT_EQ(joined.triangles[1].object, 2u);
  EXPECT_EQ(joined.triangles[1].corners[2].position, 5u);
  EXPECT_EQ(joined.triangles[1].corners[2].uv, 2);  // a has no UVs
  EXPECT_EQ(joined.triangles[0].corners[0].uv, -1);
  EXPECT_EQ(joined.positions[5][2], 1.0f);
}

TEST(MemoryWatch, TrimsOnlyWhenMemoryIsLow) {
  EXPECT_EQ(low_memory_threshold(0), 512ull << 20);
  EXPECT_EQ(low_memory_threshold(8ull << 30), 2ull << 30);

  std::atomic<int> reads{0};
  std::promise<void> trimmed;
  std::atomic<bool> once{false};
  {
    // Plenty at first, then low: the trim follows the first low reading.
    MemoryWatch watch(
        100, [&] { return reads++ < 3 ? std::uint64_t{1000} : std::uint64_t{50}; },
        [&] {
          if (!once.exchange(true)) {
            trimmed.set_value();
          }
        },
        1);
    ASSERT_EQ(trimmed.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_GE(reads.load(), 4);
  }
  // An unknown reading (0) never trims.
  std::atomic<int> unknown_reads{0};
  std::atomic<int> trims{0};
  std::promise<void> read_enough;
  {
    MemoryWatch watch(
        100,
        [&] {
          if (++unknown_reads == 5) {
            read_enough.set_value();
          }
          return std::uint64_t{0};
        },
        [&] { ++trims; }, 1);
    ASSERT_EQ(read_enough.get_future().wait_for(std::chrono::seconds(30)),
              std::future_status::ready);
  }
  EXPECT_EQ(trims.load(), 0);
}

}  // namespace
}  // namespace kv::service
