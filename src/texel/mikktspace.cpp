#include "texel/mikktspace.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <limits>
#include <numbers>
#include <unordered_map>

#include "core/error.h"

// Every step below is written for bit-equal results with the published
// method, including its order-dependent parts (the weld's choice of a
// representative corner, the seeded quicksort of edges and the way its
// sub-sorts leave the last run as it is). Do not "tidy" those.

namespace kv {
namespace {

struct Vec3 {
  float x = 0.0f;
  float y = 0.0f;
  float z = 0.0f;
};

Vec3 add(Vec3 a, Vec3 b) {
  return {a.x + b.x, a.y + b.y, a.z + b.z};
}
Vec3 sub(Vec3 a, Vec3 b) {
  return {a.x - b.x, a.y - b.y, a.z - b.z};
}
Vec3 scale(float s, Vec3 v) {
  return {s * v.x, s * v.y, s * v.z};
}
float dot(Vec3 a, Vec3 b) {
  return a.x * b.x + a.y * b.y + a.z * b.z;
}
float length(Vec3 v) {
  return std::sqrt(dot(v, v));
}
Vec3 normalize(Vec3 v) {
  return scale(1.0f / length(v), v);
}
bool same(Vec3 a, Vec3 b) {
  return a.x == b.x && a.y == b.y && a.z == b.z;
}
bool not_zero(float x) {
  return std::fabs(x) > FLT_MIN;
}
bool not_zero(Vec3 v) {
  return not_zero(v.x) || not_zero(v.y) || not_zero(v.z);
}
// The component of v across the unit normal n.
Vec3 project(Vec3 n, Vec3 v) {
  return sub(v, scale(dot(n, v), n));
}
// v at unit length, or v itself when every component is (nearly) zero.
Vec3 normalize_if_not_zero(Vec3 v) {
  return not_zero(v) ? normalize(v) : v;
}
// The direction of v across the unit normal n; zero stays zero.
Vec3 unit_projection(Vec3 n, Vec3 v) {
  return normalize_if_not_zero(project(n, v));
}

constexpr std::uint32_t kFlagDegenerate = 1;
constexpr std::uint32_t kFlagOrientPreserving = 8;
constexpr std::uint32_t kFlagGroupWithAny = 16;
constexpr std::uint32_t kSortSeed = 39871946;
constexpr int kWeldCells = 2048;

// Read access to the corners by corner index (3 * triangle + corner).
class Corners {
 public:
  explicit Corners(std::span<const MikkCorner> corners) : corners_(corners) {}
  Vec3 position(int i) const {
    const auto& p = corners_[static_cast<std::size_t>(i)].position;
    return {p[0], p[1], p[2]};
  }
  Vec3 normal(int i) const {
    const auto& n = corners_[static_cast<std::size_t>(i)].normal;
    return {n[0], n[1], n[2]};
  }
  Vec3 uv(int i) const {
    const auto& t = corners_[static_cast<std::size_t>(i)].uv;
    return {t[0], t[1], 1.0f};
  }

 private:
  std::span<const MikkCorner> corners_;
};

// ---- Weld: corners equal in position, normal and UV share one index. ----

float channel(Vec3 v, int c) {
  return c == 0 ? v.x : (c == 1 ? v.y : v.z);
}

// Float to int as the x86 conversion does it: out of range or NaN gives INT_MIN.
int truncate_like_x86(float f) {
  if (!(f >= -2147483648.0f && f < 2147483648.0f)) {
    return std::numeric_limits<int>::min();
  }
  return static_cast<int>(f);
}

int weld_cell(float lo, float hi, float value) {
  const float index = static_cast<float>(kWeldCells) * ((value - lo) / (hi - lo));
  const int cell = truncate_like_x86(index);
  return cell < kWeldCells ? (cell >= 0 ? cell : 0) : kWeldCells - 1;
}

struct WeldEntry {
  float pos[3];
  int slot;
};

class Welder {
 public:
  Welder(const Corners& corners, std::vector<int>& list) : corners_(corners), list_(list) {}

  void merge(std::vector<WeldEntry>& entries, int lo, int hi) {
    float mn[3];
    float mx[3];
    for (int c = 0; c < 3; ++c) {
      mn[c] = entries[static_cast<std::size_t>(lo)].pos[c];
      mx[c] = mn[c];
    }
    for (int l = lo + 1; l <= hi; ++l) {
      for (int c = 0; c < 3; ++c) {
        const float v = entries[static_cast<std::size_t>(l)].pos[c];
        if (mn[c] > v) {
          mn[c] = v;
        }
        if (mx[c] < v) {
          mx[c] = v;
        }
      }
    }
    const float dx = mx[0] - mn[0];
    const float dy = mx[1] - mn[1];
    const float dz = mx[2] - mn[2];
    int axis = 0;
    if (dy > dx && dy > dz) {
      axis = 1;
    } else if (dz > dx) {
      axis = 2;
    }
    const float split = 0.5f * (mx[axis] + mn[axis]);
    if (!std::isfinite(split)) {
      return;  // nothing left to weld among NaN or infinite positions
    }
    if (split >= mx[axis] || split <= mn[axis]) {
      weld_leaf(entries, lo, hi);
      return;
    }
    int left = lo;
    int right = hi;
    while (left < right) {
      bool left_ready = false;
      bool right_ready = false;
      while (!left_ready && left < right) {
        left_ready = !(entries[static_cast<std::size_t>(left)].pos[axis] < split);
        if (!left_ready) {
          ++left;
        }
      }
      while (!right_ready && left < right) {
        right_ready = entries[static_cast<std::size_t>(right)].pos[axis] < split;
        if (!right_ready) {
          --right;
        }
      }
      if (left_ready && right_ready) {
        std::swap(entries[static_cast<std::size_t>(left)],
                  entries[static_cast<std::size_t>(right)]);
        ++left;
        --right;
      }
    }
    if (left == right) {
      if (entries[static_cast<std::size_t>(right)].pos[axis] < split) {
        ++left;
      } else {
        --right;
      }
    }
    if (lo < right) {
      merge(entries, lo, right);
    }
    if (left < hi) {
      merge(entries, left, hi);
    }
  }

 private:
  // Each corner takes the index of the first equal corner before it in the range.
  void weld_leaf(const std::vector<WeldEntry>& entries, int lo, int hi) {
    for (int l = lo; l <= hi; ++l) {
      const int slot = entries[static_cast<std::size_t>(l)].slot;
      const int index = list_[static_cast<std::size_t>(slot)];
      const Vec3 p = corners_.position(index);
      const Vec3 n = corners_.normal(index);
      const Vec3 t = corners_.uv(index);
      for (int l2 = lo; l2 < l; ++l2) {
        const int slot2 = entries[static_cast<std::size_t>(l2)].slot;
        const int index2 = list_[static_cast<std::size_t>(slot2)];
        if (same(p, corners_.position(index2)) && same(n, corners_.normal(index2)) &&
            same(t, corners_.uv(index2))) {
          list_[static_cast<std::size_t>(slot)] = index2;
          break;
        }
      }
    }
  }

  const Corners& corners_;
  std::vector<int>& list_;
};

std::vector<int> weld_corners(const Corners& corners, int corner_count) {
  std::vector<int> list(static_cast<std::size_t>(corner_count));
  for (int i = 0; i < corner_count; ++i) {
    list[static_cast<std::size_t>(i)] = i;
  }
  Vec3 mn = corners.position(0);
  Vec3 mx = mn;
  for (int i = 1; i < corner_count; ++i) {
    const Vec3 p = corners.position(i);
    if (mn.x > p.x) {
      mn.x = p.x;
    } else if (mx.x < p.x) {
      mx.x = p.x;
    }
    if (mn.y > p.y) {
      mn.y = p.y;
    } else if (mx.y < p.y) {
      mx.y = p.y;
    }
    if (mn.z > p.z) {
      mn.z = p.z;
    } else if (mx.z < p.z) {
      mx.z = p.z;
    }
  }
  const Vec3 extent = sub(mx, mn);
  int axis = 0;
  if (extent.y > extent.x && extent.y > extent.z) {
    axis = 1;
  } else if (extent.z > extent.x) {
    axis = 2;
  }
  const float lo = channel(mn, axis);
  const float hi = channel(mx, axis);

  // Bucket the corners along the widest axis, each bucket in corner order.
  std::vector<int> cell_of(static_cast<std::size_t>(corner_count));
  std::vector<int> offsets(kWeldCells + 1, 0);
  for (int i = 0; i < corner_count; ++i) {
    const int cell = weld_cell(lo, hi, channel(corners.position(i), axis));
    cell_of[static_cast<std::size_t>(i)] = cell;
    ++offsets[static_cast<std::size_t>(cell) + 1];
  }
  for (int k = 0; k < kWeldCells; ++k) {
    offsets[static_cast<std::size_t>(k) + 1] += offsets[static_cast<std::size_t>(k)];
  }
  std::vector<int> table(static_cast<std::size_t>(corner_count));
  std::vector<int> fill(offsets.begin(), offsets.end() - 1);
  for (int i = 0; i < corner_count; ++i) {
    table[static_cast<std::size_t>(
        fill[static_cast<std::size_t>(cell_of[static_cast<std::size_t>(i)])]++)] = i;
  }

  Welder welder(corners, list);
  std::vector<WeldEntry> entries;
  for (int k = 0; k < kWeldCells; ++k) {
    const int begin = offsets[static_cast<std::size_t>(k)];
    const int count = offsets[static_cast<std::size_t>(k) + 1] - begin;
    if (count < 2) {
      continue;
    }
    entries.resize(static_cast<std::size_t>(count));
    for (int e = 0; e < count; ++e) {
      const int slot = table[static_cast<std::size_t>(begin + e)];
      const Vec3 p = corners.position(list[static_cast<std::size_t>(slot)]);
      entries[static_cast<std::size_t>(e)] = {{p.x, p.y, p.z}, slot};
    }
    welder.merge(entries, 0, count - 1);
  }
  return list;
}

// ---- Edge sort: the method's seeded quicksort, kept for its exact order. ----

struct Edge {
  int key[3];  // smaller vertex index, larger vertex index, triangle
};

void quicksort_edges(std::vector<Edge>& edges, int left, int right, int ch, std::uint32_t seed) {
  const int elements = right - left + 1;
  if (elements < 2) {
    return;
  }
  if (elements == 2) {
    if (edges[static_cast<std::size_t>(left)].key[ch] >
        edges[static_cast<std::size_t>(right)].key[ch]) {
      std::swap(edges[static_cast<std::size_t>(left)], edges[static_cast<std::size_t>(right)]);
    }
    return;
  }
  // Pseudo-random pivot: rotate the seed by its low five bits and add.
  const std::uint32_t r = seed & 31u;
  const std::uint32_t rotated = r == 0 ? seed : ((seed << r) | (seed >> (32u - r)));
  seed = seed + rotated + 3u;

  int lo = left;
  int hi = right;
  const std::uint32_t n = static_cast<std::uint32_t>(hi - lo + 1);
  const int pick = static_cast<int>(seed % n);
  const int pivot = edges[static_cast<std::size_t>(pick + lo)].key[ch];
  do {
    while (edges[static_cast<std::size_t>(lo)].key[ch] < pivot) {
      ++lo;
    }
    while (edges[static_cast<std::size_t>(hi)].key[ch] > pivot) {
      --hi;
    }
    if (lo <= hi) {
      std::swap(edges[static_cast<std::size_t>(lo)], edges[static_cast<std::size_t>(hi)]);
      ++lo;
      --hi;
    }
  } while (lo <= hi);
  if (left < hi) {
    quicksort_edges(edges, left, hi, ch, seed);
  }
  if (lo < right) {
    quicksort_edges(edges, lo, right, ch, seed);
  }
}

// The edge of triangle `tri` (three vertex indices) joining a and b, in the
// triangle's winding order, and its number (edge k joins corners k and k+1).
void winding_edge(const int* tri, int a, int b, int& from, int& to, int& number) {
  if (tri[0] == a || tri[0] == b) {
    if (tri[1] == a || tri[1] == b) {
      number = 0;
      from = tri[0];
      to = tri[1];
    } else {
      number = 2;
      from = tri[2];
      to = tri[0];
    }
  } else {
    number = 1;
    from = tri[1];
    to = tri[2];
  }
}

struct TriInfo {
  int neighbour[3] = {-1, -1, -1};
  int group[3] = {-1, -1, -1};
  Vec3 os;
  Vec3 ot;
  float mag_s = 0.0f;
  float mag_t = 0.0f;
  int original = 0;  // triangle index in the input
  std::uint32_t flags = 0;
};

void find_neighbours(std::vector<TriInfo>& tris, const std::vector<int>& list, int good) {
  const int count = good * 3;
  std::vector<Edge> edges(static_cast<std::size_t>(count));
  for (int f = 0; f < good; ++f) {
    for (int i = 0; i < 3; ++i) {
      const int a = list[static_cast<std::size_t>(f * 3 + i)];
      const int b = list[static_cast<std::size_t>(f * 3 + (i < 2 ? i + 1 : 0))];
      edges[static_cast<std::size_t>(f * 3 + i)] = {{a < b ? a : b, a < b ? b : a, f}};
    }
  }
  quicksort_edges(edges, 0, count - 1, 0, kSortSeed);
  // Sub-sorts over runs of equal keys; the method sorts each run when the next
  // one starts, so the final run keeps the order the first sort left.
  int start = 0;
  for (int i = 1; i < count; ++i) {
    if (edges[static_cast<std::size_t>(start)].key[0] !=
        edges[static_cast<std::size_t>(i)].key[0]) {
      quicksort_edges(edges, start, i - 1, 1, kSortSeed);
      start = i;
    }
  }
  start = 0;
  for (int i = 1; i < count; ++i) {
    if (edges[static_cast<std::size_t>(start)].key[0] !=
            edges[static_cast<std::size_t>(i)].key[0] ||
        edges[static_cast<std::size_t>(start)].key[1] !=
            edges[static_cast<std::size_t>(i)].key[1]) {
      quicksort_edges(edges, start, i - 1, 2, kSortSeed);
      start = i;
    }
  }
  // Pair each edge with the next unpaired edge running the other way.
  for (int i = 0; i < count; ++i) {
    const Edge& e = edges[static_cast<std::size_t>(i)];
    const int f = e.key[2];
    int from_a = 0;
    int to_a = 0;
    int number_a = 0;
    winding_edge(&list[static_cast<std::size_t>(f * 3)], e.key[0], e.key[1], from_a, to_a,
                 number_a);
    if (tris[static_cast<std::size_t>(f)].neighbour[number_a] != -1) {
      continue;
    }
    for (int j = i + 1; j < count && edges[static_cast<std::size_t>(j)].key[0] == e.key[0] &&
                        edges[static_cast<std::size_t>(j)].key[1] == e.key[1];
         ++j) {
      const int t = edges[static_cast<std::size_t>(j)].key[2];
      int from_b = 0;
      int to_b = 0;
      int number_b = 0;
      winding_edge(&list[static_cast<std::size_t>(t * 3)], e.key[0], e.key[1], to_b, from_b,
                   number_b);
      if (from_a == from_b && to_a == to_b &&
          tris[static_cast<std::size_t>(t)].neighbour[number_b] == -1) {
        tris[static_cast<std::size_t>(f)].neighbour[number_a] = t;
        tris[static_cast<std::size_t>(t)].neighbour[number_b] = f;
        break;
      }
    }
  }
}

void init_triangles(std::vector<TriInfo>& tris, const std::vector<int>& list, int good,
                    const Corners& corners) {
  for (int f = 0; f < good; ++f) {
    TriInfo& info = tris[static_cast<std::size_t>(f)];
    info.flags |= kFlagGroupWithAny;  // until its UV derivatives prove it healthy
    const int* tri = &list[static_cast<std::size_t>(f * 3)];
    const Vec3 v1 = corners.position(tri[0]);
    const Vec3 v2 = corners.position(tri[1]);
    const Vec3 v3 = corners.position(tri[2]);
    const Vec3 t1 = corners.uv(tri[0]);
    const Vec3 t2 = corners.uv(tri[1]);
    const Vec3 t3 = corners.uv(tri[2]);
    const float t21x = t2.x - t1.x;
    const float t21y = t2.y - t1.y;
    const float t31x = t3.x - t1.x;
    const float t31y = t3.y - t1.y;
    const Vec3 d1 = sub(v2, v1);
    const Vec3 d2 = sub(v3, v1);
    const float area = t21x * t31y - t21y * t31x;  // signed, doubled, in UV
    const Vec3 os = sub(scale(t31y, d1), scale(t21y, d2));
    const Vec3 ot = add(scale(-t31x, d1), scale(t21x, d2));
    if (area > 0) {
      info.flags |= kFlagOrientPreserving;
    }
    if (not_zero(area)) {
      const float abs_area = std::fabs(area);
      const float len_s = length(os);
      const float len_t = length(ot);
      const float s = (info.flags & kFlagOrientPreserving) == 0 ? -1.0f : 1.0f;
      if (not_zero(len_s)) {
        info.os = scale(s / len_s, os);
      }
      if (not_zero(len_t)) {
        info.ot = scale(s / len_t, ot);
      }
      info.mag_s = len_s / abs_area;
      info.mag_t = len_t / abs_area;
      if (not_zero(info.mag_s) && not_zero(info.mag_t)) {
        info.flags &= ~kFlagGroupWithAny;
      }
    }
  }
  find_neighbours(tris, list, good);
}

// ---- Groups: corners around one vertex joined across shared edges. ----

struct Group {
  int vertex = 0;
  bool orient_preserving = false;
  std::vector<int> faces;
};

int corner_of(const std::vector<int>& list, int f, int vertex) {
  const int* tri = &list[static_cast<std::size_t>(f * 3)];
  return tri[0] == vertex ? 0 : (tri[1] == vertex ? 1 : (tri[2] == vertex ? 2 : -1));
}

// Joins triangles to a group depth first, left neighbour before right, exactly
// as a recursive walk would (a stack keeps deep fans off the call stack).
void grow_group(std::vector<TriInfo>& tris, const std::vector<int>& list,
                std::vector<Group>& groups, int g, int first_left, int first_right) {
  std::vector<int> stack;
  stack.push_back(first_right);
  stack.push_back(first_left);
  while (!stack.empty()) {
    const int f = stack.back();
    stack.pop_back();
    if (f < 0) {
      continue;
    }
    Group& group = groups[static_cast<std::size_t>(g)];
    TriInfo& info = tris[static_cast<std::size_t>(f)];
    const int i = corner_of(list, f, group.vertex);
    if (i < 0 || info.group[i] != -1) {
      continue;  // already in this group, or in another one
    }
    if ((info.flags & kFlagGroupWithAny) != 0 && info.group[0] == -1 && info.group[1] == -1 &&
        info.group[2] == -1) {
      // The first group to reach a triangle without usable UV derivatives
      // decides its orientation.
      info.flags &= ~kFlagOrientPreserving;
      info.flags |= group.orient_preserving ? kFlagOrientPreserving : 0u;
    }
    const bool orient = (info.flags & kFlagOrientPreserving) != 0;
    if (orient != group.orient_preserving) {
      continue;
    }
    group.faces.push_back(f);
    info.group[i] = g;
    stack.push_back(info.neighbour[i > 0 ? i - 1 : 2]);
    stack.push_back(info.neighbour[i]);
  }
}

std::vector<Group> build_groups(std::vector<TriInfo>& tris, const std::vector<int>& list,
                                int good) {
  std::vector<Group> groups;
  for (int f = 0; f < good; ++f) {
    for (int i = 0; i < 3; ++i) {
      TriInfo& info = tris[static_cast<std::size_t>(f)];
      if ((info.flags & kFlagGroupWithAny) != 0 || info.group[i] != -1) {
        continue;
      }
      const int g = static_cast<int>(groups.size());
      Group group;
      group.vertex = list[static_cast<std::size_t>(f * 3 + i)];
      group.orient_preserving = (info.flags & kFlagOrientPreserving) != 0;
      group.faces.push_back(f);
      groups.push_back(std::move(group));
      info.group[i] = g;
      grow_group(tris, list, groups, g, info.neighbour[i], info.neighbour[i > 0 ? i - 1 : 2]);
    }
  }
  return groups;
}

// ---- Tangent spaces per group, split where tangents turn fully around. ----

struct TSpace {
  Vec3 os{1.0f, 0.0f, 0.0f};
  float mag_s = 1.0f;
  Vec3 ot{0.0f, 1.0f, 0.0f};
  float mag_t = 1.0f;
  bool orient = false;
};

TSpace eval_tspace(const std::vector<int>& members, const std::vector<int>& list,
                   const std::vector<TriInfo>& tris, const Corners& corners, int vertex) {
  TSpace res;
  res.os = {};
  res.ot = {};
  res.mag_s = 0.0f;
  res.mag_t = 0.0f;
  float angle_sum = 0.0f;
  for (int f : members) {
    const TriInfo& info = tris[static_cast<std::size_t>(f)];
    if ((info.flags & kFlagGroupWithAny) != 0) {
      continue;  // only triangles with usable derivatives contribute
    }
    const int i = corner_of(list, f, vertex);
    const int* tri = &list[static_cast<std::size_t>(f * 3)];
    const Vec3 n = corners.normal(tri[i]);
    const Vec3 os = unit_projection(n, info.os);
    const Vec3 ot = unit_projection(n, info.ot);
    const Vec3 p0 = corners.position(tri[i > 0 ? i - 1 : 2]);
    const Vec3 p1 = corners.position(tri[i]);
    const Vec3 p2 = corners.position(tri[i < 2 ? i + 1 : 0]);
    const Vec3 e1 = unit_projection(n, sub(p0, p1));
    const Vec3 e2 = unit_projection(n, sub(p2, p1));
    float cosine = dot(e1, e2);
    cosine = cosine > 1 ? 1 : (cosine < -1 ? -1 : cosine);
    const float angle = static_cast<float>(std::acos(static_cast<double>(cosine)));
    res.os = add(res.os, scale(angle, os));
    res.ot = add(res.ot, scale(angle, ot));
    res.mag_s += angle * info.mag_s;
    res.mag_t += angle * info.mag_t;
    angle_sum += angle;
  }
  res.os = normalize_if_not_zero(res.os);
  res.ot = normalize_if_not_zero(res.ot);
  if (angle_sum > 0) {
    res.mag_s /= angle_sum;
    res.mag_t /= angle_sum;
  }
  return res;
}

float threshold_cosine() {
  const float degrees = 180.0f;
  return static_cast<float>(
      std::cos(static_cast<double>((degrees * static_cast<float>(std::numbers::pi)) / 180.0f)));
}

void generate_tspaces(std::vector<TSpace>& out, const std::vector<TriInfo>& tris,
                      const std::vector<Group>& groups, const std::vector<int>& list,
                      const Corners& corners) {
  const float threshold = threshold_cosine();
  std::vector<int> members;
  std::vector<std::vector<int>> subgroups;
  std::vector<TSpace> subgroup_spaces;
  for (std::size_t g = 0; g < groups.size(); ++g) {
    const Group& group = groups[g];
    subgroups.clear();
    subgroup_spaces.clear();
    for (int f : group.faces) {
      const TriInfo& info = tris[static_cast<std::size_t>(f)];
      const int index =
          info.group[0] == static_cast<int>(g) ? 0 : (info.group[1] == static_cast<int>(g) ? 1 : 2);
      const Vec3 n = corners.normal(list[static_cast<std::size_t>(f * 3 + index)]);
      const Vec3 os = unit_projection(n, info.os);
      const Vec3 ot = unit_projection(n, info.ot);
      members.clear();
      for (int t : group.faces) {
        const TriInfo& other = tris[static_cast<std::size_t>(t)];
        const Vec3 os2 = unit_projection(n, other.os);
        const Vec3 ot2 = unit_projection(n, other.ot);
        const bool any = ((info.flags | other.flags) & kFlagGroupWithAny) != 0;
        const bool same_face = info.original == other.original;
        const float cos_s = dot(os, os2);
        const float cos_t = dot(ot, ot2);
        if (any || same_face || (cos_s > threshold && cos_t > threshold)) {
          members.push_back(t);
        }
      }
      std::sort(members.begin(), members.end());
      std::size_t l = 0;
      while (l < subgroups.size() && subgroups[l] != members) {
        ++l;
      }
      if (l == subgroups.size()) {
        subgroups.push_back(members);
        subgroup_spaces.push_back(eval_tspace(members, list, tris, corners, group.vertex));
      }
      TSpace& target = out[static_cast<std::size_t>(info.original * 3 + index)];
      target = subgroup_spaces[l];
      target.orient = group.orient_preserving;
    }
  }
}

}  // namespace

std::vector<CornerTangent> mikktspace_tangents(std::span<const MikkCorner> input) {
  if (input.size() % 3 != 0) {
    throw Error("tangent generation needs three corners per triangle");
  }
  if (input.size() > static_cast<std::size_t>(std::numeric_limits<int>::max() / 4)) {
    throw Error("the low mesh has too many triangles for tangent generation");
  }
  const int total = static_cast<int>(input.size() / 3);
  std::vector<CornerTangent> result(input.size());
  if (total == 0) {
    return result;
  }
  const Corners corners(input);
  const std::vector<int> welded = weld_corners(corners, total * 3);

  // Triangles with two equal corner positions are degenerate: they join no
  // group and borrow the spaces of good triangles afterwards.
  std::vector<int> order;
  order.reserve(static_cast<std::size_t>(total));
  std::vector<int> degenerate;
  for (int t = 0; t < total; ++t) {
    const Vec3 p0 = corners.position(welded[static_cast<std::size_t>(t * 3)]);
    const Vec3 p1 = corners.position(welded[static_cast<std::size_t>(t * 3 + 1)]);
    const Vec3 p2 = corners.position(welded[static_cast<std::size_t>(t * 3 + 2)]);
    if (same(p0, p1) || same(p0, p2) || same(p1, p2)) {
      degenerate.push_back(t);
    } else {
      order.push_back(t);
    }
  }
  const int good = static_cast<int>(order.size());
  order.insert(order.end(), degenerate.begin(), degenerate.end());

  std::vector<int> list(static_cast<std::size_t>(total) * 3);
  std::vector<TriInfo> tris(static_cast<std::size_t>(total));
  for (int k = 0; k < total; ++k) {
    const int t = order[static_cast<std::size_t>(k)];
    for (int i = 0; i < 3; ++i) {
      list[static_cast<std::size_t>(k * 3 + i)] = welded[static_cast<std::size_t>(t * 3 + i)];
    }
    tris[static_cast<std::size_t>(k)].original = t;
    if (k >= good) {
      tris[static_cast<std::size_t>(k)].flags = kFlagDegenerate;
    }
  }

  init_triangles(tris, list, good, corners);
  const std::vector<Group> groups = build_groups(tris, list, good);
  std::vector<TSpace> spaces(static_cast<std::size_t>(total) * 3);
  generate_tspaces(spaces, tris, groups, list, corners);

  // Degenerate corners copy the space of the first good corner on the same vertex.
  std::unordered_map<int, int> first_good;
  first_good.reserve(static_cast<std::size_t>(good) * 3);
  for (int j = 0; j < good * 3; ++j) {
    first_good.emplace(list[static_cast<std::size_t>(j)], j);
  }
  for (int k = good; k < total; ++k) {
    for (int i = 0; i < 3; ++i) {
      const auto found = first_good.find(list[static_cast<std::size_t>(k * 3 + i)]);
      if (found == first_good.end()) {
        continue;
      }
      const TriInfo& source = tris[static_cast<std::size_t>(found->second / 3)];
      spaces[static_cast<std::size_t>(tris[static_cast<std::size_t>(k)].original * 3 + i)] =
          spaces[static_cast<std::size_t>(source.original * 3 + found->second % 3)];
    }
  }

  for (std::size_t c = 0; c < result.size(); ++c) {
    const TSpace& s = spaces[c];
    result[c].tangent = {s.os.x, s.os.y, s.os.z};
    result[c].sign = s.orient ? 1.0f : -1.0f;
  }
  return result;
}

std::vector<CornerTangent> mikktspace_tangents(const Mesh& mesh,
                                               std::span<const std::array<float, 3>> normals) {
  if (normals.size() != mesh.triangles.size() * 3) {
    throw Error("tangent generation needs one normal per triangle corner");
  }
  std::vector<MikkCorner> corners(normals.size());
  for (std::size_t t = 0; t < mesh.triangles.size(); ++t) {
    for (std::size_t i = 0; i < 3; ++i) {
      const Corner& c = mesh.triangles[t].corners[i];
      MikkCorner& m = corners[t * 3 + i];
      m.position = mesh.positions.at(c.position);
      m.normal = normals[t * 3 + i];
      const auto& uv = mesh.uvs.at(static_cast<std::size_t>(c.uv));
      m.uv = {static_cast<float>(uv[0]), static_cast<float>(uv[1])};
    }
  }
  return mikktspace_tangents(std::span<const MikkCorner>(corners));
}

}  // namespace kv
