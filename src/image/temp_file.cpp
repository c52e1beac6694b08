#include "image/temp_file.h"

#include <atomic>
#include <cerrno>
#include <utility>

#include "core/error.h"

namespace kv {

namespace {

// Shared by every writer of the process, so that outputs written at the same
// time from different threads never pick the same name.
std::atomic<std::uint64_t> g_temp_counter{0};

}  // namespace

std::filesystem::path temp_file_name(const std::filesystem::path& target, std::uint64_t counter) {
  std::string name = target.native();
  name += '.';
  name += std::to_string(platform::process_id());
  name += '-';
  name += std::to_string(counter);
  name += ".tmp";
  return std::filesystem::path(std::move(name));
}

TempFile TempFile::create(const std::filesystem::path& target, std::string error_prefix) {
  TempFile temp;
  temp.target_ = target;
  temp.error_prefix_ = std::move(error_prefix);
  for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
    const std::uint64_t counter = g_temp_counter.fetch_add(1, std::memory_order_relaxed);
    temp.path_ = temp_file_name(target, counter);
    int error = 0;
    temp.file_ = platform::File::create_exclusive(temp.path_, &error);
    if (temp.file_.is_open()) {
      temp.owns_file_ = true;
      return temp;
    }
    if (error != EEXIST) {
      temp.fail("could not create the temporary file " + temp.path_.string() + ": " +
                platform::system_error_text(error));
    }
  }
  temp.path_.clear();
  temp.fail("found no free temporary file name next to it");
}

TempFile::TempFile(TempFile&& other) noexcept
    : target_(std::move(other.target_)),
      path_(std::move(other.path_)),
      error_prefix_(std::move(other.error_prefix_)),
      file_(std::move(other.file_)),
      owns_file_(std::exchange(other.owns_file_, false)),
      committed_(other.committed_) {}

TempFile& TempFile::operator=(TempFile&& other) noexcept {
  if (this != &other) {
    abandon();
    target_ = std::move(other.target_);
    path_ = std::move(other.path_);
    error_prefix_ = std::move(other.error_prefix_);
    file_ = std::move(other.file_);
    owns_file_ = std::exchange(other.owns_file_, false);
    committed_ = other.committed_;
  }
  return *this;
}

TempFile::~TempFile() {
  abandon();
}

void TempFile::fail(const std::string& reason) {
  abandon();
  throw Error(error_prefix_ + reason);
}

void TempFile::write(const void* data, std::size_t size) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  while (size > 0) {
    int error = 0;
    const std::int64_t written = file_.write_some(bytes, size, &error);
    if (written < 0) {
      fail("could not write the temporary file " + path_.string() + ": " +
           platform::system_error_text(error));
    }
    if (written == 0) {
      fail("the temporary file " + path_.string() + " accepted no data");
    }
    bytes += written;
    size -= static_cast<std::size_t>(written);
  }
}

void TempFile::commit() {
  // Nothing to clear before closing: on this platform the file is not marked
  // for deletion, this object removes it itself when it does not commit.
  const int close_error = file_.close();
  if (close_error != 0) {
    fail("could not close the temporary file " + path_.string() + ": " +
         platform::system_error_text(close_error));
  }
  int error = 0;
  for (int attempt = 1; attempt <= kRenameAttempts; ++attempt) {
    error = platform::rename_replace(path_, target_);
    if (error == 0) {
      owns_file_ = false;
      committed_ = true;
      return;
    }
    if (!platform::is_transient_rename_error(error) || attempt == kRenameAttempts) {
      break;
    }
    platform::sleep_ms(kRenameWaitMs);
  }
  fail("could not replace it with the finished temporary file: " +
       platform::system_error_text(error));
}

void TempFile::abandon() noexcept {
  file_.close();
  if (owns_file_) {
    platform::remove_file(path_);
    owns_file_ = false;
  }
}

PlainTempFile::PlainTempFile(std::filesystem::path target)
    : target_(std::move(target)), path_(target_.native() + ".tmp") {}

PlainTempFile::~PlainTempFile() {
  file_.close();
  if (created_) {
    platform::remove_file(path_);
  }
}

void PlainTempFile::create() {
  int error = 0;
  file_ = platform::File::create_truncate(path_, &error);
  if (!file_.is_open()) {
    throw Error("cannot create " + path_.string());
  }
  created_ = true;
}

void PlainTempFile::write(const void* data, std::size_t size) {
  if (file_.write_all(data, size) != 0) {
    throw Error("cannot write " + path_.string());
  }
}

void PlainTempFile::commit() {
  if (file_.close() != 0) {
    throw Error("cannot write " + path_.string());
  }
  int error = 0;
  for (int attempt = 1;; ++attempt) {
    error = platform::rename_replace(path_, target_);
    if (error == 0) {
      created_ = false;
      return;
    }
    if (!platform::is_transient_rename_error(error) || attempt == TempFile::kRenameAttempts) {
      break;
    }
    platform::sleep_ms(TempFile::kRenameWaitMs);
  }
  throw Error("cannot rename " + path_.string() + " to " + target_.string() + ": " +
              platform::system_error_text(error));
}

void write_file_replacing(const std::filesystem::path& target, const void* data, std::size_t size) {
  PlainTempFile temp(target);
  temp.create();
  temp.write(data, size);
  temp.commit();
}

}  // namespace kv
