// The temporary-file protocol every writer goes through.
#include <gtest/gtest.h>

#include <cstring>

#include "image/exr.h"
#include "image/png.h"
#include "image/temp_file.h"
#include "image_test_util.h"
#include "platform/platform.h"
#include "support/test_support.h"

namespace kv {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using test::error_of;
using test::list_names;
using test::random_codes;
using test::read_text_file;

// The counter value a temporary file was created with, read from its name;
// the whole name is checked against temp_file_name (and its form through the
// writers' messages).
std::uint64_t counter_of(const fs::path& temp) {
  const std::string name = temp.string();
  return std::stoull(name.substr(name.rfind('-') + 1));  // stops at ".tmp"
}

TEST(TempFile, NamesFollowTheCounterAndOnlyCommitReplacesTheTarget) {
  test::ScratchDir dir;
  const fs::path target = dir / "out.dat";
  test::write_text_file(target, "previous contents that are longer");
  TempFile temp = TempFile::create(target);
  const std::uint64_t first = counter_of(temp.path());
  EXPECT_EQ(temp.path(), temp_file_name(target, first));
  {
    TempFile dropped = TempFile::create(target);
    TempFile abandoned = TempFile::create(target);
    EXPECT_EQ(abandoned.path(), temp_file_name(target, first + 2));
    dropped.write("partial");
    abandoned.abandon();
    EXPECT_FALSE(fs::exists(abandoned.path()));
    EXPECT_TRUE(fs::exists(dropped.path()));
  }
  EXPECT_EQ(list_names(dir.path()).size(), 2u);  // the target and temp
  EXPECT_EQ(read_text_file(target), "previous contents that are longer");
  temp.write("new ");
  temp.write(std::string(100000, 'x'));
  temp.commit();
  temp.abandon();  // after a commit this must not remove the target
  EXPECT_EQ(read_text_file(target), "new " + std::string(100000, 'x'));

  // Moves hand the file over; assigning abandons the file held before.
  TempFile a = TempFile::create(dir / "fresh.dat");
  const fs::path moved = a.path();
  TempFile b = std::move(a);
  a = TempFile::create(dir / "fresh.dat");
  const fs::path replaced = a.path();
  a = std::move(b);
  EXPECT_FALSE(fs::exists(replaced));
  EXPECT_EQ(a.path(), moved);
  a.write("abc");
  a.commit();
  EXPECT_EQ(read_text_file(dir / "fresh.dat"), "abc");
  EXPECT_EQ(list_names(dir.path()), (std::vector<std::string>{"fresh.dat", "out.dat"}));
}

TEST(TempFile, GivesUpAfterSixtyFourTakenNamesAndPassesOnSystemErrors) {
  test::ScratchDir dir;
  const fs::path target = dir / "busy.exr";
  const std::uint64_t next = counter_of(TempFile::create(target).path()) + 1;
  // Take the next 63 names: the 64th attempt still finds a free one.
  for (std::uint64_t c = next; c < next + 63; ++c) {
    test::write_text_file(temp_file_name(target, c), "taken");
  }
  EXPECT_EQ(TempFile::create(target).path(), temp_file_name(target, next + 63));
  // Take all 64 names the next creation will try.
  for (std::uint64_t c = next + 64; c < next + 128; ++c) {
    test::write_text_file(temp_file_name(target, c), "taken");
  }
  EXPECT_EQ(error_of([&] { TempFile::create(target, "Cannot write EXR busy.exr: "); }),
            "Cannot write EXR busy.exr: found no free temporary file name next to it");
  // The taken names belong to someone else and stay.
  EXPECT_EQ(list_names(dir.path()).size(), 63u + 64u);

  const fs::path missing = dir / "no-such-folder" / "out.exr";
  const std::string text = error_of([&] { TempFile::create(missing, "P: "); });
  EXPECT_TRUE(text.starts_with("P: could not create the temporary file " + missing.string() + "."))
      << text;
  EXPECT_TRUE(text.ends_with(".tmp: No such file or directory")) << text;

  // Replacing a non-empty folder is refused by the system; the temporary goes
  // and only the taken names and the folder stay.
  const fs::path folder = dir / "taken";
  fs::create_directories(folder / "inside");
  TempFile temp = TempFile::create(folder, "P: ");
  temp.write("x");
  EXPECT_EQ(error_of([&] { temp.commit(); }),
            "P: could not replace it with the finished temporary file: Is a directory");
  EXPECT_EQ(list_names(dir.path()).size(), 63u + 64u + 1);
}

// A write that runs out of room part way must leave the previous file as it
// was and no temporary beside it. The test runs again in a child process
// whose files may not grow past 64 KiB (SIGXFSZ ignored, so writes fail with
// EFBIG); there both writers try to replace the target.
TEST(Writers, FailedWriteKeepsTheOldFile) {
  if (const auto target = platform::get_env("KV_IMAGE_CHILD_TARGET")) {
    const std::vector<std::uint16_t> codes = random_codes(512 * 512 * 3, 9);
    const std::string exr = error_of([&] { writeExr(*target, 512, 512, 3, codes, kExrFloat); });
    EXPECT_TRUE(exr.starts_with("Cannot write EXR " + *target +
                                ": could not write the temporary file " + *target + "." +
                                std::to_string(platform::process_id()) + "-"))
        << exr;
    EXPECT_TRUE(exr.ends_with(".tmp: File too large")) << exr;
    EXPECT_EQ(error_of([&] { writePngCodes(*target, 512, 512, 3, codes); }),
              "cannot write " + *target + ".tmp");
    return;
  }
  test::ScratchDir dir;
  const fs::path target = dir / "map";
  test::write_text_file(target, "the previous map");
  const auto result = platform::run_process(
      {"/bin/sh", "-c", "trap '' XFSZ; ulimit -f 64 && exec \"$0\" --gtest_filter=\"$1\"",
       fs::read_symlink("/proc/self/exe").string(), "Writers.FailedWriteKeepsTheOldFile"},
      "", {"KV_IMAGE_CHILD_TARGET=" + target.string()});
  EXPECT_EQ(result.exit_code, 0) << result.out << result.err;
  EXPECT_NE(result.out.find("[  PASSED  ] 1 test"), std::string::npos) << result.out;
  EXPECT_EQ(list_names(dir.path()), std::vector<std::string>{"map"});
  EXPECT_EQ(read_text_file(target), "the previous map");
}

}  // namespace
}  // namespace kv
