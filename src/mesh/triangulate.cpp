#include "mesh/triangulate.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "core/error.h"
#include "core/parallel.h"

namespace kv {

std::optional<std::string> face_refusal(std::size_t corners, const FacePolicy& policy) {
  if (corners < 3) {
    return std::string("face with fewer than three corners");
  }
  if (corners == 4 && policy.quads == QuadPolicy::reject) {
    return std::string(
        "quad face, but quads are set to be rejected; triangulate the mesh before export");
  }
  if (corners >= 5 && policy.polygons == PolygonPolicy::reject) {
    return "face with " + std::to_string(corners) +
           " corners, but polygons are set to be rejected; triangulate the mesh before export";
  }
  return std::nullopt;
}

void check_face(std::size_t corners, const FacePolicy& policy, std::string_view error_prefix) {
  if (auto refusal = face_refusal(corners, policy)) {
    throw Error(std::string(error_prefix) + *refusal);
  }
}

namespace {

// ---- exact orientation ----------------------------------------------------
// Coordinates are floats held in doubles, so every product of two of them is
// exact in double; the determinant is then a sum of six exact products, whose
// sign an error-free expansion gives exactly when the quick estimate cannot.

struct Point2 {
  double u;
  double v;
};

// a + b = sum + error exactly.
inline void two_sum(double a, double b, double& sum, double& error) {
  sum = a + b;
  const double b_virtual = sum - a;
  const double a_virtual = sum - b_virtual;
  error = (a - a_virtual) + (b - b_virtual);
}

int exact_sign_of_sum(const std::array<double, 6>& terms) {
  // Expansion of non-overlapping components in increasing magnitude.
  std::array<double, 6> expansion{};
  std::size_t length = 0;
  for (double term : terms) {
    double carry = term;
    std::size_t kept = 0;
    for (std::size_t i = 0; i < length; ++i) {
      double sum = 0.0;
      double error = 0.0;
      two_sum(carry, expansion[i], sum, error);
      carry = sum;
      if (error != 0.0) {
        expansion[kept++] = error;
      }
    }
    if (carry != 0.0) {
      expansion[kept++] = carry;
    }
    length = kept;
  }
  if (length == 0) {
    return 0;
  }
  return expansion[length - 1] > 0.0 ? 1 : -1;
}

// Sign of the signed area of (a, b, c): +1 counter-clockwise, -1 clockwise,
// 0 collinear. Exact for coordinates that are floats.
int orient(const Point2& a, const Point2& b, const Point2& c) {
  const double left = (a.u - c.u) * (b.v - c.v);
  const double right = (a.v - c.v) * (b.u - c.u);
  const double det = left - right;
  constexpr double kEpsilon = 1.1102230246251565e-16;  // 2^-53
  constexpr double kBound = (3.0 + 16.0 * kEpsilon) * kEpsilon;
  const double bound = kBound * (std::fabs(left) + std::fabs(right));
  if (det > bound) {
    return 1;
  }
  if (-det > bound) {
    return -1;
  }
  const std::array<double, 6> terms = {a.u * b.v,    -(a.u * c.v), -(c.u * b.v),
                                       -(a.v * b.u), a.v * c.u,    c.v * b.u};
  return exact_sign_of_sum(terms);
}

inline int sign_of(double x) {
  return x > 0.0 ? 1 : (x < 0.0 ? -1 : 0);
}

inline bool same_point(const Point2& a, const Point2& b) {
  return a.u == b.u && a.v == b.v;
}

// c is known to be collinear with a and b: is it on the closed segment a-b?
inline bool within_segment(const Point2& a, const Point2& b, const Point2& c) {
  return std::min(a.u, b.u) <= c.u && c.u <= std::max(a.u, b.u) && std::min(a.v, b.v) <= c.v &&
         c.v <= std::max(a.v, b.v);
}

// Do the closed segments a-b and c-d share any point?
bool segments_touch(const Point2& a, const Point2& b, const Point2& c, const Point2& d) {
  const int o1 = orient(a, b, c);
  const int o2 = orient(a, b, d);
  const int o3 = orient(c, d, a);
  const int o4 = orient(c, d, b);
  if (o1 * o2 < 0 && o3 * o4 < 0) {
    return true;
  }
  return (o1 == 0 && within_segment(a, b, c)) || (o2 == 0 && within_segment(a, b, d)) ||
         (o3 == 0 && within_segment(c, d, a)) || (o4 == 0 && within_segment(c, d, b));
}

// Edges a-b and b-c fold back onto each other (collinear, same direction from b).
bool edges_fold(const Point2& a, const Point2& b, const Point2& c) {
  if (orient(a, b, c) != 0) {
    return false;
  }
  return sign_of(a.u - b.u) == sign_of(c.u - b.u) && sign_of(a.v - b.v) == sign_of(c.v - b.v);
}

// Projection along the Newell normal's largest axis, and the polygon's
// orientation in that projection (0 when the polygon has no area).
int project(std::span<const std::array<float, 3>> corners, std::vector<Point2>& points) {
  const std::size_t n = corners.size();
  std::array<double, 3> normal = {0.0, 0.0, 0.0};
  for (std::size_t i = 0; i < n; ++i) {
    const auto& p = corners[i];
    const auto& q = corners[(i + 1) % n];
    const double py = p[1], pz = p[2], px = p[0];
    const double qy = q[1], qz = q[2], qx = q[0];
    normal[0] += (py - qy) * (pz + qz);
    normal[1] += (pz - qz) * (px + qx);
    normal[2] += (px - qx) * (py + qy);
  }
  std::size_t axis = 0;
  for (std::size_t k = 1; k < 3; ++k) {
    if (std::fabs(normal[k]) > std::fabs(normal[axis])) {
      axis = k;
    }
  }
  if (!std::isfinite(normal[axis])) {
    return 0;
  }
  // The two other axes in cyclic order, so that the projected area has the
  // sign of the normal's component along the dropped axis.
  const std::size_t iu = (axis + 1) % 3;
  const std::size_t iv = (axis + 2) % 3;
  points.resize(n);
  for (std::size_t i = 0; i < n; ++i) {
    points[i] = Point2{corners[i][iu], corners[i][iv]};
  }
  return sign_of(normal[axis]);
}

// Half-plane of an edge direction: [0, pi) or [pi, 2 pi).
inline bool upper_half(const Point2& from, const Point2& to) {
  const int dv = sign_of(to.v - from.v);
  return dv > 0 || (dv == 0 && sign_of(to.u - from.u) > 0);
}

// Strictly convex with every turn of the given sign and one full turn.
bool strictly_convex(const std::vector<Point2>& p, int orientation) {
  const std::size_t n = p.size();
  std::size_t upper_to_lower = 0;
  bool previous_upper = upper_half(p[n - 1], p[0]);
  for (std::size_t i = 0; i < n; ++i) {
    const Point2& a = p[(i + n - 1) % n];
    const Point2& b = p[i];
    const Point2& c = p[(i + 1) % n];
    if (orient(a, b, c) != orientation) {
      return false;
    }
    const bool upper = upper_half(b, c);
    if (previous_upper && !upper) {
      ++upper_to_lower;
    }
    previous_upper = upper;
  }
  return upper_to_lower == 1;
}

// No edge has zero length, adjacent edges do not fold back, and edges that
// are not adjacent share no point.
bool is_simple(const std::vector<Point2>& p) {
  const std::size_t n = p.size();
  struct Box {
    double u0, u1, v0, v1;
  };
  std::vector<Box> boxes(n);
  for (std::size_t i = 0; i < n; ++i) {
    const Point2& a = p[i];
    const Point2& b = p[(i + 1) % n];
    if (same_point(a, b) || edges_fold(a, b, p[(i + 2) % n])) {
      return false;
    }
    boxes[i] = Box{std::min(a.u, b.u), std::max(a.u, b.u), std::min(a.v, b.v), std::max(a.v, b.v)};
  }
  // Sweep over edges sorted by their smallest u: only edges whose u ranges
  // overlap are tested against each other.
  std::vector<std::uint32_t> order(n);
  std::iota(order.begin(), order.end(), 0u);
  std::sort(order.begin(), order.end(), [&](std::uint32_t x, std::uint32_t y) {
    return boxes[x].u0 < boxes[y].u0 || (boxes[x].u0 == boxes[y].u0 && x < y);
  });
  for (std::size_t a = 0; a < n; ++a) {
    const std::uint32_t i = order[a];
    for (std::size_t b = a + 1; b < n && boxes[order[b]].u0 <= boxes[i].u1; ++b) {
      const std::uint32_t j = order[b];
      const std::size_t gap = i > j ? i - j : j - i;
      if (gap == 1 || gap == n - 1) {
        continue;  // adjacent edges share their corner by construction
      }
      if (boxes[j].v0 > boxes[i].v1 || boxes[i].v0 > boxes[j].v1) {
        continue;
      }
      if (segments_touch(p[i], p[(i + 1) % n], p[j], p[(j + 1) % n])) {
        return false;
      }
    }
  }
  return true;
}

// Ear clipping of a simple polygon; fails when no strictly convex ear free of
// other corners is left.
bool clip_ears(const std::vector<Point2>& p, int orientation, std::vector<LocalTriangle>& out) {
  const std::uint32_t n = static_cast<std::uint32_t>(p.size());
  std::vector<std::uint32_t> prev(n), next(n);
  for (std::uint32_t i = 0; i < n; ++i) {
    prev[i] = (i + n - 1) % n;
    next[i] = (i + 1) % n;
  }
  std::vector<char> convex(n);
  // Only corners that are not strictly convex can lie inside an ear.
  std::vector<std::uint32_t> concave;
  for (std::uint32_t i = 0; i < n; ++i) {
    convex[i] = orient(p[prev[i]], p[i], p[next[i]]) == orientation;
    if (!convex[i]) {
      concave.push_back(i);
    }
  }
  auto is_ear = [&](std::uint32_t v) {
    if (!convex[v]) {
      return false;
    }
    const std::uint32_t a = prev[v];
    const std::uint32_t c = next[v];
    for (std::uint32_t w : concave) {
      if (w == a || w == c) {
        continue;
      }
      if (orient(p[a], p[v], p[w]) * orientation >= 0 &&
          orient(p[v], p[c], p[w]) * orientation >= 0 &&
          orient(p[c], p[a], p[w]) * orientation >= 0) {
        return false;
      }
    }
    return true;
  };
  auto refresh = [&](std::uint32_t v) {
    if (!convex[v] && orient(p[prev[v]], p[v], p[next[v]]) == orientation) {
      convex[v] = 1;
      concave.erase(std::find(concave.begin(), concave.end(), v));
    }
  };
  std::uint32_t remaining = n;
  std::uint32_t current = 1 % n;
  std::uint32_t steps = 0;
  while (remaining > 3) {
    if (is_ear(current)) {
      const std::uint32_t a = prev[current];
      const std::uint32_t c = next[current];
      out.push_back({a, current, c});
      next[a] = c;
      prev[c] = a;
      --remaining;
      refresh(a);
      refresh(c);
      current = c;
      steps = 0;
    } else {
      current = next[current];
      if (++steps > remaining) {
        return false;
      }
    }
  }
  const std::uint32_t a = prev[current];
  const std::uint32_t c = next[current];
  if (orient(p[a], p[current], p[c]) != orientation) {
    return false;
  }
  out.push_back({a, current, c});
  return true;
}

}  // namespace

bool triangulate_polygon_exact(std::span<const std::array<float, 3>> corner_positions,
                               std::vector<LocalTriangle>& out) {
  out.clear();
  const std::size_t n = corner_positions.size();
  if (n < 3 || n > std::size_t{0xFFFFFFFF}) {
    return false;
  }
  for (const auto& position : corner_positions) {
    if (!std::isfinite(position[0]) || !std::isfinite(position[1]) || !std::isfinite(position[2])) {
      return false;
    }
  }
  std::vector<Point2> points;
  const int orientation = project(corner_positions, points);
  if (orientation == 0) {
    return false;
  }
  if (strictly_convex(points, orientation)) {
    for (std::size_t t = 0; t + 2 < n; ++t) {
      out.push_back(face_triangle(n, t));
    }
    return true;
  }
  if (n > kExactPolygonCornerLimit || !is_simple(points)) {
    return false;
  }
  out.reserve(n - 2);
  return clip_ears(points, orientation, out);
}

std::uint64_t retriangulate_polygons(Mesh& mesh, std::span<const PolygonRecord> polygons,
                                     const WorkerPool* pool) {
  constexpr std::uint64_t kPolygonsPerTask = 16384;
  const std::uint64_t count = polygons.size();
  std::vector<std::uint64_t> inexact(
      static_cast<std::size_t>(chunk_count(count, kPolygonsPerTask)));
  auto work = [&](std::uint64_t chunk, std::uint64_t begin, std::uint64_t end) {
    std::vector<Corner> corners;
    std::vector<std::array<float, 3>> positions;
    std::vector<LocalTriangle> local;
    std::uint64_t left_as_fan = 0;
    for (std::uint64_t r = begin; r < end; ++r) {
      const PolygonRecord& record = polygons[r];
      const std::uint64_t n = record.corners;
      if (n < 3 || record.first_triangle + (n - 2) > mesh.triangles.size()) {
        ++left_as_fan;
        continue;
      }
      Triangle* fan = mesh.triangles.data() + record.first_triangle;
      // The fan (0, i, i + 1) lists corner 0 and 1 first, then one new corner
      // per triangle.
      corners.clear();
      corners.push_back(fan[0].corners[0]);
      corners.push_back(fan[0].corners[1]);
      for (std::uint64_t t = 0; t + 2 < n; ++t) {
        corners.push_back(fan[t].corners[2]);
      }
      positions.clear();
      bool in_range = true;
      for (const Corner& corner : corners) {
        if (corner.position >= mesh.positions.size()) {
          in_range = false;
          break;
        }
        positions.push_back(mesh.positions[corner.position]);
      }
      if (!in_range || !triangulate_polygon_exact(positions, local)) {
        ++left_as_fan;
        continue;
      }
      const std::uint32_t object = fan[0].object;
      for (std::size_t t = 0; t < local.size(); ++t) {
        fan[t].corners = {corners[local[t][0]], corners[local[t][1]], corners[local[t][2]]};
        fan[t].object = object;
      }
    }
    inexact[static_cast<std::size_t>(chunk)] = left_as_fan;
  };
  if (pool != nullptr) {
    pool->for_chunks(count, kPolygonsPerTask, work);
  } else {
    for (std::uint64_t c = 0; c < inexact.size(); ++c) {
      const std::uint64_t begin = c * kPolygonsPerTask;
      work(c, begin, std::min(count, begin + kPolygonsPerTask));
    }
  }
  return std::accumulate(inexact.begin(), inexact.end(), std::uint64_t{0});
}

}  // namespace kv
