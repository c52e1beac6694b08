// Every operating-system call of the program, as plain functions. No other
// folder includes an OS header. Failures are reported as the system's error
// number (errno on Linux) where the caller words the message itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kv::platform {

// ---- process -------------------------------------------------------------

int hardware_thread_count();
std::uint32_t process_id();
std::optional<std::string> get_env(const char* name);
// Sets the variable, or removes it when value is null.
void set_env(const char* name, const char* value);

// Opts the process out of execution-speed power throttling. The platform
// may not have the setting; then nothing happens.
void opt_out_of_power_throttling();

// Below-normal priority for the whole process (nice 10) and for the calling
// thread alone.
void lower_process_priority();
void lower_thread_priority();

// Memory the system could give us now (MemAvailable); 0 when unknown.
std::uint64_t memory_available_bytes();
// Highest resident set size of this process so far.
std::uint64_t peak_resident_bytes();
// Maps the pages of [data, data + bytes) writable now, as a first write
// would, without writing to them. Only a speed hint: false when the system
// cannot, and the pages then fault in on first touch as usual.
bool prefault_for_write(void* data, std::size_t bytes);

// Fresh zeroed memory for one large array: whole 2 MiB blocks on a 2 MiB
// boundary, marked for huge pages, so that it faults in (and is read into)
// with a few hundred page faults instead of tens of thousands. nullptr when
// the system has no memory for it. Give it back with unmap_large_block and
// the same byte count.
void* map_large_block(std::size_t bytes);
void unmap_large_block(void* data, std::size_t bytes);

// The system's text for an error number; "error N" when it has none.
std::string system_error_text(int error);

// ---- standard streams ----------------------------------------------------

// Writes all bytes; false when the stream failed.
bool write_stdout(std::string_view text);
bool write_stderr(std::string_view text);

// ---- files ---------------------------------------------------------------

struct FileStatus {
  bool is_regular = false;
  bool is_directory = false;
  bool is_symlink = false;  // the link itself, not followed
  bool read_only = false;   // no write permission bit for anyone
  std::uint64_t size = 0;
  std::int64_t mtime_ns = 0;  // last write, ns since the Unix epoch
};

// Status of the path itself (links not followed). nullopt with *error set
// (ENOENT when it does not exist).
std::optional<FileStatus> file_status(const std::filesystem::path& path, int* error);

// Sets the last-write time; returns 0 or the error number.
int set_last_write_time(const std::filesystem::path& path, std::int64_t mtime_ns);

// Lexical absolute form of the path; no link resolution.
std::filesystem::path absolute_path(const std::filesystem::path& path);

// Creates the folder and its missing parents; 0 or the error number.
int create_directories(const std::filesystem::path& path);

// rename(2) with replacement of an existing target; 0 or the error number.
int rename_replace(const std::filesystem::path& from, const std::filesystem::path& to);

// unlink(2); 0 or the error number.
int remove_file(const std::filesystem::path& path);

// True for errors that may pass when the operation is retried soon.
bool is_transient_rename_error(int error);
// True for errors that say this process may not do what it asked.
bool is_access_denied_error(int error);

void sleep_ms(int milliseconds);

struct DirEntry {
  std::string name;  // file name only
  FileStatus status;
};
// The entries of a folder (without "." and ".."); nullopt with *error set.
std::optional<std::vector<DirEntry>> list_directory(const std::filesystem::path& path, int* error);

// An open file descriptor, closed on destruction.
class File {
 public:
  File() = default;
  explicit File(int fd) : fd_(fd) {}
  ~File();
  File(File&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  File& operator=(File&& other) noexcept;
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  // Opens an existing file for reading; *error set on failure.
  static File open_read(const std::filesystem::path& path, int* error);
  // Creates a new file for writing, failing when the name exists (EEXIST).
  static File create_exclusive(const std::filesystem::path& path, int* error);
  // Creates or truncates a file for writing.
  static File create_truncate(const std::filesystem::path& path, int* error);
  // Creates or truncates a file for reading and writing.
  static File create_read_write(const std::filesystem::path& path, int* error);

  bool is_open() const { return fd_ >= 0; }
  // Writes every byte, retrying short writes; 0 or the error number.
  int write_all(const void* data, std::size_t size);
  // Writes every byte at the given offset (the file position is unchanged);
  // 0 or the error number.
  int write_all_at(const void* data, std::size_t size, std::uint64_t offset);
  // One write(2) call (retried on EINTR): the count accepted, which may be
  // short or 0, or -1 with *error set.
  std::int64_t write_some(const void* data, std::size_t size, int* error);
  // Reads up to size bytes at the current position, retrying short reads
  // until the end of the file; returns the count read, or -1 with *error.
  std::int64_t read_full(void* data, std::size_t size, int* error);
  // Reads up to size bytes at the given offset (the file position is
  // unchanged), retrying short reads until the end of the file; the count
  // read, or -1 with *error. Safe to call from several threads at once.
  std::int64_t read_full_at(void* data, std::size_t size, std::uint64_t offset, int* error) const;
  // Size of the open file; -1 with *error on failure.
  std::int64_t size(int* error) const;
  // Moves the file position back to the start; 0 or the error number.
  int rewind();
  // Flushes to the file system's cache and closes; 0 or the error number.
  int close();

 private:
  int fd_ = -1;
};

// A file that lives in memory only, read and written like any other and gone
// when the last descriptor closes; `name` only labels it. *error on failure.
File create_memory_file(const char* name, int* error);

// Reads a whole file into memory; nullopt with *error set.
std::optional<std::string> read_file(const std::filesystem::path& path, int* error);

// A read-only memory mapping of a whole file.
class MappedFile {
 public:
  MappedFile() = default;
  ~MappedFile();
  MappedFile(MappedFile&& other) noexcept;
  MappedFile& operator=(MappedFile&& other) noexcept;
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  // Maps the file; *error set on failure. An empty file maps to no bytes.
  static std::optional<MappedFile> open(const std::filesystem::path& path, int* error);
  const unsigned char* data() const { return data_; }
  std::size_t size() const { return size_; }

 private:
  const unsigned char* data_ = nullptr;
  std::size_t size_ = 0;
};

// ---- named shared-memory sections ------------------------------------------

// A named shared-memory section that a client created, mapped into this
// process. Clients (painting applications, Python's
// multiprocessing.shared_memory) create the section; we only open it.
class SharedSection {
 public:
  SharedSection() = default;
  ~SharedSection();
  SharedSection(SharedSection&& other) noexcept;
  SharedSection& operator=(SharedSection&& other) noexcept;
  SharedSection(const SharedSection&) = delete;
  SharedSection& operator=(const SharedSection&) = delete;

  // Opens the section by its name (without a leading slash) and maps its
  // first `size` bytes, writable or read-only. nullopt with *error set when
  // it cannot be opened or mapped, ERANGE when it holds fewer than `size`
  // bytes; *section_bytes receives its real size whenever it was opened.
  static std::optional<SharedSection> open(const std::string& name, std::uint64_t size,
                                           bool writable, int* error, std::uint64_t* section_bytes);
  unsigned char* data() const { return data_; }
  std::size_t size() const { return size_; }

 private:
  unsigned char* data_ = nullptr;
  std::size_t size_ = 0;
};

// Creates a section of `size` bytes (filled with zeros) for tests and tools
// that play the client; false with *error set. The name must not exist yet.
bool create_shared_section(const std::string& name, std::uint64_t size, int* error);
// Removes a section's name; mappings stay valid until unmapped.
void remove_shared_section(const std::string& name);

// ---- another process's memory ----------------------------------------------

// Copies `bytes` bytes at `address` in process `pid` into `out`; 0 or the
// error number (EFAULT for an address range that is not mapped there,
// ESRCH when the process is gone, EPERM when we may not read it). Callers
// read in bounded chunks so that a cancel is seen between them.
int read_process_memory(std::uint32_t pid, std::uint64_t address, void* out, std::size_t bytes);

// ---- child processes (tests and tools) ------------------------------------

struct ProcessResult {
  int exit_code = -1;  // -1 when the child did not exit normally
  std::string out;
  std::string err;
};
// Runs a program with the arguments (argv[0] included), feeding stdin_text
// and collecting stdout and stderr. env_set entries ("NAME=value") are added
// to the environment and env_unset names removed from it.
ProcessResult run_process(const std::vector<std::string>& argv, std::string_view stdin_text,
                          const std::vector<std::string>& env_set = {},
                          const std::vector<std::string>& env_unset = {});

// ---- isolated children ---------------------------------------------------

// Limits of a child that runs work which may crash, hang or exhaust memory.
struct ChildLimits {
  // Address space the child may map beyond what it inherits; 0: no limit.
  std::uint64_t memory_bytes = 0;
  // Stack the process's main thread may grow to; 0: as inherited.
  std::uint64_t stack_bytes = 0;
  // Wall time from the start until the child is killed; at least 1 ms.
  std::int64_t timeout_ms = 60000;
};

enum class ChildEnd {
  exited,         // value: the exit code
  signalled,      // value: the signal that ended it
  out_of_memory,  // an allocation failed (kChildOutOfMemoryExit, or the sanitizer's report)
  timed_out,      // killed when the time limit ran out
  not_started,    // value: the error number
};

struct ChildOutcome {
  ChildEnd end = ChildEnd::not_started;
  int value = 0;
};

// The exit code a child body returns when an allocation failed.
inline constexpr int kChildOutOfMemoryExit = 86;
// The exit code of a child body that let an exception escape.
inline constexpr int kChildUncaughtExit = 70;

// Forks a copy of this process that applies the limits, runs `body` and ends
// with its return value, never returning into the caller's frames. The
// parent waits for it at most limits.timeout_ms and kills it then. The child
// inherits the open files (memory files pass results back) and must not use
// threads: only the forking thread exists in it.
ChildOutcome run_in_child(const std::function<int()>& body, const ChildLimits& limits);

// Two pipes between a parent and a child that hands its result over while it
// still lives: the child says it is ready and waits; the parent, having taken
// what it needs (read_process_memory), answers with one byte.
class ChildLink {
 public:
  ChildLink();
  ~ChildLink();
  ChildLink(const ChildLink&) = delete;
  ChildLink& operator=(const ChildLink&) = delete;

  // 0, or the error number when the pipes could not be made.
  int error() const { return error_; }
  // In the child: tells the parent it is ready, then waits for the answer;
  // 0 when the parent ends without one.
  char ready_and_wait();
  // In the parent: the byte the waiting child gets; 0 or the error number.
  int answer(char byte);

 private:
  friend ChildOutcome run_in_child(const std::function<int()>&, const ChildLimits&, ChildLink&,
                                   const std::function<void(std::uint32_t)>&);
  int ready_[2] = {-1, -1};
  int answer_[2] = {-1, -1};
  int error_ = 0;
};

// run_in_child for a child that calls link.ready_and_wait(): when it does
// before it ends, `collect` runs in the parent with the child's process id,
// the child waiting meanwhile (the time limit does not run while the parent
// collects), and the child then has limits.timeout_ms more to end. A collect
// that throws kills the child before the exception goes on.
ChildOutcome run_in_child(const std::function<int()>& body, const ChildLimits& limits,
                          ChildLink& link, const std::function<void(std::uint32_t pid)>& collect);

// ---- the resident service ------------------------------------------------

// The service's watch on the process that started it: the process opened for
// waiting only, and a stop event that ends the wait from this side.
class ParentWatch {
 public:
  ParentWatch() = default;
  ~ParentWatch();
  ParentWatch(ParentWatch&& other) noexcept;
  ParentWatch& operator=(ParentWatch&& other) noexcept;
  ParentWatch(const ParentWatch&) = delete;
  ParentWatch& operator=(const ParentWatch&) = delete;

  // nullopt when the process is not running or the stop event cannot be made.
  static std::optional<ParentWatch> open(std::uint32_t pid);
  // Blocks until the parent ends (true) or stop() was called (false); the
  // stop event is looked at first.
  bool wait() const;
  // Signals the stop event; safe from any thread, more than once.
  void stop() const;

 private:
  int process_ = -1;
  int stop_ = -1;
};

// Ends the process at once with the status: no destructors, no flushing.
[[noreturn]] void exit_process_now(int status);

// Writes to a closed pipe fail with an error instead of ending the process.
void ignore_broken_pipe();

// One read(2) of standard input (retried on EINTR): the count read, 0 at the
// end of input, -1 on failure.
std::int64_t read_stdin(void* data, std::size_t size);

// A child process whose standard streams are pipes to us (tests and
// benchmarks that play a client).
class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess();  // kills a child still running and reaps it
  ChildProcess(ChildProcess&& other) noexcept;
  ChildProcess& operator=(ChildProcess&& other) noexcept;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Starts argv (argv[0] the program's path); nullopt with *error set.
  static std::optional<ChildProcess> spawn(const std::vector<std::string>& argv, int* error);

  std::uint32_t pid() const { return static_cast<std::uint32_t>(pid_); }
  // Writes every byte to the child's stdin; false when the pipe failed.
  bool write_stdin(std::string_view bytes);
  void close_stdin();
  // The next line of its stdout without the newline, waiting at most
  // timeout_ms for it; nullopt at the end of its output or on time-out
  // (then *timed_out is true).
  std::optional<std::string> read_line(int timeout_ms, bool* timed_out = nullptr);
  // Everything it wrote to stderr until it closed the stream, waiting at
  // most timeout_ms.
  std::string read_stderr(int timeout_ms);
  // Its exit code once it ended within timeout_ms (-1 when it did not exit
  // normally); nullopt while it still runs.
  std::optional<int> wait_exit(int timeout_ms);
  // Sends SIGKILL.
  void kill();

 private:
  int pid_ = -1;
  int process_ = -1;  // pidfd
  int in_ = -1, out_ = -1, err_ = -1;
  std::string pending_;  // stdout read past the last line handed out
  bool reaped_ = false;
  int exit_code_ = -1;
};

}  // namespace kv::platform
