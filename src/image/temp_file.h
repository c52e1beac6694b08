// Every file the program writes reaches the disk through a temporary file next
// to its target, which replaces the target only once it is complete: no reader
// ever sees a half-written file, and a failed write leaves the old one as it was.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "platform/platform.h"

namespace kv {

// A temporary file "<target>.<pid>-<counter>.tmp", created exclusively. It is
// removed again on every path that does not reach commit(), exceptions
// included. Failures throw kv::Error with the caller's prefix and the reason,
// e.g. prefix "Cannot write EXR out.exr: " and reason "could not write the
// temporary file ...: No space left on device".
class TempFile {
 public:
  // Name attempts before giving up when every candidate name is taken.
  static constexpr int kNameAttempts = 64;
  // Rename attempts, kRenameWaitMs apart, while the target is busy.
  static constexpr int kRenameAttempts = 20;
  static constexpr int kRenameWaitMs = 10;

  // Creates the temporary file beside target (the target's folder must
  // exist). Each name attempt takes the next value of a process-wide counter.
  static TempFile create(const std::filesystem::path& target, std::string error_prefix = {});

  TempFile(TempFile&& other) noexcept;
  TempFile& operator=(TempFile&& other) noexcept;
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  // Abandons the file unless it was committed.
  ~TempFile();

  // Writes every byte or throws.
  void write(const void* data, std::size_t size);
  void write(std::string_view bytes) { write(bytes.data(), bytes.size()); }

  // Closes the file and moves it onto the target, replacing an existing file;
  // a busy target is retried. On failure the temporary file is removed.
  void commit();

  // Closes and removes the temporary file; nothing happens after a commit.
  void abandon() noexcept;

  const std::filesystem::path& path() const { return path_; }
  const std::filesystem::path& target() const { return target_; }
  bool committed() const { return committed_; }

 private:
  TempFile() = default;
  [[noreturn]] void fail(const std::string& reason);

  std::filesystem::path target_;
  std::filesystem::path path_;
  std::string error_prefix_;
  platform::File file_;
  bool owns_file_ = false;  // the file exists on disk and is ours to remove
  bool committed_ = false;
};

// A temporary file under the one name "<target>.tmp" (an existing one is
// truncated), renamed onto the target once complete and removed on every path
// that does not reach commit(). Used by the PNG, texel-file and hit-dump
// writers. Failures throw kv::Error "cannot create <tmp>", "cannot write
// <tmp>" or "cannot rename <tmp> to <target>: <reason>".
class PlainTempFile {
 public:
  explicit PlainTempFile(std::filesystem::path target);
  ~PlainTempFile();
  PlainTempFile(const PlainTempFile&) = delete;
  PlainTempFile& operator=(const PlainTempFile&) = delete;

  // Creates the file; the target's folder must exist.
  void create();
  // Writes every byte or throws.
  void write(const void* data, std::size_t size);
  // Closes the file and renames it onto the target, retrying a busy target.
  void commit();

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path target_;
  std::filesystem::path path_;
  platform::File file_;
  bool created_ = false;
};

// Writes the bytes to "<target>.tmp" and renames it onto the target.
void write_file_replacing(const std::filesystem::path& target, const void* data, std::size_t size);

// The temporary name for one attempt: "<target>.<pid>-<counter>.tmp".
std::filesystem::path temp_file_name(const std::filesystem::path& target, std::uint64_t counter);

}  // namespace kv
