// The serve command line: every message, and the counts resolved from it.
#include <gtest/gtest.h>

#include "core/error.h"
#include "service/serve_options.h"
#include "support/message_of.h"
#include "support/test_support.h"

namespace kv::service {
namespace {

std::string usage_error(std::vector<std::string> args) {
  args.insert(args.begin(), {"korvane", "serve"});
  return test::message_of<pipeline::UsageError>([&] { parse_serve_options(args); });
}

TEST(ServeOptions, EveryMessage) {
  EXPECT_EQ(test::message_of<pipeline::UsageError>([] {
              parse_serve_options({"korvane", "--parent-pid", "1", "serve"});
            }),
            "serve must be the first argument");
  EXPECT_EQ(usage_error({}), "korvane serve needs --parent-pid <pid>");
  EXPECT_EQ(usage_error({"--threads", "2"}), "korvane serve needs --parent-pid <pid>");
  EXPECT_EQ(usage_error({"--parent-pid"}), "missing value for --parent-pid");
  EXPECT_EQ(usage_error({"--parent-pid", "5", "--cache-dir"}), "missing value for --cache-dir");
  EXPECT_EQ(usage_error({"--parent-pid", "5", "--low", "a"}),
            "unknown serve option --low (korvane serve takes only --parent-pid, --threads, "
            "--load-threads, --cache-dir, --cache-max-mb and --memory-budget-mb)");
  EXPECT_EQ(usage_error({"--parent-pid", "0"}), "invalid value for --parent-pid: '0'");
  EXPECT_EQ(usage_error({"--parent-pid", "4294967296"}),
            "invalid value for --parent-pid: '4294967296'");
  EXPECT_EQ(usage_error({"--parent-pid", "-1"}), "invalid value for --parent-pid: '-1'");
  EXPECT_EQ(usage_error({"--parent-pid", "1", "--threads", "4097"}),
            "invalid value for --threads: '4097'");
  EXPECT_EQ(usage_error({"--parent-pid", "1", "--threads", "0"}), "--threads must be at least 1");
  EXPECT_EQ(usage_error({"--parent-pid", "1", "--load-threads", "0"}),
            "--load-threads must be at least 1");
  EXPECT_EQ(usage_error({"--parent-pid", "1", "--cache-max-mb", "0"}),
            "--cache-max-mb must be at least 1");
  EXPECT_EQ(usage_error({"--parent-pid", "1", "--cache-max-mb", "1073741825"}),
            "invalid value for --cache-max-mb: '1073741825'");
  EXPECT_EQ(usage_error({"--parent-pid", "1", "--memory-budget-mb", "1.5"}),
            "invalid value for --memory-budget-mb: '1.5'");
}

TEST(ServeOptions, ValuesAndRepeats) {
  const ServeOptions o = parse_serve_options(
      {"korvane", "serve", "--threads", "0", "--parent-pid", "4294967295", "--threads", "3",
       "--memory-budget-mb", "0", "--cache-max-mb", "1073741824", "--cache-dir", "c"});
  EXPECT_EQ(o.parent_pid, 4294967295u);
  EXPECT_EQ(o.threads, 3u);  // the later value stands
  EXPECT_EQ(o.memory_budget_mb, 0u);
  EXPECT_EQ(o.cache_max_mb, 1073741824u);
  EXPECT_EQ(o.cache_dir, "c");
}

TEST(ServeOptions, ResolvedCounts) {
  EXPECT_EQ(resolve_worker_threads(0, 1), 1);
  EXPECT_EQ(resolve_worker_threads(0, 2), 1);
  EXPECT_EQ(resolve_worker_threads(0, 3), 1);
  EXPECT_EQ(resolve_worker_threads(0, 4), 2);
  EXPECT_EQ(resolve_worker_threads(0, 16), 14);
  EXPECT_EQ(resolve_worker_threads(7, 2), 7);

  ServeOptions o;
  o.load_threads = 8;
  EXPECT_EQ(resolve_counts(o, 6).load_threads, 4);
  o.load_threads = 3;
  EXPECT_EQ(resolve_counts(o, 16).load_threads, 3);
  o.load_threads = 0;
  EXPECT_EQ(resolve_counts(o, 16).load_threads, 14);

  EXPECT_EQ(resolve_counts(o, 4).cache_max_bytes, 8589934592ull);
  o.cache_max_mb = 3;
  EXPECT_EQ(resolve_counts(o, 4).cache_max_bytes, 3ull * 1048576);

  {
    test::ScopedEnv xdg("XDG_CACHE_HOME", "/x/cache");
    EXPECT_EQ(resolve_counts(o, 4).cache_dir, "/x/cache/Tintwell/korvane-cache");
    o.cache_dir = "/given";
    EXPECT_EQ(resolve_counts(o, 4).cache_dir, "/given");
    o.cache_dir.clear();
  }
  test::ScopedEnv no_xdg("XDG_CACHE_HOME", nullptr);
  test::ScopedEnv no_home("HOME", nullptr);
  EXPECT_TRUE(resolve_counts(o, 4).cache_dir.empty());
}

}  // namespace
}  // namespace kv::service
