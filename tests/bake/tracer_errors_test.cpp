#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bake/cpu_tracer.h"
#include "core/error.h"
#include "tracer_test_mesh.h"

namespace kv {
namespace {

template <typename E, typename F>
std::string message_of(F&& fn) {
  try {
    fn();
  } catch (const E& e) {
    return e.what();
  } catch (const std::exception& e) {
    return std::string("wrong type: ") + e.what();
  }
  return "no exception";
}

// A tracer that keeps the interface's default for exclusion.
class NoExclusionTracer final : public Tracer {
 public:
  std::string description() const override { return "none"; }
  RayHit trace(const RayQuery&) const override { return {}; }
  bool runs_on_gpu() const override { return true; }
  void trace_batch(const RayQuery*, RayHit*, std::uint64_t, std::int32_t) const override {}
  bool check_known_hit(const RayQuery&, RayHit&) const override { return false; }
  bool has_name_groups() const override { return false; }
  GpuTraceStatistics gpu_statistics() const override { return {}; }
};

TEST(TracerErrors, MessagesByCase) {
  Mesh mesh;
  test::add_square(mesh, 0.0f, 1.0f, true);

  EXPECT_EQ(message_of<Error>([&] {
              CpuTracer(mesh, {1, 2, 3}, {}, 1);
            }),
            "name groups do not match the high mesh");
  EXPECT_EQ(message_of<Error>([&] { CpuTracer(mesh, {1}, {}, 1); }),
            "name groups do not match the high mesh");

  NoExclusionTracer other;
  EXPECT_EQ(message_of<Error>([&] { other.trace_excluding(RayQuery{}, 3); }),
            "tracer does not support secondary self exclusion");

  Mesh broken = mesh;
  broken.triangles[1].corners[2].position = 6;
  EXPECT_EQ(message_of<Error>([&] { CpuTracer(broken, {}, {}, 1); }),
            "high mesh triangle 1 refers to position 6 of 6");
  EXPECT_EQ(message_of<Error>([&] { LowMeshScene scene(broken); }),
            "low mesh triangle 1 refers to position 6 of 6");
}

TEST(TracerErrors, MemoryLimitRaisesOutOfMemory) {
  const Mesh field = test::bumpy_field(100);
  const std::uint64_t buffers = 12 * (field.positions.size() + field.triangles.size());
  // Too small for the geometry buffers; then room for them but not the tree.
  const std::uint64_t limits[2] = {1, buffers + 40000};
  const std::string prefixes[2] = {"Embree buffer allocation failed: ",
                                   "Embree scene build failed: "};
  for (int i = 0; i < 2; ++i) {
    CpuTracerOptions options;
    options.memory_limit = limits[i];
    const std::string text = message_of<OutOfMemory>([&] { CpuTracer(field, {}, options, 1); });
    EXPECT_EQ(text.rfind(prefixes[i], 0), 0u) << text;
    // The device's own text follows the prefix.
    EXPECT_GT(text.size(), prefixes[i].size()) << text;
  }
  // A limit that fits changes nothing.
  CpuTracerOptions roomy;
  roomy.memory_limit = 1ull << 34;
  CpuTracer tracer(field, {}, roomy, 1);
  EXPECT_LE(tracer.peak_memory_bytes(), roomy.memory_limit);
  EXPECT_EQ(tracer.trace(test::down_query(0.1f, 0.2f, 0.02f, 0.02f)).triangle >= 0, true);
}

TEST(TracerErrors, OutOfMemoryRetriesOnceInCompactMode) {
  const Mesh field = test::bumpy_field(40);
  std::vector<std::string> events;
  auto trace = [&](std::string_view event) { events.emplace_back(event); };

  // First build out of memory for real, second as asked.
  std::vector<CpuTracerOptions> seen;
  bool retried = false;
  auto tracer = build_with_compact_retry(
      [&](const CpuTracerOptions& options) {
        seen.push_back(options);
        CpuTracerOptions used = options;
        if (seen.size() == 1) {
          used.memory_limit = 1;
        }
        return std::make_unique<CpuTracer>(field, std::vector<std::uint32_t>{}, used, 1);
      },
      &retried, trace);
  ASSERT_NE(tracer, nullptr);
  EXPECT_TRUE(retried);
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_FALSE(seen[0].compact);
  EXPECT_TRUE(seen[1].compact);
  EXPECT_FALSE(seen[1].low_build_quality);
  EXPECT_EQ(seen[1].memory_limit, 0u);
  EXPECT_EQ(events, std::vector<std::string>{"embree.retry_compact"});
  EXPECT_GE(tracer->trace(test::down_query(0.1f, 0.2f, 0.02f, 0.02f)).triangle, 0);

  // A second failure propagates; other errors are not retried.
  events.clear();
  retried = false;
  int calls = 0;
  EXPECT_EQ(message_of<OutOfMemory>([&] {
              build_with_compact_retry(
                  [&](const CpuTracerOptions&) -> std::unique_ptr<CpuTracer> {
                    ++calls;
                    throw OutOfMemory("again " + std::to_string(calls));
                  },
                  &retried, trace);
            }),
            "again 2");
  EXPECT_EQ(calls, 2);
  EXPECT_TRUE(retried);
  calls = 0;
  retried = false;
  EXPECT_EQ(message_of<Error>([&] {
              build_with_compact_retry(
                  [&](const CpuTracerOptions&) -> std::unique_ptr<CpuTracer> {
                    ++calls;
                    throw Error("broken");
                  },
                  &retried, {});
            }),
            "broken");
  EXPECT_EQ(calls, 1);
  EXPECT_FALSE(retried);

  // The real entry builds without a retry when memory suffices.
  retried = true;
  bool fresh = false;
  auto built = build_cpu_tracer_with_retry(field, {}, 1, &fresh);
  EXPECT_FALSE(fresh);
  EXPECT_FALSE(built->refine_cache_on() && built->has_name_groups());
}

TEST(TracerErrors, EmptyHighMeshMissesEverything) {
  const Mesh empty;
  CpuTracer tracer(empty, {}, {}, 1);
  EXPECT_FALSE(tracer.has_name_groups());
  const std::vector<RayQuery> queries = test::field_queries(1500, 0.02f, 0.02f);
  std::vector<RayHit> hits(queries.size(), RayHit{3, 1, 1, 1});
  tracer.trace_batch(queries.data(), hits.data(), hits.size(), 2);
  for (const RayHit& h : hits) {
    ASSERT_EQ(h.triangle, -1);
    ASSERT_EQ(h.t, 0.0f);
  }
  RayHit known = {0, 0, 0, 0.01f};
  EXPECT_FALSE(tracer.check_known_hit(queries[0], known));
}

TEST(TracerLowScene, PlainClosestHits) {
  Mesh low;
  test::add_square(low, 0.5f, 1.0f, false);  // facing down: no backface rule here
  test::add_square(low, -0.5f, 1.0f, true);
  LowMeshScene scene(low);
  RayHit hit = scene.intersect({0.3f, 0.1f, 2.0f}, {0, 0, -1}, 0.0f, 10.0f);
  EXPECT_EQ(hit.triangle, 0);
  EXPECT_EQ(hit.t, 1.5f);
  hit = scene.intersect({0.3f, 0.1f, 2.0f}, {0, 0, -1}, 1.6f, 10.0f);
  EXPECT_EQ(hit.triangle, 2);
  EXPECT_EQ(hit.t, 2.5f);
  EXPECT_EQ(scene.intersect({3.0f, 0.1f, 2.0f}, {0, 0, -1}, 0.0f, 10.0f).triangle, -1);
  EXPECT_EQ(scene.intersect({0.3f, 0.1f, 2.0f}, {0, 0, -1}, 0.0f, 1.0f).triangle, -1);

  LowMeshScene empty(Mesh{});
  EXPECT_EQ(empty.intersect({0, 0, 1}, {0, 0, -1}, 0.0f, 10.0f).triangle, -1);
}

}  // namespace
}  // namespace kv
