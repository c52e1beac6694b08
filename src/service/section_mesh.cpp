#include "service/section_mesh.h"

#include <bit>
#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <new>
#include <unordered_map>

#include "core/parallel.h"
#include "core/vec3.h"
#include "mesh/array_memory.h"
#include "platform/platform.h"

namespace kv::service {

namespace {

static_assert(std::endian::native == std::endian::little,
              "the arrays are little-endian and copied as they lie");

constexpr std::uint64_t kMaxElements = 2147483647;
constexpr std::size_t kMaxNameBytes = 65536;
// Items converted per task: a fixed count, so that chunk bounds (and which
// fault is reported first) never depend on the thread count.
constexpr std::uint64_t kChunkItems = 65536;

constexpr std::uint64_t kPositionBytes = 3 * 4;
constexpr std::uint64_t kIndexBytes = 3 * 4;
constexpr std::uint64_t kUvBytes = 3 * 2 * 4;      // per triangle
constexpr std::uint64_t kNormalBytes = 3 * 3 * 4;  // per triangle

std::string hex(std::uint64_t value) {
  char text[32];
  std::snprintf(text, sizeof text, "0x%" PRIx64, value);
  return text;
}

// Where the arrays' bytes come from.
class ArraySource {
 public:
  explicit ArraySource(std::string prefix) : prefix_(std::move(prefix)) {}
  virtual ~ArraySource() = default;
  ArraySource(const ArraySource&) = delete;
  ArraySource& operator=(const ArraySource&) = delete;

  // Bytes [at, at + bytes) of the source, valid until `scratch` changes.
  // Safe to call from several threads with their own scratch.
  virtual const unsigned char* bytes(std::uint64_t at, std::size_t bytes,
                                     std::vector<unsigned char>& scratch) const = 0;
  // "shared memory section "name": ": the start of every message.
  const std::string& prefix() const { return prefix_; }

 private:
  std::string prefix_;
};

class MappedSource final : public ArraySource {
 public:
  MappedSource(const std::string& name, platform::SharedSection section)
      : ArraySource("shared memory section \"" + name + "\": "), section_(std::move(section)) {}
  const unsigned char* bytes(std::uint64_t at, std::size_t,
                             std::vector<unsigned char>&) const override {
    return section_.data() + at;
  }

 private:
  platform::SharedSection section_;
};

class ProcessSource final : public ArraySource {
 public:
  explicit ProcessSource(std::uint32_t pid)
      : ArraySource("process " + std::to_string(pid) + ": "), pid_(pid) {}
  const unsigned char* bytes(std::uint64_t at, std::size_t bytes,
                             std::vector<unsigned char>& scratch) const override {
    scratch.resize(bytes);
    const int error = platform::read_process_memory(pid_, at, scratch.data(), bytes);
    if (error != 0) {
      // A system that restricts reading another process's memory lets the
      // client allow it (prctl PR_SET_PTRACER on Linux).
      const char* hint =
          error == EPERM ? " (the client must allow this process to read its memory)" : "";
      throw Error(prefix() + "cannot read " + std::to_string(bytes) + " bytes at address " +
                  hex(at) + ": " + platform::system_error_text(error) + hint);
    }
    return scratch.data();
  }

 private:
  std::uint32_t pid_;
};

// ---- layout --------------------------------------------------------------------

// One array of an object: inside the section (or the address space), and
// 4-byte aligned so that its floats and indices are never split.
void check_array(std::size_t object, const char* field, std::uint64_t at, std::uint64_t bytes,
                 std::optional<std::uint64_t> size) {
  if (at % 4 != 0) {
    throw SectionLayoutError(object, field, "must be a multiple of 4");
  }
  if (size) {
    if (at > *size || bytes > *size - at) {
      throw SectionLayoutError(object, field,
                               std::to_string(bytes) + " bytes from offset " + std::to_string(at) +
                                   " run past the section's " + std::to_string(*size) + " bytes");
    }
  } else if (bytes > std::numeric_limits<std::uint64_t>::max() - at) {
    throw SectionLayoutError(object, field,
                             std::to_string(bytes) + " bytes from address " + hex(at) +
                                 " run past the end of the address space");
  }
}

// Elements of each Mesh array the objects fill together.
struct Totals {
  std::uint64_t positions = 0;
  std::uint64_t triangles = 0;
  std::uint64_t uvs = 0;  // corners
  std::uint64_t normals = 0;
};

// Adds `count` to a total, refusing a total beyond what a Mesh array holds.
void add_total(std::uint64_t& total, std::uint64_t count, std::size_t object, const char* field,
               const char* what) {
  total += count;
  if (total > kMaxElements) {
    throw SectionLayoutError(
        object, field, std::string("the objects hold more than 2147483647 ") + what + " together");
  }
}

// Every check that needs no data, before anything is allocated or opened.
Totals check_layout(const std::vector<SectionObject>& objects, std::optional<std::uint64_t> size) {
  Totals totals;
  for (std::size_t i = 0; i < objects.size(); ++i) {
    const SectionObject& o = objects[i];
    if (o.name.empty()) {
      throw SectionLayoutError(i, "name", "must not be empty");
    }
    if (o.name.size() > kMaxNameBytes) {
      throw SectionLayoutError(i, "name", "longer than 65536 bytes");
    }
    // Each count is below 2^31, so no byte size below can overflow.
    if (o.vertices > kMaxElements) {
      throw SectionLayoutError(i, "vertices", "at most 2147483647");
    }
    if (o.triangles > kMaxElements) {
      throw SectionLayoutError(i, "triangles", "at most 2147483647");
    }
    check_array(i, "positions", o.positions, o.vertices * kPositionBytes, size);
    check_array(i, "indices", o.indices, o.triangles * kIndexBytes, size);
    if (o.uvs) {
      check_array(i, "uvs", *o.uvs, o.triangles * kUvBytes, size);
    }
    if (o.normals) {
      check_array(i, "normals", *o.normals, o.triangles * kNormalBytes, size);
    }
    add_total(totals.positions, o.vertices, i, "vertices", "vertices");
    add_total(totals.triangles, o.triangles, i, "triangles", "triangles");
    if (o.uvs) {
      add_total(totals.uvs, 3 * o.triangles, i, "uvs", "UV corners");
    }
    if (o.normals) {
      add_total(totals.normals, 3 * o.triangles, i, "normals", "normals");
    }
  }
  return totals;
}

// ---- conversion ------------------------------------------------------------------

// Where one object's elements go in the joined mesh.
struct ObjectPlan {
  std::uint64_t position = 0;
  std::uint64_t triangle = 0;
  std::uint64_t uv = 0;
  std::uint64_t normal = 0;
  std::uint32_t object = 0;
};

class MeshBuilder {
 public:
  MeshBuilder(const ArraySource& source, const std::atomic<bool>* cancel, const WorkerPool& pool)
      : source_(source), cancel_(cancel), pool_(pool) {}

  Mesh build(const std::vector<SectionObject>& objects, const Totals& totals) {
    Mesh mesh;
    allocate(mesh, totals);
    // As the OBJ reader: objects of one name are one object, and with no
    // `usemtl` every face takes the material "default".
    std::unordered_map<std::string, std::uint32_t> object_index;
    ObjectPlan plan;
    for (const SectionObject& o : objects) {
      check_cancel();
      const auto [found, added] =
          object_index.emplace(o.name, static_cast<std::uint32_t>(mesh.objects.size()));
      if (added) {
        mesh.objects.push_back(o.name);
      }
      plan.object = found->second;
      convert_object(o, plan, mesh);
      plan.position += o.vertices;
      plan.triangle += o.triangles;
      plan.uv += o.uvs ? 3 * o.triangles : 0;
      plan.normal += o.normals ? 3 * o.triangles : 0;
    }
    mesh.materials = {"default"};
    return mesh;
  }

 private:
  void check_cancel() const {
    if (cancel_ != nullptr && cancel_->load(std::memory_order_relaxed)) {
      throw Cancelled();
    }
  }

  [[noreturn]] void fail(const SectionObject& o, const std::string& where,
                         const std::string& what) const {
    throw Error(source_.prefix() + "object \"" + o.name + "\" " + where + ": " + what);
  }

  // The arrays' pages are mapped on the pool's threads first, as the OBJ
  // reader does, then the arrays are sized side by side. An allocation that
  // fails becomes OutOfMemory in build_mesh.
  void allocate(Mesh& mesh, const Totals& totals) const {
    prefault_arrays(
        {reserve_array(mesh.triangles, totals.triangles),
         reserve_array(mesh.positions, totals.positions),
         reserve_array(mesh.normals, totals.normals), reserve_array(mesh.uvs, totals.uvs),
         reserve_array(mesh.triangle_materials, totals.triangles)},
        pool_);
    pool_.for_chunks(5, 1, [&](std::uint64_t array, std::uint64_t, std::uint64_t) {
      switch (array) {
        case 0:
          mesh.triangles.resize(totals.triangles);
          break;
        case 1:
          mesh.positions.resize(totals.positions);
          break;
        case 2:
          mesh.normals.resize(totals.normals);
          break;
        case 3:
          mesh.uvs.resize(totals.uvs);
          break;
        default:
          mesh.triangle_materials.resize(totals.triangles);  // all "default"
          break;
      }
    });
  }

  // Calls fn(item, bytes of that item) for every item of an array of
  // `count` items of `item_bytes` at `at`, in fixed chunks on the pool.
  template <typename Fn>
  void for_items(std::uint64_t at, std::uint64_t count, std::uint64_t item_bytes, Fn&& fn) const {
    pool_.for_chunks(
        count, kChunkItems, [&](std::uint64_t, std::uint64_t begin, std::uint64_t end) {
          check_cancel();
          std::vector<unsigned char> scratch;
          const unsigned char* data =
              source_.bytes(at + begin * item_bytes,
                            static_cast<std::size_t>((end - begin) * item_bytes), scratch);
          for (std::uint64_t item = begin; item < end; ++item) {
            fn(item, data + (item - begin) * item_bytes);
          }
        });
  }

  void convert_object(const SectionObject& o, const ObjectPlan& plan, Mesh& mesh) const {
    for_items(o.positions, o.vertices, kPositionBytes,
              [&](std::uint64_t v, const unsigned char* p) {
                std::array<float, 3> position{};
                std::memcpy(position.data(), p, kPositionBytes);
                if (!std::isfinite(position[0]) || !std::isfinite(position[1]) ||
                    !std::isfinite(position[2])) {
                  fail(o, "vertex " + std::to_string(v), "position component is not finite");
                }
                mesh.positions[plan.position + v] = position;
              });
    if (o.uvs) {
      for_items(*o.uvs, o.triangles, kUvBytes, [&](std::uint64_t t, const unsigned char* p) {
        float uv[6];
        std::memcpy(uv, p, kUvBytes);
        for (std::size_t k = 0; k < 3; ++k) {
          if (!std::isfinite(uv[2 * k]) || !std::isfinite(uv[2 * k + 1])) {
            fail(o, corner_name(t, k), "UV component is not finite");
          }
          // float64 from here on, as the OBJ reader keeps texture coordinates.
          mesh.uvs[plan.uv + 3 * t + k] = {static_cast<double>(uv[2 * k]),
                                           static_cast<double>(uv[2 * k + 1])};
        }
      });
    }
    if (o.normals) {
      for_items(
          *o.normals, o.triangles, kNormalBytes, [&](std::uint64_t t, const unsigned char* p) {
            for (std::size_t k = 0; k < 3; ++k) {
              Vec3f n{};
              std::memcpy(n.data(), p + 12 * k, 12);
              const bool finite = std::isfinite(n[0]) && std::isfinite(n[1]) && std::isfinite(n[2]);
              // Unit length in 32-bit exactly as an OBJ `vn` line is normalised.
              if (!finite || !normalize_in_place(n)) {
                fail(o, corner_name(t, k),
                     finite ? "zero-length normal" : "normal component is not finite");
              }
              mesh.normals[plan.normal + 3 * t + k] = n;
            }
          });
    }
    for_items(o.indices, o.triangles, kIndexBytes, [&](std::uint64_t t, const unsigned char* p) {
      std::uint32_t index[3];
      std::memcpy(index, p, kIndexBytes);
      Triangle& out = mesh.triangles[plan.triangle + t];
      for (std::size_t k = 0; k < 3; ++k) {
        if (index[k] >= o.vertices) {
          fail(o, "triangle " + std::to_string(t),
               "vertex index " + std::to_string(index[k]) + " is out of range; the object has " +
                   std::to_string(o.vertices) + " vertices");
        }
        Corner& c = out.corners[k];
        c.position = static_cast<std::uint32_t>(plan.position + index[k]);
        c.uv = o.uvs ? static_cast<std::int32_t>(plan.uv + 3 * t + k) : -1;
        c.normal = o.normals ? static_cast<std::int32_t>(plan.normal + 3 * t + k) : -1;
      }
      out.object = plan.object;
    });
  }

  static std::string corner_name(std::uint64_t triangle, std::size_t corner) {
    return "triangle " + std::to_string(triangle) + " corner " + std::to_string(corner);
  }

  const ArraySource& source_;
  const std::atomic<bool>* cancel_;
  const WorkerPool& pool_;
};

Mesh build_mesh(const ArraySource& source, const std::vector<SectionObject>& objects,
                const Totals& totals, const std::atomic<bool>* cancel, int threads) {
  if (totals.triangles == 0) {
    throw Error(source.prefix() + "mesh has no faces");
  }
  const WorkerPool pool(threads);
  try {
    return MeshBuilder(source, cancel, pool).build(objects, totals);
  } catch (const std::bad_alloc&) {
    throw OutOfMemory(source.prefix() + "out of memory while reading the mesh");
  }
}

}  // namespace

Mesh read_section_mesh(const std::string& section, std::uint64_t size,
                       const std::vector<SectionObject>& objects, const std::atomic<bool>* cancel,
                       int threads) {
  const Totals totals = check_layout(objects, size);
  int error = 0;
  std::uint64_t real_size = 0;
  std::optional<platform::SharedSection> mapping =
      platform::SharedSection::open(section, size, false, &error, &real_size);
  if (!mapping) {
    if (error == ERANGE) {
      throw Error("shared memory section \"" + section + "\" holds " + std::to_string(real_size) +
                  " bytes, fewer than the size " + std::to_string(size) + " given");
    }
    throw Error("cannot open shared memory section \"" + section +
                "\": " + platform::system_error_text(error));
  }
  const MappedSource source(section, std::move(*mapping));
  return build_mesh(source, objects, totals, cancel, threads);
}

Mesh read_process_mesh(std::uint32_t pid, const std::vector<SectionObject>& objects,
                       const std::atomic<bool>* cancel, int threads) {
  const Totals totals = check_layout(objects, std::nullopt);
  const ProcessSource source(pid);
  return build_mesh(source, objects, totals, cancel, threads);
}

}  // namespace kv::service
