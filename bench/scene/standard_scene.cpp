#include "scene/standard_scene.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>
#include <unordered_map>
#include <vector>

namespace kv::bench {
namespace {

using Vec3d = std::array<double, 3>;

Vec3d normalized(const Vec3d& v) {
  const double length = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
  return {v[0] / length, v[1] / length, v[2] / length};
}

// Smooth relief in [-1, 1] over the unit sphere: a few products of sines,
// enough to give the high mesh curvature in every direction.
double relief(const Vec3d& d) {
  const double broad =
      std::sin(7.0 * d[0]) * std::sin(5.0 * d[1] + 0.3) * std::sin(6.0 * d[2] + 1.1);
  const double fine = std::sin(23.0 * d[0] + 17.0 * d[1] + 0.5) * std::sin(19.0 * d[2] + 2.0);
  return 0.6 * broad + 0.4 * fine;
}

Triangle make_triangle(std::uint32_t a, std::uint32_t b, std::uint32_t c, bool with_uv) {
  Triangle t;
  const std::uint32_t ids[3] = {a, b, c};
  for (int k = 0; k < 3; ++k) {
    t.corners[k].position = ids[k];
    t.corners[k].normal = static_cast<std::int32_t>(ids[k]);
    t.corners[k].uv = with_uv ? static_cast<std::int32_t>(ids[k]) : -1;
  }
  return t;
}

}  // namespace

Mesh make_displaced_icosphere(int subdivisions, float displacement) {
  const double g = (1.0 + std::sqrt(5.0)) / 2.0;
  std::vector<Vec3d> points = {{-1, g, 0}, {1, g, 0}, {-1, -g, 0}, {1, -g, 0},
                               {0, -1, g}, {0, 1, g}, {0, -1, -g}, {0, 1, -g},
                               {g, 0, -1}, {g, 0, 1}, {-g, 0, -1}, {-g, 0, 1}};
  for (Vec3d& p : points) {
    p = normalized(p);
  }
  std::vector<std::array<std::uint32_t, 3>> faces = {
      {0, 11, 5},  {0, 5, 1},  {0, 1, 7},  {0, 7, 10}, {0, 10, 11}, {1, 5, 9}, {5, 11, 4},
      {11, 10, 2}, {10, 7, 6}, {7, 1, 8},  {3, 9, 4},  {3, 4, 2},   {3, 2, 6}, {3, 6, 8},
      {3, 8, 9},   {4, 9, 5},  {2, 4, 11}, {6, 2, 10}, {8, 6, 7},   {9, 8, 1}};

  for (int level = 0; level < subdivisions; ++level) {
    std::unordered_map<std::uint64_t, std::uint32_t> midpoints;
    midpoints.reserve(faces.size() * 2);
    auto midpoint = [&](std::uint32_t a, std::uint32_t b) {
      const std::uint64_t key = a < b ? (std::uint64_t{a} << 32) | b : (std::uint64_t{b} << 32) | a;
      auto [it, inserted] = midpoints.try_emplace(key, static_cast<std::uint32_t>(points.size()));
      if (inserted) {
        const Vec3d& pa = points[a];
        const Vec3d& pb = points[b];
        points.push_back(normalized({pa[0] + pb[0], pa[1] + pb[1], pa[2] + pb[2]}));
      }
      return it->second;
    };
    std::vector<std::array<std::uint32_t, 3>> next;
    next.reserve(faces.size() * 4);
    for (const auto& f : faces) {
      const std::uint32_t ab = midpoint(f[0], f[1]);
      const std::uint32_t bc = midpoint(f[1], f[2]);
      const std::uint32_t ca = midpoint(f[2], f[0]);
      next.push_back({f[0], ab, ca});
      next.push_back({f[1], bc, ab});
      next.push_back({f[2], ca, bc});
      next.push_back({ab, bc, ca});
    }
    faces.swap(next);
  }

  Mesh mesh;
  mesh.objects = {"high"};
  mesh.positions.reserve(points.size());
  for (const Vec3d& d : points) {
    const double r = 1.0 + static_cast<double>(displacement) * relief(d);
    mesh.positions.push_back(
        {static_cast<float>(d[0] * r), static_cast<float>(d[1] * r), static_cast<float>(d[2] * r)});
  }
  // Area-weighted vertex normals from the displaced float positions.
  std::vector<Vec3d> sums(points.size(), Vec3d{0, 0, 0});
  mesh.triangles.reserve(faces.size());
  for (const auto& f : faces) {
    const auto& p0 = mesh.positions[f[0]];
    const auto& p1 = mesh.positions[f[1]];
    const auto& p2 = mesh.positions[f[2]];
    const Vec3d e1 = {double{p1[0]} - p0[0], double{p1[1]} - p0[1], double{p1[2]} - p0[2]};
    const Vec3d e2 = {double{p2[0]} - p0[0], double{p2[1]} - p0[1], double{p2[2]} - p0[2]};
    const Vec3d n = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2],
                     e1[0] * e2[1] - e1[1] * e2[0]};
    for (std::uint32_t v : f) {
      for (int k = 0; k < 3; ++k) {
        sums[v][k] += n[k];
      }
    }
    mesh.triangles.push_back(make_triangle(f[0], f[1], f[2], false));
  }
  mesh.normals.reserve(sums.size());
  for (const Vec3d& s : sums) {
    const Vec3d n = normalized(s);
    mesh.normals.push_back(
        {static_cast<float>(n[0]), static_cast<float>(n[1]), static_cast<float>(n[2])});
  }
  return mesh;
}

Mesh make_uv_sphere(int segments, int rings, float radius) {
  Mesh mesh;
  mesh.objects = {"low"};
  const auto columns = static_cast<std::uint32_t>(segments + 1);
  for (int j = 0; j <= rings; ++j) {
    const double theta = std::numbers::pi * j / rings;
    for (int i = 0; i <= segments; ++i) {
      // The seam column i = segments repeats i = 0 exactly.
      const double phi = 2.0 * std::numbers::pi * (i == segments ? 0 : i) / segments;
      const Vec3d n = {std::sin(theta) * std::cos(phi), std::cos(theta),
                       -std::sin(theta) * std::sin(phi)};
      mesh.normals.push_back(
          {static_cast<float>(n[0]), static_cast<float>(n[1]), static_cast<float>(n[2])});
      mesh.positions.push_back({static_cast<float>(n[0] * radius),
                                static_cast<float>(n[1] * radius),
                                static_cast<float>(n[2] * radius)});
      mesh.uvs.push_back({static_cast<double>(i) / segments, 1.0 - static_cast<double>(j) / rings});
    }
  }
  auto id = [&](int i, int j) {
    return static_cast<std::uint32_t>(j) * columns + static_cast<std::uint32_t>(i);
  };
  for (int j = 0; j < rings; ++j) {
    for (int i = 0; i < segments; ++i) {
      if (j == 0) {
        mesh.triangles.push_back(make_triangle(id(i, 0), id(i, 1), id(i + 1, 1), true));
      } else if (j == rings - 1) {
        mesh.triangles.push_back(make_triangle(id(i, j), id(i, j + 1), id(i + 1, j), true));
      } else {
        mesh.triangles.push_back(make_triangle(id(i, j), id(i, j + 1), id(i + 1, j + 1), true));
        mesh.triangles.push_back(make_triangle(id(i, j), id(i + 1, j + 1), id(i + 1, j), true));
      }
    }
  }
  return mesh;
}

StandardScene make_standard_scene(const StandardSceneOptions& options) {
  StandardScene scene;
  scene.high = make_displaced_icosphere(options.subdivisions, options.displacement);
  for (auto& p : scene.high.positions) {
    for (float& c : p) {
      c *= options.low_radius;
    }
  }
  scene.low = make_uv_sphere(options.segments, options.rings, options.low_radius);
  return scene;
}

LowSurfacePoint uv_sphere_point(const Mesh& sphere, int segments, int rings, double u, double v) {
  LowSurfacePoint point;
  const double fi = u * segments;
  const double fj = (1.0 - v) * rings;
  const int i = static_cast<int>(std::floor(fi));
  const int j = static_cast<int>(std::floor(fj));
  if (i < 0 || i >= segments || j < 0 || j >= rings) {
    return point;
  }
  const double a = fi - i;
  const double b = fj - j;
  double w[3];
  std::uint32_t triangle = 0;
  if (j == 0) {
    if (a > b) {
      return point;  // the pole triangle covers half of its cell
    }
    triangle = static_cast<std::uint32_t>(i);
    w[0] = 1.0 - b, w[1] = b - a, w[2] = a;
  } else if (j == rings - 1) {
    if (a + b > 1.0) {
      return point;
    }
    triangle = static_cast<std::uint32_t>(segments + (rings - 2) * 2 * segments + i);
    w[0] = 1.0 - a - b, w[1] = b, w[2] = a;
  } else {
    const auto base = static_cast<std::uint32_t>(segments + (j - 1) * 2 * segments + 2 * i);
    if (a <= b) {
      triangle = base;
      w[0] = 1.0 - b, w[1] = b - a, w[2] = a;
    } else {
      triangle = base + 1;
      w[0] = 1.0 - a, w[1] = b, w[2] = a - b;
    }
  }
  const Triangle& t = sphere.triangles[triangle];
  Vec3d p = {0, 0, 0};
  Vec3d n = {0, 0, 0};
  for (int k = 0; k < 3; ++k) {
    const auto& pk = sphere.positions[t.corners[k].position];
    const auto& nk = sphere.normals[static_cast<std::size_t>(t.corners[k].normal)];
    for (int c = 0; c < 3; ++c) {
      p[c] += w[k] * pk[c];
      n[c] += w[k] * nk[c];
    }
  }
  n = normalized(n);
  point.valid = true;
  point.triangle = triangle;
  for (int c = 0; c < 3; ++c) {
    point.position[c] = static_cast<float>(p[c]);
    point.normal[c] = static_cast<float>(n[c]);
  }
  return point;
}

void shuffle_faces(Mesh& mesh) {
  std::mt19937 random(12345);
  std::shuffle(mesh.triangles.begin(), mesh.triangles.end(), random);
}

}  // namespace kv::bench
