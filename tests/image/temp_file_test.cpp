#include "image/temp_file.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "image/image_test_util.h"

namespace kv {
namespace {

namespace fs = std::filesystem;

// The counter value a temporary file was created with, read back from its name.
std::uint64_t counter_of(const fs::path& temp, const fs::path& target) {
  const std::string prefix = target.string() + "." + std::to_string(platform::process_id()) + "-";
  const std::string name = temp.string();
  EXPECT_TRUE(name.starts_with(prefix)) << name;
  EXPECT_TRUE(name.ends_with(".tmp")) << name;
  return std::stoull(name.substr(prefix.size(), name.size() - prefix.size() - 4));
}

TEST(TempFile, NamesFollowTheCounterAndOnlyCommitReplacesTheTarget) {
  test::ScratchDir dir;
  const fs::path target = dir / "out.dat";
  test::write_text_file(target, "previous contents that are longer");
  TempFile temp = TempFile::create(target);
  const std::uint64_t first = counter_of(temp.path(), target);
  EXPECT_EQ(temp.path(), temp_file_name(target, first));
  {
    TempFile dropped = TempFile::create(target);
    TempFile abandoned = TempFile::create(target);
    EXPECT_EQ(counter_of(abandoned.path(), target), first + 2);
    dropped.write("partial");
    abandoned.abandon();
    EXPECT_FALSE(fs::exists(abandoned.path()));
    EXPECT_TRUE(fs::exists(dropped.path()));
  }
  EXPECT_EQ(test::list_names(dir.path()).size(), 2u);  // the target and temp
  EXPECT_EQ(test::read_text_file(target), "previous contents that are longer");
  temp.write("new ");
  temp.write(std::string(100000, 'x'));
  temp.commit();
  EXPECT_TRUE(temp.committed());
  temp.abandon();  // after a commit this must not remove the target
  EXPECT_EQ(test::read_text_file(target), "new " + std::string(100000, 'x'));

  TempFile fresh = TempFile::create(dir / "fresh.dat");
  fresh.write("abc");
  fresh.commit();
  EXPECT_EQ(test::read_text_file(dir / "fresh.dat"), "abc");
  EXPECT_EQ(test::list_names(dir.path()), (std::vector<std::string>{"fresh.dat", "out.dat"}));
}

TEST(TempFile, MovesHandOverTheFile) {
  test::ScratchDir dir;
  const fs::path target = dir / "out.dat";
  TempFile a = TempFile::create(target);
  const fs::path first = a.path();
  TempFile b = std::move(a);
  a = TempFile::create(target);
  const fs::path second = a.path();
  a = std::move(b);  // the file a held is abandoned, b's moves in
  EXPECT_FALSE(fs::exists(second));
  EXPECT_EQ(a.path(), first);
  a.write("moved");
  a.commit();
  EXPECT_EQ(test::read_text_file(target), "moved");
  EXPECT_EQ(test::list_names(dir.path()), std::vector<std::string>{"out.dat"});
}

TEST(TempFile, GivesUpAfterSixtyFourTakenNames) {
  test::ScratchDir dir;
  const fs::path target = dir / "busy.exr";
  const std::uint64_t next = counter_of(TempFile::create(target).path(), target) + 1;
  // Take the next 63 names: the 64th attempt still finds a free one.
  for (std::uint64_t c = next; c < next + 63; ++c) {
    test::write_text_file(temp_file_name(target, c), "taken");
  }
  EXPECT_EQ(TempFile::create(target).path(), temp_file_name(target, next + 63));
  // Take all 64 names the next creation will try.
  for (std::uint64_t c = next + 64; c < next + 128; ++c) {
    test::write_text_file(temp_file_name(target, c), "taken");
  }
  EXPECT_EQ(test::error_of([&] { TempFile::create(target, "Cannot write EXR busy.exr: "); }),
            "Cannot write EXR busy.exr: found no free temporary file name next to it");
  // The taken names belong to someone else and stay.
  EXPECT_EQ(test::list_names(dir.path()).size(), 63u + 64u);
}

TEST(TempFile, CreationAndReplacementFailuresCarryTheSystemText) {
  test::ScratchDir dir;
  const fs::path missing = dir / "no-such-folder" / "out.exr";
  const std::string text = test::error_of([&] { TempFile::create(missing, "P: "); });
  EXPECT_TRUE(text.starts_with("P: could not create the temporary file " + missing.string() + "."))
      << text;
  EXPECT_TRUE(text.ends_with(".tmp: No such file or directory")) << text;

  // Replacing a non-empty folder is refused by the system; the temporary goes.
  const fs::path folder = dir / "taken";
  fs::create_directories(folder / "inside");
  TempFile temp = TempFile::create(folder, "P: ");
  temp.write("x");
  EXPECT_EQ(test::error_of([&] { temp.commit(); }),
            "P: could not replace it with the finished temporary file: Is a directory");
  EXPECT_FALSE(temp.committed());
  EXPECT_EQ(test::list_names(dir.path()), std::vector<std::string>{"taken"});
  EXPECT_TRUE(fs::is_directory(folder / "inside"));
}

}  // namespace
}  // namespace kv
