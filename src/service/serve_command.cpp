#include "service/serve_command.h"

#include <memory>
#include <thread>

#include "platform/platform.h"
#include "service/line_reader.h"
#include "service/line_writer.h"
#include "service/memory_watch.h"
#include "service/serve_options.h"
#include "service/service.h"

namespace kv::service {
namespace {

// How long the end of the service waits for cancelled jobs to reply.
constexpr int kDrainMs = 1000;

void read_loop(Service& service, Output& output) {
  LineReader reader([](char* data, std::size_t size) { return platform::read_stdin(data, size); });
  std::string line;
  while (!service.shutdown_requested() && !output.failed()) {
    const LineStatus status = reader.next(line);
    if (status == LineStatus::end) {
      return;
    }
    if (status == LineStatus::too_long) {
      output.write_line(error_reply(
          std::nullopt, "request: line longer than " + std::to_string(kLineLimit) + " bytes"));
      continue;
    }
    if (!is_blank(line)) {
      service.handle_line(line);
    }
  }
}

// The parent's end ends the service, whatever it is doing: running jobs are
// cancelled, get a moment to send their cancelled replies, and the process
// goes without running destructors.
void watch_parent(const platform::ParentWatch& watch, Service& service) {
  if (!watch.wait()) {
    return;
  }
  service.runner().cancel_all();
  service.runner().wait_idle(kDrainMs);
  platform::exit_process_now(0);
}

int serve(const ServeOptions& options, platform::ParentWatch watch) {
  platform::lower_process_priority();
  platform::ignore_broken_pipe();
  const ResolvedCounts counts = resolve_counts(options, platform::hardware_thread_count());
  Output output;
  Service service(options, counts, output);
  std::thread parent_thread(watch_parent, std::cref(watch), std::ref(service));
  auto memory_watch = std::make_unique<MemoryWatch>(
      low_memory_threshold(service.budget_bytes()),
      [] { return platform::memory_available_bytes(); },
      [&service] {
        service.scenes().trim_tracers();
        service.scenes().trim_preps();
      });

  read_loop(service, output);

  watch.stop();
  parent_thread.join();
  memory_watch.reset();
  service.runner().cancel_all();
  if (!service.runner().idle()) {
    // Cancelled jobs get a moment to send their replies; then the process
    // goes without tearing down what they may still hold.
    service.runner().wait_idle(kDrainMs);
    platform::exit_process_now(0);
  }
  service.scenes().trim_tracers();
  service.scenes().trim_preps();
  service.meshes().clear();
  return 0;
}

}  // namespace

int serve_command(const std::vector<std::string>& args) {
  const ServeOptions options = parse_serve_options(args);
  std::optional<platform::ParentWatch> watch = platform::ParentWatch::open(options.parent_pid);
  if (!watch) {
    platform::write_stderr("korvane serve: the parent process " +
                           std::to_string(options.parent_pid) + " is not running\n");
    return 2;
  }
  return serve(options, std::move(*watch));
}

}  // namespace kv::service
