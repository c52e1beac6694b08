// The benchmarks' standard scene: a displaced, subdivided icosphere as the
// high mesh and a latitude-longitude UV sphere as the low mesh around it.
// Generated from integer arithmetic and fixed formulas, so every run and
// every benchmark sees the same triangles.
#pragma once

#include <array>
#include <cstdint>

#include "mesh/mesh.h"

namespace kv::bench {

struct StandardSceneOptions {
  int subdivisions = 8;         // 20 * 4^8 = 1,310,720 high triangles
  int segments = 64;            // low sphere: around the axis
  int rings = 32;               // low sphere: pole to pole
  float low_radius = 1.0f;      // the high surface stays within
  float displacement = 0.012f;  // of this radius (inside the default window)
};

struct StandardScene {
  Mesh high;
  Mesh low;
};

// Unit-radius icosphere split `subdivisions` times, each vertex pushed along
// its direction by a smooth deterministic relief of the given amplitude.
// Counter-clockwise seen from outside; smooth per-vertex normals.
Mesh make_displaced_icosphere(int subdivisions, float displacement);

// UV sphere of the radius with `segments` x `rings` cells, a seam column of
// duplicated vertices, one triangle per pole cell and two per other cell.
// UV (i / segments, 1 - j / rings) at grid vertex (i, j), j = 0 at the top.
Mesh make_uv_sphere(int segments, int rings, float radius);

StandardScene make_standard_scene(const StandardSceneOptions& options = {});

// Puts the mesh's faces in a fixed random order, as some exporters and
// decimators leave them (the generators above emit neighbours together).
void shuffle_faces(Mesh& mesh);

// A point on the low UV sphere for a UV in [0, 1)^2: the low triangle under
// the UV and the position and smooth normal blended from its corners.
struct LowSurfacePoint {
  bool valid = false;
  std::uint32_t triangle = 0;
  std::array<float, 3> position{};
  std::array<float, 3> normal{};  // unit length
};
LowSurfacePoint uv_sphere_point(const Mesh& sphere, int segments, int rings, double u, double v);

}  // namespace kv::bench
