// Writes the sample pair that the README's main command bakes: a small
// displaced icosphere (high) inside a UV sphere (low), as OBJ files.
// Usage: make_examples <folder>
#include <cstdio>
#include <filesystem>
#include <string>

#include "mesh/mesh.h"
#include "scene/standard_scene.h"

namespace {

// Nine significant digits give back every float exactly; UVs get seventeen.
bool write_obj(const std::filesystem::path& path, const kv::Mesh& mesh, const char* object) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) {
    return false;
  }
  std::fprintf(file, "# korvane sample mesh\no %s\n", object);
  for (const auto& p : mesh.positions) {
    std::fprintf(file, "v %.9g %.9g %.9g\n", p[0], p[1], p[2]);
  }
  for (const auto& t : mesh.uvs) {
    std::fprintf(file, "vt %.17g %.17g\n", t[0], t[1]);
  }
  for (const auto& n : mesh.normals) {
    std::fprintf(file, "vn %.9g %.9g %.9g\n", n[0], n[1], n[2]);
  }
  for (const auto& tri : mesh.triangles) {
    std::fputc('f', file);
    for (const auto& c : tri.corners) {
      std::fprintf(file, " %u/", c.position + 1);
      if (c.uv >= 0) {
        std::fprintf(file, "%d", c.uv + 1);
      }
      if (c.normal >= 0) {
        std::fprintf(file, "/%d", c.normal + 1);
      }
    }
    std::fputc('\n', file);
  }
  return std::fclose(file) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_examples <folder>\n");
    return 2;
  }
  const std::filesystem::path folder = argv[1];
  std::filesystem::create_directories(folder);
  const kv::Mesh high = kv::bench::make_displaced_icosphere(5, 0.012f);
  const kv::Mesh low = kv::bench::make_uv_sphere(32, 16, 1.0f);
  if (!write_obj(folder / "sphere_high.obj", high, "sphere_high") ||
      !write_obj(folder / "sphere_low.obj", low, "sphere_low")) {
    std::fprintf(stderr, "make_examples: cannot write into %s\n", folder.c_str());
    return 1;
  }
  std::printf("wrote %s and %s\n", (folder / "sphere_high.obj").c_str(),
              (folder / "sphere_low.obj").c_str());
  return 0;
}
