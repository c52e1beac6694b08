#include "texel/corner_normals.h"

#include <bit>
#include <cmath>
#include <cstdint>
#include <unordered_map>

#include "core/parallel.h"

namespace kv {
namespace {

struct PositionKey {
  std::uint32_t object;
  std::uint32_t bits[3];
  bool operator==(const PositionKey&) const = default;
};

struct PositionKeyHash {
  std::size_t operator()(const PositionKey& k) const {
    std::uint64_t h = k.object;
    for (std::uint32_t b : k.bits) {
      h = (h ^ b) * 0x100000001b3ull;
      h ^= h >> 29;
    }
    return static_cast<std::size_t>(h);
  }
};

std::uint32_t key_bits(float f) {
  return f == 0.0f ? 0u : std::bit_cast<std::uint32_t>(f);  // -0 and +0 are one position
}

// The angle at a corner between the edges to the next and the following corner.
double corner_angle(const std::array<float, 3>& p, const std::array<float, 3>& next,
                    const std::array<float, 3>& following) {
  double e1[3];
  double e2[3];
  for (int i = 0; i < 3; ++i) {
    e1[i] = static_cast<double>(next[static_cast<std::size_t>(i)]) - p[static_cast<std::size_t>(i)];
    e2[i] = static_cast<double>(following[static_cast<std::size_t>(i)]) -
            p[static_cast<std::size_t>(i)];
  }
  const double cx = e1[1] * e2[2] - e1[2] * e2[1];
  const double cy = e1[2] * e2[0] - e1[0] * e2[2];
  const double cz = e1[0] * e2[1] - e1[1] * e2[0];
  const double cross = std::sqrt(cx * cx + cy * cy + cz * cz);
  const double d = e1[0] * e2[0] + e1[1] * e2[1] + e1[2] * e2[2];
  if (cross == 0.0 && d == 0.0) {
    return 0.0;
  }
  return std::atan2(cross, d);
}

}  // namespace

std::optional<std::array<float, 3>> face_normal(const Mesh& mesh, std::size_t t) {
  const Triangle& tri = mesh.triangles[t];
  const auto& p0 = mesh.positions[tri.corners[0].position];
  const auto& p1 = mesh.positions[tri.corners[1].position];
  const auto& p2 = mesh.positions[tri.corners[2].position];
  const float e1[3] = {p1[0] - p0[0], p1[1] - p0[1], p1[2] - p0[2]};
  const float e2[3] = {p2[0] - p0[0], p2[1] - p0[1], p2[2] - p0[2]};
  const float x = e1[1] * e2[2] - e1[2] * e2[1];
  const float y = e1[2] * e2[0] - e1[0] * e2[2];
  const float z = e1[0] * e2[1] - e1[1] * e2[0];
  const float len = std::sqrt(x * x + y * y + z * z);
  if (!(len > 0.0f) || !std::isfinite(len)) {
    return std::nullopt;
  }
  return std::array<float, 3>{x / len, y / len, z / len};
}

std::optional<std::array<float, 3>> corner_normal(const Mesh& mesh, std::size_t t, int corner) {
  const Corner& c = mesh.triangles[t].corners[static_cast<std::size_t>(corner)];
  if (c.normal >= 0 && static_cast<std::size_t>(c.normal) < mesh.normals.size()) {
    return mesh.normals[static_cast<std::size_t>(c.normal)];
  }
  return face_normal(mesh, t);
}

std::vector<std::array<float, 3>> averaged_normals(const Mesh& mesh, int threads) {
  const std::size_t corners = mesh.triangles.size() * 3;
  std::vector<std::optional<std::array<float, 3>>> own(corners);
  std::vector<std::uint32_t> key_of(corners);
  std::unordered_map<PositionKey, std::uint32_t, PositionKeyHash> keys;
  keys.reserve(corners);
  std::vector<std::array<double, 3>> sums;

  for (std::size_t t = 0; t < mesh.triangles.size(); ++t) {
    const Triangle& tri = mesh.triangles[t];
    const std::optional<std::array<float, 3>> face = face_normal(mesh, t);
    for (int i = 0; i < 3; ++i) {
      const std::size_t c = t * 3 + static_cast<std::size_t>(i);
      const Corner& corner = tri.corners[static_cast<std::size_t>(i)];
      const auto& p = mesh.positions[corner.position];
      const PositionKey key{tri.object, {key_bits(p[0]), key_bits(p[1]), key_bits(p[2])}};
      const auto [it, inserted] = keys.emplace(key, static_cast<std::uint32_t>(sums.size()));
      if (inserted) {
        sums.push_back({0.0, 0.0, 0.0});
      }
      key_of[c] = it->second;
      if (corner.normal >= 0 && static_cast<std::size_t>(corner.normal) < mesh.normals.size()) {
        own[c] = mesh.normals[static_cast<std::size_t>(corner.normal)];
      } else {
        own[c] = face;
      }
      if (!own[c]) {
        continue;  // no normal to add for this corner
      }
      const auto& next =
          mesh.positions[tri.corners[static_cast<std::size_t>((i + 1) % 3)].position];
      const auto& following =
          mesh.positions[tri.corners[static_cast<std::size_t>((i + 2) % 3)].position];
      const double angle = corner_angle(p, next, following);
      std::array<double, 3>& sum = sums[it->second];
      for (std::size_t k = 0; k < 3; ++k) {
        sum[k] += static_cast<double>((*own[c])[k]) * angle;
      }
    }
  }

  std::vector<std::array<float, 3>> out(corners);
  WorkerPool pool(threads);
  pool.for_chunks(corners, 4096 * 3, [&](std::uint64_t, std::uint64_t begin, std::uint64_t end) {
    for (std::uint64_t c = begin; c < end; ++c) {
      const std::array<double, 3>& s = sums[key_of[c]];
      const double len = std::sqrt(s[0] * s[0] + s[1] * s[1] + s[2] * s[2]);
      if (len > 0.0 && std::isfinite(len)) {
        out[c] = {static_cast<float>(s[0] / len), static_cast<float>(s[1] / len),
                  static_cast<float>(s[2] / len)};
      } else if (own[c]) {
        out[c] = *own[c];
      } else {
        out[c] = {0.0f, 0.0f, 0.0f};
      }
    }
  });
  return out;
}

}  // namespace kv
