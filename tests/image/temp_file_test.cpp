#include "image/temp_file.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "core/error.h"
#include "image/image_test_util.h"
#include "support/test_support.h"

namespace kv {
namespace {

namespace fs = std::filesystem;

// The counter value a temporary file was created with, read back from its name.
std::uint64_t counter_of(const fs::path& temp, const fs::path& target) {
  const std::string prefix = target.string() + "." + std::to_string(platform::process_id()) + "-";
  const std::string name = temp.string();
  EXPECT_EQ(name.substr(0, prefix.size()), prefix);
  EXPECT_EQ(name.substr(name.size() - 4), ".tmp");
  return std::stoull(name.substr(prefix.size(), name.size() - prefix.size() - 4));
}

TEST(TempFile, NamesFollowTheCounterAndAbandonRemovesTheFile) {
  test::ScratchDir dir;
  const fs::path target = dir / "map.bin";
  test::write_text_file(target, "old");
  std::uint64_t first = 0;
  {
    TempFile a = TempFile::create(target);
    TempFile b = TempFile::create(target);
    first = counter_of(a.path(), target);
    EXPECT_EQ(counter_of(b.path(), target), first + 1);
    EXPECT_EQ(a.path(), temp_file_name(target, first));
    EXPECT_EQ(a.path().parent_path(), target.parent_path());
    a.write("partial");
    EXPECT_TRUE(fs::exists(a.path()));
    EXPECT_TRUE(fs::exists(b.path()));
    b.abandon();
    EXPECT_FALSE(fs::exists(b.path()));
  }
  EXPECT_EQ(test::list_names(dir.path()), std::vector<std::string>{"map.bin"});
  EXPECT_EQ(test::read_text_file(target), "old");
}

TEST(TempFile, CommitReplacesTheTargetAndLeavesNoTemporary) {
  test::ScratchDir dir;
  const fs::path target = dir / "out.dat";
  test::write_text_file(target, "previous contents that are longer");
  TempFile temp = TempFile::create(target);
  temp.write("new ");
  temp.write(std::string(100000, 'x'));
  temp.commit();
  EXPECT_TRUE(temp.committed());
  EXPECT_EQ(test::read_text_file(target), "new " + std::string(100000, 'x'));
  temp.abandon();  // after a commit this must not remove the target
  EXPECT_EQ(test::list_names(dir.path()), std::vector<std::string>{"out.dat"});

  // A target that does not exist yet is created by the commit.
  TempFile fresh = TempFile::create(dir / "fresh.dat");
  fresh.write("abc");
  fresh.commit();
  EXPECT_EQ(test::read_text_file(dir / "fresh.dat"), "abc");
}

TEST(TempFile, ExceptionBeforeCommitRemovesTheFile) {
  test::ScratchDir dir;
  const fs::path target = dir / "out.dat";
  fs::path temp_path;
  try {
    TempFile temp = TempFile::create(target);
    temp_path = temp.path();
    temp.write("data");
    throw Error("interrupted");
  } catch (const Error& e) {
    EXPECT_STREQ(e.what(), "interrupted");
  }
  EXPECT_FALSE(temp_path.empty());
  EXPECT_FALSE(fs::exists(temp_path));
  EXPECT_FALSE(fs::exists(target));
  EXPECT_TRUE(test::list_names(dir.path()).empty());
}

TEST(TempFile, MovedOwnerKeepsResponsibility) {
  test::ScratchDir dir;
  const fs::path target = dir / "out.dat";
  TempFile outer = TempFile::create(target);
  fs::path path = outer.path();
  {
    TempFile inner = std::move(outer);
    EXPECT_TRUE(fs::exists(path));
    inner.write("moved");
    inner.commit();
  }
  EXPECT_EQ(test::read_text_file(target), "moved");
  EXPECT_TRUE(fs::exists(target));
}

TEST(TempFile, GivesUpAfterSixtyFourTakenNames) {
  test::ScratchDir dir;
  const fs::path target = dir / "busy.exr";
  std::uint64_t next = 0;
  {
    TempFile probe = TempFile::create(target);
    next = counter_of(probe.path(), target) + 1;
  }
  // Take the next 63 names: the 64th attempt still finds a free one.
  for (std::uint64_t c = next; c < next + 63; ++c) {
    test::write_text_file(temp_file_name(target, c), "taken");
  }
  {
    TempFile temp = TempFile::create(target);
    EXPECT_EQ(temp.path(), temp_file_name(target, next + 63));
  }
  // Take all 64 names the next creation will try.
  const std::uint64_t start = next + 64;
  for (std::uint64_t c = start; c < start + 64; ++c) {
    test::write_text_file(temp_file_name(target, c), "taken");
  }
  try {
    TempFile::create(target, "Cannot write EXR " + target.string() + ": ");
    ADD_FAILURE() << "creation should have failed";
  } catch (const Error& e) {
    EXPECT_EQ(std::string(e.what()), "Cannot write EXR " + target.string() +
                                         ": found no free temporary file name next to it");
  }
  // The taken names belong to someone else and stay.
  EXPECT_TRUE(fs::exists(temp_file_name(target, start)));
  EXPECT_EQ(test::list_names(dir.path()).size(), 63u + 64u);
}

TEST(TempFile, CreationAndReplacementFailuresCarryTheSystemText) {
  test::ScratchDir dir;
  const fs::path missing = dir / "no-such-folder" / "out.exr";
  try {
    TempFile::create(missing, "P: ");
    ADD_FAILURE() << "creation should have failed";
  } catch (const Error& e) {
    const std::string text = e.what();
    const std::string head = "P: could not create the temporary file " + missing.string() + ".";
    EXPECT_EQ(text.substr(0, head.size()), head) << text;
    EXPECT_EQ(text.substr(text.size() - std::string(".tmp: No such file or directory").size()),
              ".tmp: No such file or directory")
        << text;
  }

  // Replacing a non-empty folder is refused by the system; the temporary goes.
  const fs::path folder = dir / "taken";
  fs::create_directories(folder / "inside");
  TempFile temp = TempFile::create(folder, "P: ");
  const fs::path temp_path = temp.path();
  temp.write("x");
  try {
    temp.commit();
    ADD_FAILURE() << "commit should have failed";
  } catch (const Error& e) {
    EXPECT_EQ(std::string(e.what()),
              "P: could not replace it with the finished temporary file: Is a directory");
  }
  EXPECT_FALSE(temp.committed());
  EXPECT_FALSE(fs::exists(temp_path));
  EXPECT_TRUE(fs::is_directory(folder / "inside"));
}

}  // namespace
}  // namespace kv
