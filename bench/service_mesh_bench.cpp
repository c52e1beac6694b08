// A mesh handed over through shared memory against the same mesh read from
// an OBJ file. The standard scene's high mesh (about 1.3 million triangles,
// with latitude-longitude UVs added) is written as an OBJ file (one v, vt and
// vn line per vertex) and laid out in a shared-memory section as the service
// receives it (per-corner UVs and normals). Prints the best time of read_mesh
// on the OBJ (no mesh cache) and of read_section_mesh, and their ratio.
// Target, 2 threads, warm page cache: the section at least 5x faster.
//
//   service_mesh_bench [--threads N (2)] [--subdivisions N (8)] [--repeats N (3)]
//                      [--dir folder] [--keep]
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <numbers>
#include <string>
#include <vector>

#include "common/bench_common.h"
#include "core/error.h"
#include "mesh/mesh_format.h"
#include "platform/platform.h"
#include "scene/standard_scene.h"
#include "service/section_mesh.h"

namespace {

using kv::bench::Clock;
using kv::bench::seconds_since;

// The UV of a point on the sphere: longitude and latitude, v up.
std::array<float, 2> sphere_uv(const std::array<float, 3>& p) {
  const double length = std::sqrt(double{p[0]} * p[0] + double{p[1]} * p[1] + double{p[2]} * p[2]);
  const double u = 0.5 + std::atan2(double{p[1]}, double{p[0]}) / (2 * std::numbers::pi);
  const double v = 0.5 + std::asin(double{p[2]} / length) / std::numbers::pi;
  return {static_cast<float>(u), static_cast<float>(v)};
}

// Shortest text that reads back to the same value: float32 for v and vn;
// vt is read as float64, so its float32 values are written as float64.
void append_floats(std::string& text, const char* keyword, const float* values, int count) {
  char buffer[40];
  const bool wide = keyword[1] == 't';
  text += keyword;
  for (int i = 0; i < count; ++i) {
    text += ' ';
    const auto result =
        wide ? std::to_chars(buffer, buffer + sizeof buffer, static_cast<double>(values[i]))
             : std::to_chars(buffer, buffer + sizeof buffer, values[i]);
    text.append(buffer, result.ptr);
  }
  text += '\n';
}

// The OBJ file an exporter writes: one v, vt and vn line per vertex.
std::string shared_obj_text(const kv::Mesh& mesh, const std::vector<std::array<float, 2>>& uvs) {
  std::string text = "o high\n";
  text.reserve(mesh.positions.size() * 110 + mesh.triangles.size() * 40);
  for (const auto& p : mesh.positions) {
    append_floats(text, "v", p.data(), 3);
  }
  for (const auto& uv : uvs) {
    append_floats(text, "vt", uv.data(), 2);
  }
  for (const auto& n : mesh.normals) {
    append_floats(text, "vn", n.data(), 3);
  }
  for (const kv::Triangle& t : mesh.triangles) {
    text += 'f';
    for (const kv::Corner& c : t.corners) {
      const std::string index = std::to_string(c.position + 1);
      text += ' ' + index + '/' + index + '/' + index;
    }
    text += '\n';
  }
  return text;
}

// The OBJ file of exactly the section's data: one vt and vn line per corner,
// so that both reads give the same Mesh.
std::string corner_obj_text(const kv::Mesh& mesh, const std::vector<std::array<float, 2>>& uvs) {
  std::string text = "o high\n";
  text.reserve(mesh.positions.size() * 40 + mesh.triangles.size() * 260);
  for (const auto& p : mesh.positions) {
    append_floats(text, "v", p.data(), 3);
  }
  for (const kv::Triangle& t : mesh.triangles) {
    for (const kv::Corner& c : t.corners) {
      append_floats(text, "vt", uvs[c.position].data(), 2);
    }
  }
  for (const kv::Triangle& t : mesh.triangles) {
    for (const kv::Corner& c : t.corners) {
      append_floats(text, "vn", mesh.normals[c.position].data(), 3);
    }
  }
  std::uint64_t corner = 0;
  for (const kv::Triangle& t : mesh.triangles) {
    text += 'f';
    for (const kv::Corner& c : t.corners) {
      const std::string index = std::to_string(++corner);
      text += ' ' + std::to_string(c.position + 1) + '/' + index + '/' + index;
    }
    text += '\n';
  }
  return text;
}

// The section's bytes: positions, indices, per-corner UVs, per-corner normals.
std::vector<unsigned char> section_bytes(const kv::Mesh& mesh,
                                         const std::vector<std::array<float, 2>>& uvs,
                                         kv::service::SectionObject& object) {
  const std::uint64_t v = mesh.positions.size(), t = mesh.triangles.size();
  object.name = "high";
  object.vertices = v;
  object.triangles = t;
  object.positions = 0;
  object.indices = 12 * v;
  object.uvs = object.indices + 12 * t;
  object.normals = *object.uvs + 24 * t;
  std::vector<unsigned char> bytes(*object.normals + 36 * t);
  std::memcpy(bytes.data(), mesh.positions.data(), 12 * v);
  for (std::uint64_t i = 0; i < t; ++i) {
    for (std::uint64_t k = 0; k < 3; ++k) {
      const std::uint32_t p = mesh.triangles[i].corners[k].position;
      std::memcpy(bytes.data() + object.indices + 4 * (3 * i + k), &p, 4);
      std::memcpy(bytes.data() + *object.uvs + 8 * (3 * i + k), uvs[p].data(), 8);
      std::memcpy(bytes.data() + *object.normals + 12 * (3 * i + k), mesh.normals[p].data(), 12);
    }
  }
  return bytes;
}

void write_file(const std::filesystem::path& path, const std::string& text) {
  int error = 0;
  kv::platform::File file = kv::platform::File::create_truncate(path, &error);
  if (!file.is_open() || file.write_all(text.data(), text.size()) != 0 || file.close() != 0) {
    throw kv::Error("cannot write " + path.string());
  }
}

template <typename Read>
double best_of(int repeats, Read&& read) {
  double best = 1e30;
  for (int r = 0; r < repeats; ++r) {
    const auto start = Clock::now();
    const kv::Mesh mesh = read();
    best = std::min(best, seconds_since(start));
    if (mesh.triangles.empty()) {
      throw kv::Error("a read gave no triangles");
    }
  }
  return best;
}

// The section's mesh must be the corner OBJ's mesh, array for array.
bool same_mesh(const kv::Mesh& a, const kv::Mesh& b) {
  auto same = [](const auto& x, const auto& y) {
    return x.size() == y.size() &&
           (x.empty() || std::memcmp(x.data(), y.data(), x.size() * sizeof(x[0])) == 0);
  };
  return same(a.positions, b.positions) && same(a.uvs, b.uvs) && same(a.normals, b.normals) &&
         same(a.triangles, b.triangles) && same(a.triangle_materials, b.triangle_materials) &&
         a.objects == b.objects && a.materials == b.materials;
}

// A named section holding the bytes, removed when it goes away.
class BenchSection {
 public:
  explicit BenchSection(const std::vector<unsigned char>& bytes)
      : name_("kv-service-mesh-bench-" + std::to_string(kv::platform::process_id())) {
    int error = 0;
    std::uint64_t real = 0;
    if (!kv::platform::create_shared_section(name_, bytes.size(), &error)) {
      throw kv::Error("cannot create the section: " + kv::platform::system_error_text(error));
    }
    auto writer = kv::platform::SharedSection::open(name_, bytes.size(), true, &error, &real);
    if (!writer) {
      kv::platform::remove_shared_section(name_);
      throw kv::Error("cannot map the section: " + kv::platform::system_error_text(error));
    }
    std::memcpy(writer->data(), bytes.data(), bytes.size());
  }
  ~BenchSection() { kv::platform::remove_shared_section(name_); }
  BenchSection(const BenchSection&) = delete;
  BenchSection& operator=(const BenchSection&) = delete;
  const std::string& name() const { return name_; }

 private:
  std::string name_;
};

struct ObjRun {
  double seconds = 0.0;
  double megabytes = 0.0;
};

ObjRun time_obj(const std::filesystem::path& path, const std::string& text, int threads,
                int repeats, bool keep, kv::Mesh* last) {
  write_file(path, text);
  kv::bench::warm_page_cache(path.string());
  kv::MeshReadOptions options;
  options.threads = threads;
  ObjRun run;
  run.megabytes = static_cast<double>(text.size()) / 1e6;
  run.seconds = best_of(repeats, [&] { return kv::read_mesh(path, options); });
  if (last != nullptr) {
    *last = kv::read_mesh(path, options);
  }
  if (!keep) {
    std::filesystem::remove(path);
  }
  return run;
}

int run(int argc, char** argv) {
  const int threads = kv::bench::int_option(argc, argv, "--threads", 2);
  const int subdivisions = kv::bench::int_option(argc, argv, "--subdivisions", 8);
  const int repeats = std::max(1, kv::bench::int_option(argc, argv, "--repeats", 3));
  const std::filesystem::path dir =
      kv::bench::option_value(argc, argv, "--dir", std::filesystem::temp_directory_path().c_str());
  const bool keep = kv::bench::int_option(argc, argv, "--keep", 0) != 0;

  const kv::Mesh mesh = kv::bench::make_displaced_icosphere(subdivisions, 0.012f);
  std::vector<std::array<float, 2>> uvs;
  uvs.reserve(mesh.positions.size());
  for (const auto& p : mesh.positions) {
    uvs.push_back(sphere_uv(p));
  }
  kv::service::SectionObject object;
  const std::vector<unsigned char> bytes = section_bytes(mesh, uvs, object);
  const BenchSection section(bytes);
  const double shm_seconds = best_of(repeats, [&] {
    return kv::service::read_section_mesh(section.name(), bytes.size(), {object}, nullptr, threads);
  });
  const kv::Mesh from_section =
      kv::service::read_section_mesh(section.name(), bytes.size(), {object}, nullptr, threads);

  kv::Mesh from_corner_obj;
  const ObjRun corner = time_obj(dir / "service_mesh_bench_corners.obj", corner_obj_text(mesh, uvs),
                                 threads, repeats, keep, &from_corner_obj);
  const ObjRun shared = time_obj(dir / "service_mesh_bench_shared.obj", shared_obj_text(mesh, uvs),
                                 threads, repeats, keep, nullptr);

  std::printf("mesh: %zu triangles, %zu vertices; section %.1f MB; %d threads, best of %d\n",
              mesh.triangles.size(), mesh.positions.size(), static_cast<double>(bytes.size()) / 1e6,
              threads, repeats);
  std::printf("read_section_mesh:                                %.3f s\n", shm_seconds);
  std::printf(
      "read_mesh, OBJ of the same mesh (%.0f MB, a vt and vn per corner): %.3f s, "
      "same Mesh: %s\n",
      corner.megabytes, corner.seconds, same_mesh(from_section, from_corner_obj) ? "yes" : "NO");
  std::printf("read_mesh, exporter's OBJ (%.0f MB, a vt and vn per vertex):      %.3f s\n",
              shared.megabytes, shared.seconds);
  std::printf("ratio same-mesh OBJ / section: %.1fx (target >= 5x)\n",
              corner.seconds / shm_seconds);
  std::printf(
      "ratio exporter's OBJ / section: %.1fx (its Mesh shares UVs and normals, 2.4x "
      "smaller)\n",
      shared.seconds / shm_seconds);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "service_mesh_bench: %s\n", e.what());
    return 1;
  }
}
