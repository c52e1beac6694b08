#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <optional>
#include <vector>

#include "bake/cpu_tracer.h"
#include "support/test_support.h"
#include "tracer_test_mesh.h"

namespace kv {
namespace {

using test::ScopedEnv;

bool same_bits(const std::vector<RayHit>& a, const std::vector<RayHit>& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(RayHit)) == 0;
}

// More than a few tasks of 1024 rays and a short last task.
constexpr std::size_t kRays = 9 * 1024 + 37;

TEST(TracerBatch, SameBitsOnOneAndTwoThreadsAndAsSingleRays) {
  const Mesh field = test::bumpy_field(120);
  const std::vector<RayQuery> queries = test::field_queries(kRays, 0.02f, 0.02f);
  CpuTracer tracer(field, {}, {}, 2);

  std::vector<RayHit> one(kRays, RayHit{7, 1, 1, 1}), two(kRays, RayHit{7, 1, 1, 1});
  tracer.trace_batch(queries.data(), one.data(), kRays, 1);
  tracer.trace_batch(queries.data(), two.data(), kRays, 2);
  EXPECT_TRUE(same_bits(one, two));

  std::size_t hits = 0;
  for (std::size_t i = 0; i < kRays; ++i) {
    const RayHit single = tracer.trace(queries[i]);
    ASSERT_EQ(std::memcmp(&single, &one[i], sizeof(RayHit)), 0) << i;
    hits += one[i].triangle >= 0 ? 1 : 0;
    if (one[i].triangle < 0) {
      // Every miss slot is reset, whatever it held before.
      EXPECT_EQ(one[i].u, 0.0f);
      EXPECT_EQ(one[i].t, 0.0f);
    }
  }
  EXPECT_GT(hits, kRays * 9 / 10);
  EXPECT_LT(hits, kRays);  // some rays leave the field or its window

  // A batch that starts inside the array writes only its own slots.
  std::vector<RayHit> part(kRays, RayHit{7, 1, 1, 1});
  tracer.trace_batch(queries.data() + 1000, part.data() + 1000, 1500, 2);
  EXPECT_EQ(part[999].triangle, 7);
  EXPECT_EQ(part[2500].triangle, 7);
  EXPECT_EQ(std::memcmp(part.data() + 1000, one.data() + 1000, 1500 * sizeof(RayHit)), 0);
  tracer.trace_batch(queries.data(), part.data(), 0, 2);  // nothing to do
}

TEST(TracerBatch, KnownHitCheckAgreesWithTracing) {
  const Mesh field = test::bumpy_field(60);
  const std::vector<RayQuery> queries = test::field_queries(3000, 0.02f, 0.02f);
  CpuTracer tracer(field, {}, {}, 1);
  std::vector<RayHit> hits(queries.size());
  tracer.trace_batch(queries.data(), hits.data(), hits.size(), 1);
  int checked = 0;
  for (std::size_t i = 0; i < hits.size(); ++i) {
    if (hits[i].triangle < 0) {
      continue;
    }
    RayHit again = hits[i];
    ASSERT_TRUE(tracer.check_known_hit(queries[i], again)) << i;
    EXPECT_EQ(std::memcmp(&again, &hits[i], sizeof(RayHit)), 0) << i;
    ++checked;
  }
  EXPECT_GT(checked, 2000);
}

TEST(TracerRefineCache, SwitchAndIdenticalResults) {
  EXPECT_TRUE(refine_cache_enabled(std::nullopt));
  EXPECT_FALSE(refine_cache_enabled(std::string("0")));
  EXPECT_FALSE(refine_cache_enabled(std::string("off")));
  EXPECT_TRUE(refine_cache_enabled(std::string("false")));
  EXPECT_TRUE(refine_cache_enabled(std::string("00")));
  EXPECT_TRUE(refine_cache_enabled(std::string("OFF")));
  EXPECT_TRUE(refine_cache_enabled(std::string("")));
  EXPECT_TRUE(refine_cache_enabled(std::string("1")));

  const Mesh field = test::bumpy_field(80);
  const std::vector<RayQuery> queries = test::field_queries(4000, 0.02f, 0.02f);
  auto run = [&](const char* env, CpuTraceStatistics* stats, bool* on) {
    ScopedEnv scoped("KV_TRACE_REFINE_CACHE", env);
    CpuTracer tracer(field, {}, {}, 2);
    std::vector<RayHit> hits(queries.size());
    tracer.trace_batch(queries.data(), hits.data(), hits.size(), 2);
    *stats = tracer.statistics();
    *on = tracer.refine_cache_on();
    return hits;
  };
  CpuTraceStatistics with{}, without{}, spelled{};
  bool on_with = false, on_without = true, on_spelled = true;
  const auto a = run(nullptr, &with, &on_with);
  const auto b = run("0", &without, &on_without);
  const auto c = run("off", &spelled, &on_spelled);
  EXPECT_TRUE(on_with);
  EXPECT_FALSE(on_without);
  EXPECT_FALSE(on_spelled);
  EXPECT_TRUE(same_bits(a, b));
  EXPECT_TRUE(same_bits(a, c));

  std::uint64_t hits = 0;
  for (const RayHit& h : a) {
    hits += h.triangle >= 0 ? 1 : 0;
  }
  // With the cache every traced hit is found again; without, each winner is
  // refined a second time after the search.
  EXPECT_EQ(with.refine_cache_hits, hits);
  EXPECT_EQ(with.refine_cache_misses, 0u);
  EXPECT_EQ(without.refine_cache_hits + without.refine_cache_misses, 0u);
  EXPECT_EQ(with.filter_calls, without.filter_calls);
  EXPECT_EQ(without.refines, with.refines + hits);
  EXPECT_GE(with.filter_calls, hits);

  ScopedEnv other("KV_TRACE_REFINE_CACHE", "false");
  EXPECT_TRUE(CpuTracer(field, {}, {}, 1).refine_cache_on());
}

TEST(TracerBuild, CompactSceneAndMemoryCounters) {
  const Mesh field = test::bumpy_field(150);
  CpuTracer normal(field, {}, {}, 2);
  CpuTracerOptions compact_options;
  compact_options.compact = true;
  CpuTracer compact(field, {}, compact_options, 2);
  CpuTracerOptions low_options;
  low_options.low_build_quality = true;
  CpuTracer low(field, {}, low_options, 1);

  EXPECT_GT(normal.peak_memory_bytes(), 0u);
  EXPECT_GE(normal.peak_memory_bytes(), normal.memory_bytes());
  EXPECT_LT(compact.peak_memory_bytes(), normal.peak_memory_bytes());
  EXPECT_EQ(normal.table_bytes(), field.triangles.size() * 36);

  // Scene flags and build quality do not change a single answer.
  const std::vector<RayQuery> queries = test::field_queries(3000, 0.02f, 0.02f);
  std::vector<RayHit> a(queries.size()), b(queries.size()), c(queries.size());
  normal.trace_batch(queries.data(), a.data(), a.size(), 2);
  compact.trace_batch(queries.data(), b.data(), b.size(), 2);
  low.trace_batch(queries.data(), c.data(), c.size(), 1);
  EXPECT_TRUE(same_bits(a, b));
  EXPECT_TRUE(same_bits(a, c));
}

}  // namespace
}  // namespace kv
