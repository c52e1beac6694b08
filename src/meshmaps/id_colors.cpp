#include "meshmaps/id_colors.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <numeric>

#include "meshmaps/sample_directions.h"

namespace kv::meshmaps {
namespace {

constexpr double kGolden = 0.6180339887498949;

double unit(std::uint32_t h) {
  return static_cast<double>(h) * (1.0 / 4294967295.0);
}

std::array<double, 3> hsv(double h, double s, double v) {
  const double h6 = (h - std::floor(h)) * 6.0;
  const int sector = static_cast<int>(h6) % 6;
  const double f = h6 - std::floor(h6);
  const double p = v * (1.0 - s);
  const double q = v * (1.0 - s * f);
  const double t = v * (1.0 - s * (1.0 - f));
  switch (sector) {
    case 0:
      return {v, t, p};
    case 1:
      return {q, v, p};
    case 2:
      return {p, v, t};
    case 3:
      return {p, q, v};
    case 4:
      return {t, p, v};
    default:
      return {v, p, q};
  }
}

std::uint32_t find(std::vector<std::uint32_t>& parent, std::uint32_t i) {
  while (parent[i] != i) {
    parent[i] = parent[parent[i]];
    i = parent[i];
  }
  return i;
}

// Dense numbers in order of first use.
std::vector<std::uint32_t> renumber(const std::vector<std::uint32_t>& keys, std::uint32_t* count) {
  std::map<std::uint32_t, std::uint32_t> seen;
  std::vector<std::uint32_t> out(keys.size());
  for (std::size_t i = 0; i < keys.size(); ++i) {
    out[i] = seen.emplace(keys[i], static_cast<std::uint32_t>(seen.size())).first->second;
  }
  *count = static_cast<std::uint32_t>(seen.size());
  return out;
}

}  // namespace

std::array<double, 3> id_colour(std::uint32_t index, std::uint32_t count, IdGenerator generator,
                                std::uint32_t seed) {
  switch (generator) {
    case IdGenerator::gray: {
      // Evenly spaced greys, the seed turning which ID gets which.
      const std::uint32_t rank = count == 0 ? 0 : (index + seed) % count;
      const double g = static_cast<double>(rank + 1) / static_cast<double>(count);
      return {g, g, g};
    }
    case IdGenerator::random:
      return {unit(hash32(index, seed, 1, 0)), unit(hash32(index, seed, 2, 0)),
              unit(hash32(index, seed, 3, 0))};
    case IdGenerator::hue:
    default: {
      // Golden-ratio steps around the hue circle keep neighbours apart.
      const double start = unit(hash32(seed, 0, 0, 1));
      const double h = start + kGolden * static_cast<double>(index);
      const double s = 0.55 + 0.45 * unit(hash32(index, seed, 4, 1));
      return hsv(h, s, 1.0);
    }
  }
}

std::vector<std::uint32_t> mesh_islands(const Mesh& mesh) {
  std::vector<std::uint32_t> parent(mesh.positions.size());
  std::iota(parent.begin(), parent.end(), 0u);
  for (const Triangle& t : mesh.triangles) {
    const std::uint32_t a = find(parent, t.corners[0].position);
    for (std::size_t c = 1; c < 3; ++c) {
      const std::uint32_t b = find(parent, t.corners[c].position);
      parent[std::max(a, b)] = std::min(a, b);
    }
  }
  std::vector<std::uint32_t> roots(mesh.triangles.size());
  for (std::size_t i = 0; i < mesh.triangles.size(); ++i) {
    roots[i] = find(parent, mesh.triangles[i].corners[0].position);
  }
  std::uint32_t count = 0;
  return renumber(roots, &count);
}

TriangleIds triangle_ids(const Mesh& high, IdSource source, IdGenerator generator,
                         std::uint32_t seed) {
  const std::size_t n = high.triangles.size();
  TriangleIds out;
  std::vector<std::uint32_t> keys(n, 0);
  if (source == IdSource::vertex_color && high.colors.size() == n * 3) {
    std::map<std::array<float, 3>, std::uint32_t> colours;
    for (std::size_t i = 0; i < n; ++i) {
      const auto& c = high.colors[i * 3];
      const auto [it, added] = colours.emplace(c, static_cast<std::uint32_t>(colours.size()));
      keys[i] = it->second;
      if (added) {
        out.colours.push_back({std::clamp(static_cast<double>(c[0]), 0.0, 1.0),
                               std::clamp(static_cast<double>(c[1]), 0.0, 1.0),
                               std::clamp(static_cast<double>(c[2]), 0.0, 1.0)});
      }
    }
    out.ids = std::move(keys);
    return out;
  }
  if (source == IdSource::mesh_island) {
    keys = mesh_islands(high);
  } else {
    for (std::size_t i = 0; i < n; ++i) {
      if (source == IdSource::object) {
        keys[i] = high.triangles[i].object;
      } else if (source == IdSource::material && high.triangle_materials.size() == n) {
        keys[i] = high.triangle_materials[i];
      } else if (source == IdSource::polygroup && high.polygroups.size() == n) {
        keys[i] = high.polygroups[i];
      }
    }
  }
  std::uint32_t count = 0;
  out.ids = renumber(keys, &count);
  for (std::uint32_t i = 0; i < count; ++i) {
    out.colours.push_back(id_colour(i, count, generator, seed));
  }
  return out;
}

}  // namespace kv::meshmaps
