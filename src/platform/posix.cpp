// Linux implementation of the platform operations.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <limits>
#include <thread>
#include <utility>

#include "platform/platform.h"

#if defined(__SANITIZE_ADDRESS__)
#define KV_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KV_ADDRESS_SANITIZER 1
#endif
#endif
#if defined(KV_ADDRESS_SANITIZER)
#include <sanitizer/asan_interface.h>
// The allocator's hooks, which not every compiler's headers declare.
extern "C" {
int __sanitizer_install_malloc_and_free_hooks(void (*on_malloc)(const volatile void*, std::size_t),
                                              void (*on_free)(const volatile void*));
std::size_t __sanitizer_get_allocated_size(const volatile void* p);
}
#endif

extern char** environ;

namespace kv::platform {

// ---- process -------------------------------------------------------------

int hardware_thread_count() {
  const unsigned n = std::thread::hardware_concurrency();
  return n == 0 ? 1 : static_cast<int>(n);
}

std::uint32_t process_id() {
  return static_cast<std::uint32_t>(::getpid());
}

std::optional<std::string> get_env(const char* name) {
  const char* value = std::getenv(name);
  if (value == nullptr) {
    return std::nullopt;
  }
  return std::string(value);
}

void set_env(const char* name, const char* value) {
  if (value != nullptr) {
    ::setenv(name, value, 1);
  } else {
    ::unsetenv(name);
  }
}

void opt_out_of_power_throttling() {
  // Linux has no per-process execution-speed throttling to opt out of.
}

void lower_process_priority() {
  (void)::setpriority(PRIO_PROCESS, 0, 10);
}

void lower_thread_priority() {
  // On Linux the nice value is per thread when addressed by thread id.
  const auto tid = static_cast<id_t>(::syscall(SYS_gettid));
  (void)::setpriority(PRIO_PROCESS, tid, 10);
}

std::uint64_t memory_available_bytes() {
  std::ifstream meminfo("/proc/meminfo");
  std::string key;
  std::uint64_t value = 0;
  std::string unit;
  while (meminfo >> key >> value >> unit) {
    if (key == "MemAvailable:") {
      return value * 1024;
    }
  }
  return 0;
}

std::uint64_t peak_resident_bytes() {
  rusage usage{};
  if (::getrusage(RUSAGE_SELF, &usage) != 0) {
    return 0;
  }
  return static_cast<std::uint64_t>(usage.ru_maxrss) * 1024;
}

bool prefault_for_write(void* data, std::size_t bytes) {
  if (bytes == 0) {
    return true;
  }
  // The pages holding the first and last byte are the caller's, so widening
  // the range to whole pages only maps memory that is already allocated.
  const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  const auto first = reinterpret_cast<std::uintptr_t>(data) & ~(page - 1);
  const std::uintptr_t end = reinterpret_cast<std::uintptr_t>(data) + bytes;
  return ::madvise(reinterpret_cast<void*>(first), end - first, MADV_POPULATE_WRITE) == 0;
}

namespace {

constexpr std::size_t kHugePage = std::size_t{2} << 20;

std::size_t whole_huge_pages(std::size_t bytes) {
  return (bytes + kHugePage - 1) / kHugePage * kHugePage;
}

}  // namespace

void* map_large_block(std::size_t bytes) {
  if (bytes == 0 || bytes > SIZE_MAX - 2 * kHugePage) {
    return nullptr;
  }
  const std::size_t length = whole_huge_pages(bytes);
  // Ask for one huge page more than needed and cut the unaligned ends off.
  const std::size_t mapped = length + kHugePage;
  void* raw = ::mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (raw == MAP_FAILED) {
    return nullptr;
  }
  const auto start = reinterpret_cast<std::uintptr_t>(raw);
  const std::uintptr_t aligned = (start + kHugePage - 1) & ~(std::uintptr_t{kHugePage} - 1);
  const std::size_t head = aligned - start;
  const std::size_t tail = mapped - head - length;
  if (head > 0) {
    ::munmap(raw, head);
  }
  if (tail > 0) {
    ::munmap(reinterpret_cast<void*>(aligned + length), tail);
  }
  // Only a hint: without huge pages the block works the same, just slower.
  ::madvise(reinterpret_cast<void*>(aligned), length, MADV_HUGEPAGE);
  return reinterpret_cast<void*>(aligned);
}

void unmap_large_block(void* data, std::size_t bytes) {
  if (data != nullptr) {
    ::munmap(data, whole_huge_pages(bytes));
  }
}

std::string system_error_text(int error) {
  char buffer[256];
  buffer[0] = '\0';
  // GNU strerror_r may return a static string instead of filling the buffer.
  const char* text = ::strerror_r(error, buffer, sizeof buffer);
  if (text == nullptr || text[0] == '\0') {
    return "error " + std::to_string(error);
  }
  return text;
}

// ---- standard streams ----------------------------------------------------

namespace {

bool write_fd(int fd, std::string_view text) {
  const char* p = text.data();
  std::size_t left = text.size();
  while (left > 0) {
    const ssize_t n = ::write(fd, p, left);
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      return false;
    }
    p += n;
    left -= static_cast<std::size_t>(n);
  }
  return true;
}

FileStatus to_status(const struct stat& st) {
  FileStatus status;
  status.is_regular = S_ISREG(st.st_mode);
  status.is_directory = S_ISDIR(st.st_mode);
  status.is_symlink = S_ISLNK(st.st_mode);
  status.read_only = (st.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0;
  status.size = static_cast<std::uint64_t>(st.st_size);
  status.mtime_ns = static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000LL +
                    static_cast<std::int64_t>(st.st_mtim.tv_nsec);
  return status;
}

}  // namespace

bool write_stdout(std::string_view text) {
  std::fflush(stdout);  // keep order with anything written through stdio
  return write_fd(STDOUT_FILENO, text);
}

bool write_stderr(std::string_view text) {
  std::fflush(stderr);
  return write_fd(STDERR_FILENO, text);
}

// ---- files ---------------------------------------------------------------

std::optional<FileStatus> file_status(const std::filesystem::path& path, int* error) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) {
    *error = errno;
    return std::nullopt;
  }
  return to_status(st);
}

int set_last_write_time(const std::filesystem::path& path, std::int64_t mtime_ns) {
  timespec times[2];
  times[0].tv_sec = 0;
  times[0].tv_nsec = UTIME_OMIT;
  times[1].tv_sec = static_cast<time_t>(mtime_ns / 1000000000LL);
  times[1].tv_nsec = static_cast<long>(mtime_ns % 1000000000LL);
  if (times[1].tv_nsec < 0) {
    times[1].tv_nsec += 1000000000L;
    times[1].tv_sec -= 1;
  }
  return ::utimensat(AT_FDCWD, path.c_str(), times, 0) == 0 ? 0 : errno;
}

std::filesystem::path absolute_path(const std::filesystem::path& path) {
  std::error_code ec;
  auto result = std::filesystem::absolute(path, ec);
  return ec ? path : result.lexically_normal();
}

int create_directories(const std::filesystem::path& path) {
  std::error_code ec;
  std::filesystem::create_directories(path, ec);
  return ec ? ec.value() : 0;
}

int rename_replace(const std::filesystem::path& from, const std::filesystem::path& to) {
  return ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

int remove_file(const std::filesystem::path& path) {
  return ::unlink(path.c_str()) == 0 ? 0 : errno;
}

bool is_transient_rename_error(int error) {
  return error == EBUSY || error == ETXTBSY;
}

bool is_access_denied_error(int error) {
  // ENOSYS: a sandbox that filters the call out refuses it this way.
  return error == EPERM || error == EACCES || error == ENOSYS;
}

void sleep_ms(int milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

std::optional<std::vector<DirEntry>> list_directory(const std::filesystem::path& path, int* error) {
  DIR* dir = ::opendir(path.c_str());
  if (dir == nullptr) {
    *error = errno;
    return std::nullopt;
  }
  std::vector<DirEntry> entries;
  while (dirent* entry = ::readdir(dir)) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") {
      continue;
    }
    struct stat st {};
    if (::fstatat(::dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
      continue;  // vanished while listing
    }
    entries.push_back({name, to_status(st)});
  }
  ::closedir(dir);
  return entries;
}

File::~File() {
  if (fd_ >= 0) {
    ::close(fd_);
  }
}

File& File::operator=(File&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) {
      ::close(fd_);
    }
    fd_ = other.fd_;
    other.fd_ = -1;
  }
  return *this;
}

namespace {

// open(2) with close-on-exec; on failure the File is empty and *error says why.
File open_file(const std::filesystem::path& path, int flags, int* error) {
  const int fd = ::open(path.c_str(), flags | O_CLOEXEC, 0666);
  if (fd < 0) {
    *error = errno;
  }
  return File(fd);
}

}  // namespace

File File::open_read(const std::filesystem::path& path, int* error) {
  return open_file(path, O_RDONLY, error);
}

File File::create_exclusive(const std::filesystem::path& path, int* error) {
  return open_file(path, O_WRONLY | O_CREAT | O_EXCL, error);
}

File File::create_truncate(const std::filesystem::path& path, int* error) {
  return open_file(path, O_WRONLY | O_CREAT | O_TRUNC, error);
}

File File::create_read_write(const std::filesystem::path& path, int* error) {
  return open_file(path, O_RDWR | O_CREAT | O_TRUNC, error);
}

int File::write_all_at(const void* data, std::size_t size, std::uint64_t offset) {
  const auto* p = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t n = ::pwrite(fd_, p, size, static_cast<off_t>(offset));
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      return errno;
    }
    if (n == 0) {
      return ENOSPC;
    }
    p += n;
    size -= static_cast<std::size_t>(n);
    offset += static_cast<std::uint64_t>(n);
  }
  return 0;
}

namespace {

// Reads until `size` bytes arrived or the file ended, in steps of at most
// 1 GiB, retrying interrupted calls: the count read, or -1 with *error.
// read_step(into, step, bytes_done) makes one read(2)-like call.
template <typename ReadStep>
std::int64_t read_until_full(void* data, std::size_t size, int* error, ReadStep read_step) {
  auto* p = static_cast<char*>(data);
  std::size_t total = 0;
  while (total < size) {
    const std::size_t step =
        size - total < (std::size_t{1} << 30) ? size - total : (std::size_t{1} << 30);
    const ssize_t n = read_step(p + total, step, total);
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      *error = errno;
      return -1;
    }
    if (n == 0) {
      break;
    }
    total += static_cast<std::size_t>(n);
  }
  return static_cast<std::int64_t>(total);
}

}  // namespace

std::int64_t File::read_full_at(void* data, std::size_t size, std::uint64_t offset,
                                int* error) const {
  return read_until_full(data, size, error, [&](char* into, std::size_t step, std::size_t done) {
    return ::pread(fd_, into, step, static_cast<off_t>(offset + done));
  });
}

int File::write_all(const void* data, std::size_t size) {
  const auto* p = static_cast<const char*>(data);
  while (size > 0) {
    const std::size_t step = size < (std::size_t{1} << 30) ? size : (std::size_t{1} << 30);
    const ssize_t n = ::write(fd_, p, step);
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      return errno;
    }
    if (n == 0) {
      return ENOSPC;
    }
    p += n;
    size -= static_cast<std::size_t>(n);
  }
  return 0;
}

std::int64_t File::write_some(const void* data, std::size_t size, int* error) {
  const std::size_t step = size < (std::size_t{1} << 30) ? size : (std::size_t{1} << 30);
  for (;;) {
    const ssize_t n = ::write(fd_, data, step);
    if (n >= 0) {
      return static_cast<std::int64_t>(n);
    }
    if (errno != EINTR) {
      *error = errno;
      return -1;
    }
  }
}

std::int64_t File::read_full(void* data, std::size_t size, int* error) {
  return read_until_full(data, size, error, [&](char* into, std::size_t step, std::size_t) {
    return ::read(fd_, into, step);
  });
}

std::int64_t File::size(int* error) const {
  struct stat st {};
  if (::fstat(fd_, &st) != 0) {
    *error = errno;
    return -1;
  }
  return static_cast<std::int64_t>(st.st_size);
}

int File::rewind() {
  return ::lseek(fd_, 0, SEEK_SET) == 0 ? 0 : errno;
}

int File::close() {
  if (fd_ < 0) {
    return 0;
  }
  const int fd = fd_;
  fd_ = -1;
  return ::close(fd) == 0 ? 0 : errno;
}

File create_memory_file(const char* name, int* error) {
  const int fd = ::memfd_create(name, MFD_CLOEXEC);
  if (fd < 0) {
    *error = errno;
  }
  return File(fd);
}

std::optional<std::string> read_file(const std::filesystem::path& path, int* error) {
  File file = File::open_read(path, error);
  if (!file.is_open()) {
    return std::nullopt;
  }
  const std::int64_t size = file.size(error);
  if (size < 0) {
    return std::nullopt;
  }
  std::string bytes(static_cast<std::size_t>(size), '\0');
  const std::int64_t got = file.read_full(bytes.data(), bytes.size(), error);
  if (got < 0) {
    return std::nullopt;
  }
  bytes.resize(static_cast<std::size_t>(got));
  return bytes;
}

MappedFile::~MappedFile() {
  if (data_ != nullptr) {
    ::munmap(const_cast<unsigned char*>(data_), size_);
  }
}

MappedFile::MappedFile(MappedFile&& other) noexcept : data_(other.data_), size_(other.size_) {
  other.data_ = nullptr;
  other.size_ = 0;
}

MappedFile& MappedFile::operator=(MappedFile&& other) noexcept {
  if (this != &other) {
    if (data_ != nullptr) {
      ::munmap(const_cast<unsigned char*>(data_), size_);
    }
    data_ = other.data_;
    size_ = other.size_;
    other.data_ = nullptr;
    other.size_ = 0;
  }
  return *this;
}

SharedSection::~SharedSection() {
  if (data_ != nullptr) {
    ::munmap(data_, size_);
  }
}

SharedSection::SharedSection(SharedSection&& other) noexcept
    : data_(other.data_), size_(other.size_) {
  other.data_ = nullptr;
  other.size_ = 0;
}

SharedSection& SharedSection::operator=(SharedSection&& other) noexcept {
  if (this != &other) {
    if (data_ != nullptr) {
      ::munmap(data_, size_);
    }
    data_ = other.data_;
    size_ = other.size_;
    other.data_ = nullptr;
    other.size_ = 0;
  }
  return *this;
}

namespace {

// POSIX names a section with one leading slash and no other.
std::string section_path(const std::string& name) {
  return "/" + name;
}

}  // namespace

std::optional<SharedSection> SharedSection::open(const std::string& name, std::uint64_t size,
                                                 bool writable, int* error,
                                                 std::uint64_t* section_bytes) {
  const int fd =
      ::shm_open(section_path(name).c_str(), (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC, 0);
  if (fd < 0) {
    *error = errno;
    return std::nullopt;
  }
  struct stat st {};
  if (::fstat(fd, &st) != 0) {
    *error = errno;
    ::close(fd);
    return std::nullopt;
  }
  *section_bytes = static_cast<std::uint64_t>(st.st_size);
  if (*section_bytes < size || size > SIZE_MAX) {
    *error = ERANGE;
    ::close(fd);
    return std::nullopt;
  }
  SharedSection section;
  if (size == 0) {
    ::close(fd);
    return section;
  }
  void* data = ::mmap(nullptr, static_cast<std::size_t>(size),
                      writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0);
  const int map_error = errno;
  ::close(fd);
  if (data == MAP_FAILED) {
    *error = map_error;
    return std::nullopt;
  }
  section.data_ = static_cast<unsigned char*>(data);
  section.size_ = static_cast<std::size_t>(size);
  return section;
}

bool create_shared_section(const std::string& name, std::uint64_t size, int* error) {
  const int fd =
      ::shm_open(section_path(name).c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) {
    *error = errno;
    return false;
  }
  const bool sized = ::ftruncate(fd, static_cast<off_t>(size)) == 0;
  *error = sized ? 0 : errno;
  ::close(fd);
  if (!sized) {
    ::shm_unlink(section_path(name).c_str());
  }
  return sized;
}

void remove_shared_section(const std::string& name) {
  ::shm_unlink(section_path(name).c_str());
}

int read_process_memory(std::uint32_t pid, std::uint64_t address, void* out, std::size_t bytes) {
  auto* target = static_cast<unsigned char*>(out);
  while (bytes > 0) {
    iovec local{target, bytes};
    iovec remote{reinterpret_cast<void*>(static_cast<std::uintptr_t>(address)), bytes};
    const ssize_t got = ::process_vm_readv(static_cast<pid_t>(pid), &local, 1, &remote, 1, 0);
    if (got < 0) {
      if (errno == EINTR) {
        continue;
      }
      return errno;
    }
    // A short read stops at the first page that is not mapped; the next
    // call then reports why.
    if (got == 0) {
      return EFAULT;
    }
    target += got;
    address += static_cast<std::uint64_t>(got);
    bytes -= static_cast<std::size_t>(got);
  }
  return 0;
}

std::optional<MappedFile> MappedFile::open(const std::filesystem::path& path, int* error) {
  File file = File::open_read(path, error);
  if (!file.is_open()) {
    return std::nullopt;
  }
  const std::int64_t size = file.size(error);
  if (size < 0) {
    return std::nullopt;
  }
  MappedFile mapped;
  if (size == 0) {
    return mapped;
  }
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    *error = errno;
    return std::nullopt;
  }
  void* data = ::mmap(nullptr, static_cast<std::size_t>(size), PROT_READ, MAP_PRIVATE, fd, 0);
  const int map_error = errno;
  ::close(fd);
  if (data == MAP_FAILED) {
    *error = map_error;
    return std::nullopt;
  }
  mapped.data_ = static_cast<const unsigned char*>(data);
  mapped.size_ = static_cast<std::size_t>(size);
  return mapped;
}

// ---- child processes -----------------------------------------------------

namespace {

// The parent's ends of a started child's standard input, output and error.
struct ChildPipes {
  int in = -1;
  int out = -1;
  int err = -1;
};

// Starts argv[0] with new pipes as its standard streams. Returns 0 and the
// parent's ends, or an error number with nothing left open.
int spawn_with_pipes(const std::vector<std::string>& argv, char* const* envp, pid_t* pid,
                     ChildPipes* pipes) {
  int in_pipe[2] = {-1, -1}, out_pipe[2] = {-1, -1}, err_pipe[2] = {-1, -1};
  const auto close_ends = [](std::initializer_list<int> fds) {
    for (const int fd : fds) {
      if (fd >= 0) {
        ::close(fd);
      }
    }
  };
  if (::pipe2(in_pipe, O_CLOEXEC) != 0 || ::pipe2(out_pipe, O_CLOEXEC) != 0 ||
      ::pipe2(err_pipe, O_CLOEXEC) != 0) {
    const int error = errno;
    close_ends({in_pipe[0], in_pipe[1], out_pipe[0], out_pipe[1], err_pipe[0], err_pipe[1]});
    return error;
  }
  std::vector<std::string> args = argv;
  std::vector<char*> argp;
  for (auto& a : args) {
    argp.push_back(a.data());
  }
  argp.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in_pipe[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out_pipe[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err_pipe[1], STDERR_FILENO);
  const int rc = ::posix_spawn(pid, argp[0], &actions, nullptr, argp.data(), envp);
  posix_spawn_file_actions_destroy(&actions);
  close_ends({in_pipe[0], out_pipe[1], err_pipe[1]});
  if (rc != 0) {
    close_ends({in_pipe[1], out_pipe[0], err_pipe[0]});
    return rc;
  }
  *pipes = {in_pipe[1], out_pipe[0], err_pipe[0]};
  return 0;
}

}  // namespace

ProcessResult run_process(const std::vector<std::string>& argv, std::string_view stdin_text,
                          const std::vector<std::string>& env_set,
                          const std::vector<std::string>& env_unset) {
  ProcessResult result;
  std::vector<std::string> env_strings;
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string entry = *e;
    const std::string name = entry.substr(0, entry.find('='));
    bool drop = false;
    for (const auto& unset : env_unset) {
      drop = drop || unset == name;
    }
    for (const auto& set : env_set) {
      drop = drop || set.substr(0, set.find('=')) == name;
    }
    if (!drop) {
      env_strings.push_back(entry);
    }
  }
  env_strings.insert(env_strings.end(), env_set.begin(), env_set.end());
  std::vector<char*> envp;
  for (auto& s : env_strings) {
    envp.push_back(s.data());
  }
  envp.push_back(nullptr);
  pid_t pid = -1;
  ChildPipes pipes;
  const int rc = spawn_with_pipes(argv, envp.data(), &pid, &pipes);
  if (rc != 0) {
    result.err = system_error_text(rc);
    return result;
  }
  // Feed stdin and drain both outputs together so no pipe fills up.
  std::size_t fed = 0;
  int in_fd = pipes.in;
  if (stdin_text.empty()) {
    ::close(in_fd);
    in_fd = -1;
  } else {
    ::fcntl(in_fd, F_SETFL, O_NONBLOCK);
  }
  struct sigaction ignore {
  }, previous{};
  ignore.sa_handler = SIG_IGN;
  ::sigaction(SIGPIPE, &ignore, &previous);
  int out_fd = pipes.out, err_fd = pipes.err;
  char buffer[65536];
  while (out_fd >= 0 || err_fd >= 0) {
    pollfd fds[3];
    int count = 0;
    if (out_fd >= 0)
      fds[count++] = {out_fd, POLLIN, 0};
    if (err_fd >= 0)
      fds[count++] = {err_fd, POLLIN, 0};
    if (in_fd >= 0)
      fds[count++] = {in_fd, POLLOUT, 0};
    if (::poll(fds, static_cast<nfds_t>(count), -1) < 0) {
      if (errno == EINTR)
        continue;
      break;
    }
    for (int i = 0; i < count; ++i) {
      if (fds[i].revents == 0)
        continue;
      if (fds[i].fd == in_fd) {
        const ssize_t n = ::write(in_fd, stdin_text.data() + fed, stdin_text.size() - fed);
        if (n > 0)
          fed += static_cast<std::size_t>(n);
        if (n < 0 && errno != EAGAIN && errno != EINTR)
          fed = stdin_text.size();
        if (fed == stdin_text.size()) {
          ::close(in_fd);
          in_fd = -1;
        }
        continue;
      }
      const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        (fds[i].fd == out_fd ? result.out : result.err).append(buffer, static_cast<std::size_t>(n));
      } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
        ::close(fds[i].fd);
        (fds[i].fd == out_fd ? out_fd : err_fd) = -1;
      }
    }
  }
  if (in_fd >= 0)
    ::close(in_fd);
  ::sigaction(SIGPIPE, &previous, nullptr);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

// ---- isolated children ---------------------------------------------------

namespace {

#if !defined(KV_ADDRESS_SANITIZER)
// The address space this process maps now, from /proc/self/statm; 0 when
// unknown. Plain system calls: this runs in a freshly forked child.
std::uint64_t mapped_bytes() {
  const int fd = ::open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return 0;
  }
  char text[128] = {};
  const ssize_t n = ::read(fd, text, sizeof text - 1);
  ::close(fd);
  if (n <= 0) {
    return 0;
  }
  const std::uint64_t pages = std::strtoull(text, nullptr, 10);
  return pages * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
}
#endif

// Lowers the soft limit of a resource to `value` (never above the hard one).
void lower_limit(int resource, std::uint64_t value) {
  rlimit limit{};
  if (::getrlimit(resource, &limit) != 0) {
    return;
  }
  rlim_t wanted = static_cast<rlim_t>(value);
  if (limit.rlim_max != RLIM_INFINITY && wanted > limit.rlim_max) {
    wanted = limit.rlim_max;
  }
  if (limit.rlim_cur == RLIM_INFINITY || wanted < limit.rlim_cur) {
    limit.rlim_cur = wanted;
    ::setrlimit(resource, &limit);
  }
}

#if defined(KV_ADDRESS_SANITIZER)
// Under AddressSanitizer the address space is no measure: the sanitizer
// reserves terabytes of shadow, maps most blocks inside ranges it reserved
// at start, and needs memory of its own to report a failure. The child's
// heap is counted through the allocator's hooks instead: bytes allocated less
// bytes freed since the fork, ending the child once they pass the limit.
std::atomic<std::int64_t> g_heap_bytes{0};
std::int64_t g_heap_limit = 0;

void count_allocation(const volatile void*, std::size_t size) {
  if (g_heap_bytes.fetch_add(static_cast<std::int64_t>(size)) + static_cast<std::int64_t>(size) >
      g_heap_limit) {
    ::_exit(kChildOutOfMemoryExit);
  }
}

void count_release(const volatile void* block) {
  g_heap_bytes.fetch_sub(static_cast<std::int64_t>(__sanitizer_get_allocated_size(block)));
}

// A failed allocation does not throw there either: the sanitizer reports it
// and ends the process. Its report is recognised and ends the child the way
// a std::bad_alloc would.
void exit_on_allocation_report(const char* report) {
  for (const char* kind : {"out of memory", "allocation-size-too-big", "calloc-overflow",
                           "malloc-limit", "rss-limit"}) {
    if (std::strstr(report, kind) != nullptr) {
      ::_exit(kChildOutOfMemoryExit);
    }
  }
}
#endif

[[noreturn]] void run_child_body(const std::function<int()>& body, const ChildLimits& limits) {
  // A crash must end the child by its own signal, whatever handler the
  // process (or a sanitizer) installed, so that the parent can name it; and it
  // leaves no core file behind.
  for (int signal_number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS}) {
    ::signal(signal_number, SIG_DFL);
  }
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  lower_limit(RLIMIT_CORE, 0);
  if (limits.stack_bytes != 0) {
    lower_limit(RLIMIT_STACK, limits.stack_bytes);
  }
#if defined(KV_ADDRESS_SANITIZER)
  if (limits.memory_bytes != 0) {
    g_heap_limit =
        static_cast<std::int64_t>(std::min<std::uint64_t>(limits.memory_bytes, INT64_MAX));
    __sanitizer_install_malloc_and_free_hooks(&count_allocation, &count_release);
  }
  __asan_set_error_report_callback(&exit_on_allocation_report);
#else
  // What the copy of the parent maps already, plus the headroom: the limit
  // bounds what the child maps itself.
  const std::uint64_t mapped = mapped_bytes();
  if (limits.memory_bytes != 0 && mapped != 0) {
    lower_limit(RLIMIT_AS, mapped + limits.memory_bytes);
  }
#endif
  int code = kChildUncaughtExit;
  try {
    code = body();
  } catch (...) {
  }
  // No exit handlers, no flushing of the parent's buffered output twice.
  ::_exit(code);
}

enum class Waited { ended, ready, out_of_time };

// Waits on the process descriptor until the child ends, `ready_fd` (when not
// -1) becomes readable, or the time runs out. A child that ended wins over
// one that also said it was ready: what it left is then all there is.
Waited wait_for_child(int process_fd, int ready_fd, std::int64_t timeout_ms) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd ready[2] = {{process_fd, POLLIN, 0}, {ready_fd, POLLIN, 0}};
    const int n = ::poll(ready, ready_fd >= 0 ? 2 : 1,
                         static_cast<int>(std::clamp<std::int64_t>(left, 0, 1 << 30)));
    if (n > 0) {
      return ready[0].revents != 0 ? Waited::ended : Waited::ready;
    }
    // A wait that cannot be made ends like one that ran out: the child is
    // killed rather than waited for without a bound.
    if ((n < 0 && errno != EINTR) || (n == 0 && left <= 0)) {
      return Waited::out_of_time;
    }
  }
}

// Reaps the child, killing it first when it has not ended.
ChildOutcome reap_child(pid_t pid, bool ended) {
  int status = 0;
  if (!ended && ::waitpid(pid, &status, WNOHANG) == pid) {
    ended = true;  // it ended just as the time ran out
  } else {
    if (!ended) {
      ::kill(pid, SIGKILL);
    }
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
  }
  if (!ended) {
    return {ChildEnd::timed_out, 0};
  }
  if (WIFSIGNALED(status)) {
    return {ChildEnd::signalled, WTERMSIG(status)};
  }
  const int code = WEXITSTATUS(status);
  return {code == kChildOutOfMemoryExit ? ChildEnd::out_of_memory : ChildEnd::exited, code};
}

void close_if_open(int& fd) {
  if (fd >= 0) {
    ::close(fd);
    fd = -1;
  }
}

// Forks, waits and, when the child says it is ready (ready_fd), collects.
ChildOutcome fork_and_wait(const std::function<int()>& body, const ChildLimits& limits,
                           int ready_fd, const std::function<void(std::uint32_t)>& collect) {
  const pid_t pid = ::fork();
  if (pid < 0) {
    return {ChildEnd::not_started, errno};
  }
  if (pid == 0) {
    run_child_body(body, limits);
  }
  int process_fd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
  if (process_fd < 0) {
    const int open_error = errno;
    const ChildOutcome outcome = reap_child(pid, false);
    return outcome.end == ChildEnd::timed_out ? ChildOutcome{ChildEnd::not_started, open_error}
                                              : outcome;
  }
  const std::int64_t timeout_ms = std::max<std::int64_t>(limits.timeout_ms, 1);
  Waited waited = wait_for_child(process_fd, ready_fd, timeout_ms);
  if (waited == Waited::ready) {
    try {
      collect(static_cast<std::uint32_t>(pid));
    } catch (...) {
      close_if_open(process_fd);
      reap_child(pid, false);
      throw;
    }
    waited = wait_for_child(process_fd, -1, timeout_ms);
  }
  close_if_open(process_fd);
  return reap_child(pid, waited == Waited::ended);
}

}  // namespace

ChildOutcome run_in_child(const std::function<int()>& body, const ChildLimits& limits) {
  return fork_and_wait(body, limits, -1, {});
}

ChildLink::ChildLink() {
  if (::pipe2(ready_, O_CLOEXEC) != 0 || ::pipe2(answer_, O_CLOEXEC) != 0) {
    error_ = errno;
  }
}

ChildLink::~ChildLink() {
  for (int* fd : {&ready_[0], &ready_[1], &answer_[0], &answer_[1]}) {
    close_if_open(*fd);
  }
}

char ChildLink::ready_and_wait() {
  // The child's own copies of the parent's ends go first: a parent that ends
  // must leave the child reading the end of the pipe, not waiting for good.
  close_if_open(ready_[0]);
  close_if_open(answer_[1]);
  const char ready = 1;
  while (::write(ready_[1], &ready, 1) < 0 && errno == EINTR) {
  }
  char byte = 0;
  for (;;) {
    const ssize_t got = ::read(answer_[0], &byte, 1);
    if (got >= 0 || errno != EINTR) {
      return got == 1 ? byte : 0;
    }
  }
}

int ChildLink::answer(char byte) {
  for (;;) {
    if (::write(answer_[1], &byte, 1) == 1) {
      return 0;
    }
    if (errno != EINTR) {
      return errno;
    }
  }
}

ChildOutcome run_in_child(const std::function<int()>& body, const ChildLimits& limits,
                          ChildLink& link, const std::function<void(std::uint32_t pid)>& collect) {
  if (link.error_ != 0) {
    return {ChildEnd::not_started, link.error_};
  }
  return fork_and_wait(body, limits, link.ready_[0], collect);
}

// ---- the resident service ------------------------------------------------

namespace {

int open_pidfd(pid_t pid) {
  return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
}

void close_fd(int& fd) {
  if (fd >= 0) {
    ::close(fd);
    fd = -1;
  }
}

// Polls one descriptor for input; false on time-out (-1: no time-out).
bool wait_readable(int fd, int timeout_ms) {
  pollfd p{fd, POLLIN, 0};
  for (;;) {
    const int rc = ::poll(&p, 1, timeout_ms);
    if (rc >= 0) {
      return rc > 0;
    }
    if (errno != EINTR) {
      return false;
    }
  }
}

}  // namespace

ParentWatch::~ParentWatch() {
  close_fd(process_);
  close_fd(stop_);
}

ParentWatch::ParentWatch(ParentWatch&& other) noexcept
    : process_(other.process_), stop_(other.stop_) {
  other.process_ = -1;
  other.stop_ = -1;
}

ParentWatch& ParentWatch::operator=(ParentWatch&& other) noexcept {
  if (this != &other) {
    close_fd(process_);
    close_fd(stop_);
    process_ = std::exchange(other.process_, -1);
    stop_ = std::exchange(other.stop_, -1);
  }
  return *this;
}

std::optional<ParentWatch> ParentWatch::open(std::uint32_t pid) {
  if (pid == 0 || pid > static_cast<std::uint32_t>(std::numeric_limits<pid_t>::max())) {
    return std::nullopt;
  }
  ParentWatch watch;
  watch.process_ = open_pidfd(static_cast<pid_t>(pid));
  if (watch.process_ < 0) {
    return std::nullopt;
  }
  watch.stop_ = ::eventfd(0, EFD_CLOEXEC);
  if (watch.stop_ < 0) {
    return std::nullopt;
  }
  return watch;
}

bool ParentWatch::wait() const {
  for (;;) {
    pollfd fds[2] = {{stop_, POLLIN, 0}, {process_, POLLIN, 0}};
    const int rc = ::poll(fds, 2, -1);
    if (rc < 0) {
      if (errno == EINTR) {
        continue;
      }
      return false;
    }
    if (fds[0].revents != 0) {
      return false;
    }
    if (fds[1].revents != 0) {
      return true;
    }
  }
}

void ParentWatch::stop() const {
  const std::uint64_t one = 1;
  (void)!::write(stop_, &one, sizeof one);
}

void exit_process_now(int status) {
  ::_exit(status);
}

void ignore_broken_pipe() {
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  ::sigaction(SIGPIPE, &ignore, nullptr);
}

std::int64_t read_stdin(void* data, std::size_t size) {
  for (;;) {
    const ssize_t n = ::read(STDIN_FILENO, data, size);
    if (n >= 0 || errno != EINTR) {
      return n;
    }
  }
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0 && !reaped_) {
    kill();
    wait_exit(-1);
  }
  close_fd(process_);
  close_fd(in_);
  close_fd(out_);
  close_fd(err_);
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept {
  *this = std::move(other);
}

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
  if (this != &other) {
    std::swap(pid_, other.pid_);
    std::swap(process_, other.process_);
    std::swap(in_, other.in_);
    std::swap(out_, other.out_);
    std::swap(err_, other.err_);
    std::swap(pending_, other.pending_);
    std::swap(reaped_, other.reaped_);
    std::swap(exit_code_, other.exit_code_);
  }
  return *this;
}

std::optional<ChildProcess> ChildProcess::spawn(const std::vector<std::string>& argv, int* error) {
  pid_t pid = -1;
  ChildPipes pipes;
  const int rc = spawn_with_pipes(argv, environ, &pid, &pipes);
  if (rc != 0) {
    *error = rc;
    return std::nullopt;
  }
  ChildProcess child;
  child.in_ = pipes.in;
  child.out_ = pipes.out;
  child.err_ = pipes.err;
  child.pid_ = pid;
  child.process_ = open_pidfd(pid);
  // Our own writes to a child that died must fail, not end the test.
  ignore_broken_pipe();
  return child;
}

bool ChildProcess::write_stdin(std::string_view bytes) {
  while (!bytes.empty() && in_ >= 0) {
    const ssize_t n = ::write(in_, bytes.data(), bytes.size());
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return bytes.empty();
}

void ChildProcess::close_stdin() {
  close_fd(in_);
}

std::optional<std::string> ChildProcess::read_line(int timeout_ms, bool* timed_out) {
  if (timed_out != nullptr) {
    *timed_out = false;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  char buffer[65536];
  for (;;) {
    const std::size_t end = pending_.find('\n');
    if (end != std::string::npos) {
      std::string line = pending_.substr(0, end);
      pending_.erase(0, end + 1);
      return line;
    }
    if (out_ < 0) {
      return std::nullopt;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 || !wait_readable(out_, static_cast<int>(left.count()))) {
      if (timed_out != nullptr) {
        *timed_out = true;
      }
      return std::nullopt;
    }
    const ssize_t n = ::read(out_, buffer, sizeof buffer);
    if (n > 0) {
      pending_.append(buffer, static_cast<std::size_t>(n));
    } else if (n == 0 || errno != EINTR) {
      close_fd(out_);
    }
  }
}

std::string ChildProcess::read_stderr(int timeout_ms) {
  std::string text;
  char buffer[65536];
  while (err_ >= 0 && wait_readable(err_, timeout_ms)) {
    const ssize_t n = ::read(err_, buffer, sizeof buffer);
    if (n > 0) {
      text.append(buffer, static_cast<std::size_t>(n));
    } else if (n == 0 || errno != EINTR) {
      close_fd(err_);
    }
  }
  return text;
}

std::optional<int> ChildProcess::wait_exit(int timeout_ms) {
  if (reaped_) {
    return exit_code_;
  }
  if (process_ >= 0 && !wait_readable(process_, timeout_ms)) {
    return std::nullopt;
  }
  int status = 0;
  while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  reaped_ = true;
  exit_code_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return exit_code_;
}

void ChildProcess::kill() {
  if (pid_ > 0 && !reaped_) {
    ::kill(pid_, SIGKILL);
  }
}

}  // namespace kv::platform
