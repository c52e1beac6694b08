#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/platform.h"

namespace kv::platform {
namespace {

// Deep enough to pass any stack limit; the frames cannot be folded away.
int recurse(int depth) {
  volatile char frame[4096];
  frame[0] = static_cast<char>(depth);
  return depth < 0 ? frame[0] : recurse(depth + 1) + frame[0];
}

bool same(const ChildOutcome& outcome, ChildEnd end, int value) {
  return outcome.end == end && outcome.value == value;
}

TEST(RunInChild, TellsHowTheChildEnded) {
  ChildLimits limits;
  limits.timeout_ms = 60000;
  EXPECT_TRUE(same(run_in_child([] { return 3; }, limits), ChildEnd::exited, 3));
  EXPECT_TRUE(same(run_in_child([]() -> int { throw std::string("no"); }, limits), ChildEnd::exited,
                   kChildUncaughtExit));
  EXPECT_TRUE(same(run_in_child([] { return kChildOutOfMemoryExit; }, limits),
                   ChildEnd::out_of_memory, kChildOutOfMemoryExit));

  // A stack overflow ends the child by SIGSEGV (11), whatever handler the
  // process runs with.
  limits.stack_bytes = std::uint64_t{4} << 20;
  EXPECT_TRUE(same(run_in_child([] { return recurse(1); }, limits), ChildEnd::signalled, 11));

  // The memory limit makes allocation fail in the child only.
  limits.memory_bytes = std::uint64_t{64} << 20;
  const auto allocate = [] {
    try {
      std::vector<std::unique_ptr<char[]>> blocks;
      for (int i = 0; i < 64; ++i) {
        blocks.emplace_back(new char[std::size_t{16} << 20]);
        blocks.back()[0] = 1;
      }
      return 0;
    } catch (const std::bad_alloc&) {
      return kChildOutOfMemoryExit;
    }
  };
  EXPECT_TRUE(same(run_in_child(allocate, limits), ChildEnd::out_of_memory, kChildOutOfMemoryExit));
  std::vector<char> here(std::size_t{128} << 20, 1);
  EXPECT_EQ(here.back(), 1);

  limits.timeout_ms = 300;
  EXPECT_TRUE(same(run_in_child(
                       [] {
                         for (;;) {
                           sleep_ms(1000);
                         }
                         return 0;
                       },
                       limits),
                   ChildEnd::timed_out, 0));
}

TEST(RunInChild, MemoryFilesCarryResultsBack) {
  int error = 0;
  File shared = create_memory_file("test", &error);
  ASSERT_TRUE(shared.is_open()) << system_error_text(error);
  const ChildOutcome outcome = run_in_child(
      [&] { return shared.write_all("from the child", 14) == 0 ? 0 : 1; }, ChildLimits{});
  ASSERT_TRUE(same(outcome, ChildEnd::exited, 0));
  // The child's writes moved the shared position; rewinding reads them all.
  ASSERT_EQ(shared.rewind(), 0);
  std::string text(32, '\0');
  text.resize(static_cast<std::size_t>(shared.read_full(text.data(), text.size(), &error)));
  EXPECT_EQ(text, "from the child");
}

TEST(RunInChild, ALinkedChildWaitsWhileTheParentReadsItsMemory) {
  ChildLimits limits;
  limits.timeout_ms = 60000;
  // The child's value, read out of it while it waits; it ends with the
  // parent's answer as its exit code.
  ChildLink link;
  ASSERT_EQ(link.error(), 0) << system_error_text(link.error());
  std::uint64_t value = 0;
  std::uint64_t seen = 0;
  int read_error = -1;
  const ChildOutcome outcome = run_in_child(
      [&] {
        value = 0x1234567890abcdefull;
        return static_cast<int>(link.ready_and_wait());
      },
      limits, link,
      [&](std::uint32_t pid) {
        read_error =
            read_process_memory(pid, reinterpret_cast<std::uintptr_t>(&value), &seen, sizeof seen);
        EXPECT_EQ(link.answer(7), 0);
      });
  EXPECT_TRUE(same(outcome, ChildEnd::exited, 7));
  EXPECT_EQ(read_error, 0) << system_error_text(read_error);
  EXPECT_EQ(seen, 0x1234567890abcdefull);
  EXPECT_EQ(value, 0u);

  // A child that ends without saying it is ready is not collected.
  ChildLink quiet;
  bool collected = false;
  EXPECT_TRUE(
      same(run_in_child([] { return 5; }, limits, quiet, [&](std::uint32_t) { collected = true; }),
           ChildEnd::exited, 5));
  EXPECT_FALSE(collected);

  // A collect that throws ends the waiting child and the exception goes on;
  // the child, which would otherwise wait out the minute, is gone.
  ChildLink failing;
  EXPECT_THROW(run_in_child([&] { return static_cast<int>(failing.ready_and_wait()); }, limits,
                            failing, [](std::uint32_t) { throw std::runtime_error("collect"); }),
               std::runtime_error);

  // A child that crashes after saying it is ready is named by its signal.
  ChildLink crashing;
  EXPECT_TRUE(same(run_in_child(
                       [&]() -> int {
                         crashing.ready_and_wait();
                         std::abort();
                       },
                       limits, crashing, [&](std::uint32_t) { crashing.answer(1); }),
                   ChildEnd::signalled, 6));
}

}  // namespace
}  // namespace kv::platform
