// glTF reading in a child process against reading in this process, in one
// run. The standard scene's high mesh (about 1.3 million triangles) is written
// as a .glb with positions, normals and latitude-longitude UVs, then read by
// read_mesh_in_process and by read_mesh (which forks the reader and copies the
// mesh's arrays out of it), each read in a fresh process as the one-shot
// command reads its meshes, the two ways taking turns. Prints the best and
// the median time of each, their ratios child / in process and the load
// average around the runs. Target: at most 1.2.
//
//   mesh_child_bench [--threads N (2)] [--subdivisions N (8)] [--repeats N (9)]
//                    [--dir folder] [--keep]
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numbers>
#include <string>
#include <vector>

#include "common/bench_common.h"
#include "core/error.h"
#include "mesh/mesh_format.h"
#include "platform/platform.h"
#include "scene/standard_scene.h"

namespace {

using kv::bench::Clock;
using kv::bench::seconds_since;

void append_u32(std::string& out, std::uint32_t value) {
  out.append(reinterpret_cast<const char*>(&value), 4);
}

template <typename T>
void append_array(std::string& out, const std::vector<T>& values) {
  out.append(reinterpret_cast<const char*>(values.data()), values.size() * sizeof(T));
}

// The mesh as a .glb of one node: float positions, normals and UVs per
// vertex (the generator gives corners one index for all three) and 32-bit
// indices, each in a buffer view of its own.
std::string glb_of(const kv::Mesh& mesh) {
  const std::size_t vertices = mesh.positions.size();
  std::vector<float> positions, normals, uvs;
  std::vector<std::uint32_t> indices;
  float low[3] = {1e30f, 1e30f, 1e30f}, high[3] = {-1e30f, -1e30f, -1e30f};
  for (std::size_t v = 0; v < vertices; ++v) {
    const auto& p = mesh.positions[v];
    const auto& n = mesh.normals[v];
    positions.insert(positions.end(), p.begin(), p.end());
    normals.insert(normals.end(), n.begin(), n.end());
    for (int c = 0; c < 3; ++c) {
      low[c] = std::min(low[c], p[c]);
      high[c] = std::max(high[c], p[c]);
    }
    const double u = 0.5 + std::atan2(n[1], n[0]) / (2 * std::numbers::pi);
    const double w = std::acos(std::clamp<double>(n[2], -1, 1)) / std::numbers::pi;
    uvs.insert(uvs.end(), {static_cast<float>(u), static_cast<float>(w)});
  }
  for (const kv::Triangle& t : mesh.triangles) {
    for (const kv::Corner& c : t.corners) {
      if (c.normal != static_cast<std::int32_t>(c.position)) {
        throw kv::Error("the generated mesh shares no index between positions and normals");
      }
      indices.push_back(c.position);
    }
  }
  std::string bin;
  append_array(bin, positions);
  append_array(bin, normals);
  append_array(bin, uvs);
  append_array(bin, indices);
  const std::size_t p_bytes = positions.size() * 4, n_bytes = normals.size() * 4,
                    t_bytes = uvs.size() * 4, i_bytes = indices.size() * 4;
  char json[2048];
  std::snprintf(
      json, sizeof json,
      "{\"asset\":{\"version\":\"2.0\"},\"scene\":0,\"scenes\":[{\"nodes\":[0]}],"
      "\"nodes\":[{\"name\":\"High\",\"mesh\":0}],\"meshes\":[{\"primitives\":[{\"attributes\":"
      "{\"POSITION\":0,\"NORMAL\":1,\"TEXCOORD_0\":2},\"indices\":3}]}],"
      "\"buffers\":[{\"byteLength\":%zu}],\"bufferViews\":["
      "{\"buffer\":0,\"byteOffset\":0,\"byteLength\":%zu},"
      "{\"buffer\":0,\"byteOffset\":%zu,\"byteLength\":%zu},"
      "{\"buffer\":0,\"byteOffset\":%zu,\"byteLength\":%zu},"
      "{\"buffer\":0,\"byteOffset\":%zu,\"byteLength\":%zu}],\"accessors\":["
      "{\"bufferView\":0,\"componentType\":5126,\"type\":\"VEC3\",\"count\":%zu,"
      "\"min\":[%g,%g,%g],\"max\":[%g,%g,%g]},"
      "{\"bufferView\":1,\"componentType\":5126,\"type\":\"VEC3\",\"count\":%zu},"
      "{\"bufferView\":2,\"componentType\":5126,\"type\":\"VEC2\",\"count\":%zu},"
      "{\"bufferView\":3,\"componentType\":5125,\"type\":\"SCALAR\",\"count\":%zu}]}",
      bin.size(), p_bytes, p_bytes, n_bytes, p_bytes + n_bytes, t_bytes,
      p_bytes + n_bytes + t_bytes, i_bytes, vertices, low[0], low[1], low[2], high[0], high[1],
      high[2], vertices, vertices, indices.size());
  std::string text = json;
  text.resize((text.size() + 3) / 4 * 4, ' ');
  bin.resize((bin.size() + 3) / 4 * 4, '\0');
  std::string out = "glTF";
  append_u32(out, 2);
  append_u32(out, static_cast<std::uint32_t>(12 + 8 + text.size() + 8 + bin.size()));
  append_u32(out, static_cast<std::uint32_t>(text.size()));
  append_u32(out, 0x4E4F534Au);  // "JSON"
  out += text;
  append_u32(out, static_cast<std::uint32_t>(bin.size()));
  append_u32(out, 0x004E4942u);  // "BIN\0"
  return out + bin;
}

bool same_mesh(const kv::Mesh& a, const kv::Mesh& b) {
  const auto same = [](const auto& x, const auto& y) {
    return x.size() == y.size() &&
           (x.empty() || std::memcmp(x.data(), y.data(), x.size() * sizeof(x[0])) == 0);
  };
  return same(a.positions, b.positions) && same(a.uvs, b.uvs) && same(a.normals, b.normals) &&
         same(a.triangles, b.triangles) && a.objects == b.objects && a.materials == b.materials &&
         same(a.triangle_materials, b.triangle_materials);
}

// In a fresh process: reads the file one way, checks the mesh against the
// other way's and prints "seconds triangles".
int run_child(const std::string& way, const std::string& path, int threads) {
  kv::MeshReadOptions options;
  options.threads = threads;
  const auto start = Clock::now();
  const kv::Mesh mesh =
      way == "child" ? kv::read_mesh(path, options) : kv::read_mesh_in_process(path, options);
  const double seconds = seconds_since(start);
  const kv::Mesh other =
      way == "child" ? kv::read_mesh_in_process(path, options) : kv::read_mesh(path, options);
  if (!same_mesh(mesh, other)) {
    throw kv::Error("the meshes read in process and in the child differ");
  }
  std::printf("%.6f %zu\n", seconds, mesh.triangles.size());
  return 0;
}

double timed_read(const char* self, const std::string& way, const std::string& path, int threads) {
  const kv::platform::ProcessResult run =
      kv::platform::run_process({self, "--child", way, path, std::to_string(threads)}, "");
  double seconds = 0;
  if (run.exit_code != 0 || std::sscanf(run.out.c_str(), "%lf", &seconds) != 1) {
    throw kv::Error("the " + way + " reading run failed: " + run.out + run.err);
  }
  return seconds;
}

double best(const std::vector<double>& times) {
  return *std::min_element(times.begin(), times.end());
}

double median(std::vector<double> times) {
  std::sort(times.begin(), times.end());
  const std::size_t n = times.size();
  return n % 2 == 1 ? times[n / 2] : 0.5 * (times[n / 2 - 1] + times[n / 2]);
}

// The 1, 5 and 15 minute load averages, or "unknown". (The file reports no
// size, so it is read up to its end.)
std::string load_average() {
  int error = 0;
  kv::platform::File file = kv::platform::File::open_read("/proc/loadavg", &error);
  std::string text(256, '\0');
  const std::int64_t got = file.is_open() ? file.read_full(text.data(), text.size(), &error) : -1;
  if (got <= 0) {
    return "unknown";
  }
  text.resize(static_cast<std::size_t>(got));
  std::size_t end = 0;
  for (int field = 0; field < 3 && end != std::string::npos; ++field) {
    end = text.find(' ', end + (field > 0 ? 1 : 0));
  }
  return text.substr(0, end);
}

int run(int argc, char** argv) {
  if (argc == 5 && std::string(argv[1]) == "--child") {
    return run_child(argv[2], argv[3], std::atoi(argv[4]));
  }
  const int threads = kv::bench::int_option(argc, argv, "--threads", 2);
  const int subdivisions = kv::bench::int_option(argc, argv, "--subdivisions", 8);
  const int repeats = std::max(1, kv::bench::int_option(argc, argv, "--repeats", 9));
  bool keep = false;
  for (int i = 1; i < argc; ++i) {
    keep = keep || std::string(argv[i]) == "--keep";
  }
  const std::filesystem::path folder = kv::bench::option_value(
      argc, argv, "--dir", kv::platform::get_env("TMPDIR").value_or("/tmp").c_str());
  kv::platform::create_directories(folder);
  const std::filesystem::path path =
      folder / ("korvane_child_bench_" + std::to_string(kv::platform::process_id()) + ".glb");

  {
    const kv::Mesh high = kv::bench::make_displaced_icosphere(subdivisions, 0.012f);
    const std::string glb = glb_of(high);
    int error = 0;
    kv::platform::File file = kv::platform::File::create_truncate(path, &error);
    if (!file.is_open() || file.write_all(glb.data(), glb.size()) != 0 || file.close() != 0) {
      throw kv::Error("cannot write " + path.string());
    }
    std::printf("mesh: %zu triangles, %zu vertices; .glb %.1f MB\n", high.triangles.size(),
                high.positions.size(), static_cast<double>(glb.size()) / 1e6);
  }
  kv::bench::warm_page_cache(path.string());

  const std::string load_before = load_average();
  std::vector<double> in_process, child;
  for (int r = 0; r < repeats; ++r) {
    in_process.push_back(timed_read(argv[0], "in_process", path.string(), threads));
    child.push_back(timed_read(argv[0], "child", path.string(), threads));
  }
  if (!keep) {
    kv::platform::remove_file(path);
  }
  const double best_ratio = best(child) / best(in_process);
  std::printf("load average before: %s; after: %s\n", load_before.c_str(), load_average().c_str());
  std::printf("read in process: best %.3f s, median %.3f s (%d runs)\n", best(in_process),
              median(in_process), repeats);
  std::printf("read in a child: best %.3f s, median %.3f s (%d threads for the copy)\n",
              best(child), median(child), threads);
  std::printf("ratio of medians: %.2f\n", median(child) / median(in_process));
  std::printf("ratio child / in process, best: %.2f (target <= 1.2): %s\n", best_ratio,
              best_ratio <= 1.2 ? "met" : "NOT met");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "mesh_child_bench: %s\n", e.what());
    return 1;
  }
}
