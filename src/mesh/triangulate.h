// The face triangulation rule every mesh reader applies to the faces it
// meets, and the exact re-triangulation of polygons of five or more corners.
//
// A face of n corners becomes n - 2 triangles of local corner indices:
//   3 corners: (0, 1, 2);
//   4 corners: (0, 1, 3), (1, 2, 3), split along the diagonal of corners 1 and 3;
//   5 or more: the fan (0, i, i + 1), i = 1 .. n - 2, recorded as a polygon so
//              that it can be re-triangulated exactly once the mesh is joined.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "mesh/mesh.h"

namespace kv {

class WorkerPool;

enum class QuadPolicy : std::uint8_t { split = 0, reject = 1 };
enum class PolygonPolicy : std::uint8_t { accept = 0, reject = 1 };

struct FacePolicy {
  QuadPolicy quads = QuadPolicy::split;
  PolygonPolicy polygons = PolygonPolicy::accept;
};

// Local corner indices of one triangle of a face.
using LocalTriangle = std::array<std::uint32_t, 3>;

// The message that refuses a face of `corners` corners under the policy, or
// nothing when the face is accepted.
std::optional<std::string> face_refusal(std::size_t corners, const FacePolicy& policy);

// Throws kv::Error(prefix + message) when the face is refused. Readers pass
// the mesh file's path followed by ": " as the prefix.
void check_face(std::size_t corners, const FacePolicy& policy, std::string_view error_prefix);

// Number of triangles a face of `corners` (at least 3) corners becomes.
constexpr std::size_t face_triangle_count(std::size_t corners) {
  return corners - 2;
}

// The t-th triangle (t < corners - 2) of an accepted face of `corners` corners.
constexpr LocalTriangle face_triangle(std::size_t corners, std::size_t t) {
  if (corners == 4) {
    return t == 0 ? LocalTriangle{0, 1, 3} : LocalTriangle{1, 2, 3};
  }
  return LocalTriangle{0, static_cast<std::uint32_t>(t + 1), static_cast<std::uint32_t>(t + 2)};
}

// A face of five or more corners as it was first written: `corners - 2` fan
// triangles starting at mesh.triangles[first_triangle].
struct PolygonRecord {
  std::uint64_t first_triangle = 0;
  std::uint32_t corners = 0;
};

// Polygons above this corner count that are not convex are left as their
// fan: the simplicity test and the ear clipping are quadratic.
inline constexpr std::size_t kExactPolygonCornerLimit = 4096;

// Exact triangulation of one polygon given its corner positions in order.
//
// A polygon counts as triangulated exactly when its projection onto its
// plane is a simple polygon that a deterministic ear clipping cuts into
// n - 2 triangles, each with the polygon's own orientation (strictly, so no
// triangle is degenerate). The plane is given by the Newell normal; the
// projection drops the normal's largest axis (lowest axis on ties), which
// keeps every coordinate exact, and every orientation test is evaluated
// exactly. Ears are taken walking the corners from corner 1 in polygon
// order, so a convex polygon keeps the fan (0, i, i + 1).
//
// On success `out` holds n - 2 triangles of local corner indices with the
// polygon's winding and true is returned; otherwise false, and `out` holds
// nothing of use.
bool triangulate_polygon_exact(std::span<const std::array<float, 3>> corner_positions,
                               std::vector<LocalTriangle>& out);

// Replaces the fan of every recorded polygon of `mesh` by its exact
// triangulation (same corners, same object, same material); a polygon that
// has none keeps its fan. Runs on the pool when one is given (the result does
// not depend on it). Returns the number of polygons left as their fan.
std::uint64_t retriangulate_polygons(Mesh& mesh, std::span<const PolygonRecord> polygons,
                                     const WorkerPool* pool);

}  // namespace kv
