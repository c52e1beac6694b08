// The resident service against the command line, in one run on the same
// standard scene: a warm service bake (meshes loaded, LowPrep and tracer
// kept) against the trace-and-resolve phases of the command-line bake; the
// hello round trip while a bake runs; 10,000 malformed requests; a uv2uv
// transfer on the kept low mesh against the command line's whole transfer.
//
//   service_bench [--threads N] [--size S] [--aa A] [--repeats R (5)]
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "common/bench_common.h"
#include "core/json_line.h"
#include "image/kvt_file.h"
#include "mesh/kvm_file.h"
#include "platform/platform.h"
#include "scene/standard_scene.h"

using kv::Json;
using kv::bench::Clock;
using kv::bench::int_option;
using kv::bench::seconds_since;

namespace {

constexpr int kTimeoutMs = 600000;

// Reads lines until the final reply of `id` (a "queued" reply is skipped).
Json reply_of(kv::platform::ChildProcess& service, std::int64_t id) {
  for (;;) {
    const auto line = service.read_line(kTimeoutMs);
    if (!line) {
      std::fprintf(stderr, "the service stopped answering\n");
      std::exit(1);
    }
    Json value = Json::parse(*line);
    if (value.contains("ok") && value["id"] == id && !value.contains("queued")) {
      return value;
    }
  }
}

Json call(kv::platform::ChildProcess& service, const Json& request) {
  service.write_stdin(kv::json_line(request) + "\n");
  return reply_of(service, request.at("id").get<std::int64_t>());
}

Json bake_request(std::int64_t id, int size, int aa, int threads,
                  const std::filesystem::path& out) {
  return Json{{"id", id},
              {"op", "bake"},
              {"low", "low"},
              {"high", "high"},
              {"settings",
               {"--size", std::to_string(size), "--aa", std::to_string(aa), "--threads",
                std::to_string(threads)}},
              {"outputs", {{"normal", out.string()}}}};
}

// A 1024 x 1024 RGBA8 texture of varied texels.
void write_texture(const std::filesystem::path& path) {
  kv::TexelImage image;
  image.width = image.height = 1024;
  image.channels = 4;
  image.type = kv::ComponentType::kU8;
  image.data.resize(image.expected_bytes());
  for (std::size_t i = 0; i < image.data.size(); ++i) {
    image.data[i] = static_cast<std::uint8_t>((i * 2654435761u) >> 13);
  }
  kv::write_kvt(path, image);
}

std::vector<std::string> transfer_settings(int size, int aa, int threads) {
  return {"--mode",    "uv2uv",
          "--size",    std::to_string(size),
          "--aa",      std::to_string(aa),
          "--threads", std::to_string(threads)};
}

bool same_file(const std::filesystem::path& a, const std::filesystem::path& b) {
  int e = 0;
  return kv::platform::read_file(a, &e) == kv::platform::read_file(b, &e);
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  const int threads = int_option(argc, argv, "--threads", 2);
  const int size = int_option(argc, argv, "--size", 2048);
  const int aa = int_option(argc, argv, "--aa", 1);
  const int repeats = std::max(1, int_option(argc, argv, "--repeats", 5));
  const auto folder = std::filesystem::temp_directory_path() /
                      ("kv-service-bench-" + std::to_string(kv::platform::process_id()));
  std::filesystem::create_directories(folder);
  {
    const kv::bench::StandardScene scene = kv::bench::make_standard_scene();
    kv::write_kvm(folder / "low.kvm", scene.low, kv::kKvmUvDouble | kv::kKvmNormalsAsIs);
    kv::write_kvm(folder / "high.kvm", scene.high, kv::kKvmUvDouble | kv::kKvmNormalsAsIs);
  }

  // The command line's bake: its trace-and-resolve phases, and what the
  // service's whole request does beyond them (setup, padding, writing).
  struct CliBake {
    double trace = 0.0;
    double beyond = 0.0;
  };
  const auto cli_bake = [&]() -> std::optional<CliBake> {
    const kv::platform::ProcessResult cli = kv::platform::run_process(
        {KV_BINARY, "--low", (folder / "low.kvm").string(), "--high",
         (folder / "high.kvm").string(), "--size", std::to_string(size), "--aa", std::to_string(aa),
         "--threads", std::to_string(threads), "--out-normal", (folder / "cli.exr").string()},
        "");
    if (cli.exit_code != 0) {
      std::fprintf(stderr, "the command-line bake failed: %s", cli.err.c_str());
      return std::nullopt;
    }
    // The summary is stdout's last line.
    const std::string out = cli.out.substr(0, cli.out.find_last_not_of('\n') + 1);
    const Json seconds = Json::parse(out.substr(out.rfind('\n') + 1))["seconds"];
    return CliBake{seconds["trace"].get<double>(), seconds["setup"].get<double>() +
                                                       seconds["padding"].get<double>() +
                                                       seconds["write"].get<double>()};
  };

  int error = 0;
  auto service = kv::platform::ChildProcess::spawn(
      {KV_BINARY, "serve", "--parent-pid", std::to_string(kv::platform::process_id()), "--threads",
       std::to_string(threads)},
      &error);
  if (!service) {
    std::fprintf(stderr, "cannot start the service\n");
    return 1;
  }
  call(*service, {{"id", 1},
                  {"op", "mesh.load_file"},
                  {"key", "low"},
                  {"path", (folder / "low.kvm").string()}});
  call(*service, {{"id", 2},
                  {"op", "mesh.load_file"},
                  {"key", "high"},
                  {"path", (folder / "high.kvm").string()}});
  call(*service, bake_request(3, size, aa, threads, folder / "cold.exr"));  // builds the scene
  // Command line and warm service bakes take turns, so that both meet the
  // same load on a shared machine.
  std::vector<double> cli_trace, cli_beyond, warm, ratios;
  for (int r = 0; r < repeats; ++r) {
    const std::optional<CliBake> cli = cli_bake();
    if (!cli) {
      return 1;
    }
    const Clock::time_point begin = Clock::now();
    call(*service, bake_request(40 + r, size, aa, threads, folder / "warm.exr"));
    warm.push_back(seconds_since(begin));
    cli_trace.push_back(cli->trace);
    cli_beyond.push_back(cli->beyond);
    ratios.push_back(warm.back() / cli->trace);
  }
  Clock::time_point start = Clock::now();

  // hello while a bake runs: the bake's events interleave with the replies.
  service->write_stdin(kv::json_line(bake_request(5, size, aa, threads, folder / "busy.exr")) +
                       "\n");
  std::vector<double> round_trips;
  for (int i = 0; i < 200; ++i) {
    start = Clock::now();
    call(*service, {{"id", 100 + i}, {"op", "hello"}});
    round_trips.push_back(seconds_since(start));
  }
  reply_of(*service, 5);

  // 10,000 malformed requests, written while the replies are read.
  std::string malformed;
  for (int i = 0; i < 10000; ++i) {
    malformed += (i % 2 == 0) ? "{\"id\":" + std::to_string(i) + ",\"op\":\"nope\"}\n" : "[1,\n";
  }
  start = Clock::now();
  std::thread writer([&] { service->write_stdin(malformed); });
  for (int i = 0; i < 10000; ++i) {
    if (!service->read_line(kTimeoutMs)) {
      std::fprintf(stderr, "the service stopped answering\n");
      return 1;
    }
  }
  const double malformed_seconds = seconds_since(start);
  writer.join();
  // A transfer on the kept low mesh, against the command line's whole run
  // (which reads the mesh itself).
  write_texture(folder / "texture.kvt");
  std::vector<std::string> args = {KV_BINARY,      "transfer",
                                   "--target",     (folder / "low.kvm").string(),
                                   "--source-uvs", (folder / "low.kvm").string()};
  for (const std::string& s : transfer_settings(size, aa, threads)) {
    args.push_back(s);
  }
  args.insert(args.end(), {"--texture", (folder / "texture.kvt").string(), "--out",
                           (folder / "cli.kvt").string()});
  start = Clock::now();
  const kv::platform::ProcessResult cli_transfer = kv::platform::run_process(args, "");
  const double cli_transfer_seconds = seconds_since(start);
  start = Clock::now();
  const Json transfer = call(
      *service,
      {{"id", 6},
       {"op", "transfer"},
       {"target", "low"},
       {"source", "low"},
       {"settings", transfer_settings(size, aa, threads)},
       {"outputs",
        {"--texture", (folder / "texture.kvt").string(), "--out", (folder / "svc.kvt").string()}}});
  const double service_transfer_seconds = seconds_since(start);
  if (cli_transfer.exit_code != 0 || transfer["ok"] != true) {
    std::fprintf(stderr, "the transfer failed: %s %s", cli_transfer.err.c_str(),
                 transfer.dump().c_str());
    return 1;
  }

  call(*service, {{"id", -1}, {"op", "shutdown"}});
  service->wait_exit(kTimeoutMs);
  const bool same = same_file(folder / "cli.exr", folder / "warm.exr");
  const bool same_transfer = same_file(folder / "cli.kvt", folder / "svc.kvt");
  std::filesystem::remove_all(folder);

  std::printf("standard scene %dx%d aa %d, %d threads\n", size, size, aa, threads);
  const double best_cli = *std::min_element(cli_trace.begin(), cli_trace.end());
  const double best_warm = *std::min_element(warm.begin(), warm.end());
  std::printf("command line trace+resolve: best %.3f s, median %.3f s (%d runs)\n", best_cli,
              median(cli_trace), repeats);
  std::printf("warm service bake (whole request): best %.3f s, median %.3f s\n", best_warm,
              median(warm));
  std::printf(
      "ratio warm service bake / command-line trace+resolve: best %.3f, median of pairs %.3f "
      "(target <= 1.1)\n",
      best_warm / best_cli, median(ratios));
  std::printf(
      "of which the command line's own setup, padding and writing, which the whole request "
      "also does: median %.3f of trace+resolve\n",
      median(cli_beyond) / median(cli_trace));
  std::printf("warm bake equals the command line's map: %s\n", same ? "yes" : "NO");
  std::printf("hello round trip while a bake runs: median %.3f ms (target < 1 ms)\n",
              median(round_trips) * 1000.0);
  std::printf("10,000 malformed requests: %.3f s (target < 2 s)\n", malformed_seconds);
  std::printf(
      "uv2uv transfer %dx%d: command line (whole process) %.3f s, service request %.3f s, "
      "ratio %.3f; same file: %s\n",
      size, size, cli_transfer_seconds, service_transfer_seconds,
      service_transfer_seconds / cli_transfer_seconds, same_transfer ? "yes" : "NO");
  return same && same_transfer ? 0 : 1;
}
