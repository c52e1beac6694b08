#include "mesh/mesh_handover.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "core/error.h"
#include "mesh/mesh_checks.h"

namespace kv::handover {

// One slice of one array: bytes [begin, begin + size) of array `array`.
struct Slice {
  int array = 0;
  std::uint64_t begin = 0;
  std::uint64_t size = 0;
};

namespace {

// Copies are cut into slices of this size, spread over the pool.
constexpr std::uint64_t kSliceBytes = std::uint64_t{4} << 20;

// The report's fixed part; the message and the mesh part follow it.
struct ReportHead {
  Outcome outcome = Outcome::error;
  std::uint32_t unused = 0;
  MeshStats stats;
  std::uint64_t message_bytes = 0;
  std::uint64_t mesh_bytes = 0;
};

// Calls f on each per-element array of the mesh, in handover order.
template <typename M, typename F>
void for_each_array(M& mesh, F&& f) {
  f(mesh.positions);
  f(mesh.uvs);
  f(mesh.normals);
  f(mesh.triangles);
  f(mesh.triangle_materials);
  f(mesh.object_blocks);
  f(mesh.polygroups);
  f(mesh.colors);
}

std::array<std::uint64_t, kArrayCount> element_sizes() {
  std::array<std::uint64_t, kArrayCount> sizes{};
  int k = 0;
  const Mesh mesh;
  for_each_array(mesh, [&](const auto& array) { sizes[k++] = sizeof(array[0]); });
  return sizes;
}

const std::array<std::uint64_t, kArrayCount> kElementBytes = element_sizes();

template <typename T>
void put(std::string& out, const T& value) {
  out.append(reinterpret_cast<const char*>(&value), sizeof value);
}

void put_names(std::string& out, const std::vector<std::string>& names) {
  put(out, std::uint64_t{names.size()});
  for (const std::string& name : names) {
    put(out, static_cast<std::uint32_t>(name.size()));
    out += name;
  }
}

// Reads the mesh part front to back; running out is a truncated handover.
class Cursor {
 public:
  Cursor(std::string_view bytes, const std::string& broken) : rest_(bytes), broken_(broken) {}

  std::string_view take(std::uint64_t size) {
    if (size > rest_.size()) {
      throw Error(broken_ + "the handover is truncated");
    }
    const std::string_view taken = rest_.substr(0, size);
    rest_.remove_prefix(size);
    return taken;
  }
  template <typename T>
  T value() {
    T out;
    std::memcpy(&out, take(sizeof out).data(), sizeof out);
    return out;
  }
  std::vector<std::string> names() {
    const auto count = value<std::uint64_t>();
    // Each name takes at least its 4-byte length: a count the rest cannot
    // hold is refused before anything is reserved for it.
    if (count > rest_.size() / 4) {
      throw Error(broken_ + "the handover is truncated");
    }
    std::vector<std::string> names;
    names.reserve(count);
    for (std::uint64_t i = 0; i < count; ++i) {
      const auto length = value<std::uint32_t>();
      if (length > kMaxMeshNameBytes) {
        throw Error(broken_ + "a name is longer than " + std::to_string(kMaxMeshNameBytes) +
                    " bytes");
      }
      names.emplace_back(take(length));
    }
    return names;
  }
  bool done() const { return rest_.empty(); }

 private:
  std::string_view rest_;
  const std::string& broken_;
};

// Slices hold whole elements, so that each can be checked as it arrives.
std::vector<Slice> slices_of(const MeshLayout& layout) {
  std::vector<Slice> slices;
  for (int a = 0; a < kArrayCount; ++a) {
    const std::uint64_t bytes = layout[a].count * kElementBytes[a];
    const std::uint64_t step = kSliceBytes / kElementBytes[a] * kElementBytes[a];
    for (std::uint64_t begin = 0; begin < bytes; begin += step) {
      slices.push_back({a, begin, std::min(step, bytes - begin)});
    }
  }
  return slices;
}

// The check of each array's elements, where it has one of its own.
bool checked_array(int array, CheckedArray& checked) {
  switch (array) {
    case kPositions:
      checked = CheckedArray::positions;
      return true;
    case kUvs:
      checked = CheckedArray::uvs;
      return true;
    case kNormals:
      checked = CheckedArray::normals;
      return true;
    case kTriangles:
      checked = CheckedArray::triangles;
      return true;
    case kColors:
      checked = CheckedArray::colors;
      return true;
    default:
      return false;
  }
}

std::array<char*, kArrayCount> array_data(Mesh& mesh) {
  std::array<char*, kArrayCount> data{};
  int k = 0;
  for_each_array(mesh, [&](auto& array) { data[k++] = reinterpret_cast<char*>(array.data()); });
  return data;
}

}  // namespace

MeshLayout layout_of(const Mesh& mesh) {
  MeshLayout layout;
  int k = 0;
  for_each_array(mesh, [&](const auto& array) {
    layout[k++] = {reinterpret_cast<std::uintptr_t>(array.data()), array.size()};
  });
  return layout;
}

int write_report(platform::File& report, Outcome outcome, const MeshStats& stats,
                 const std::string& message, const Mesh& mesh, const MeshLayout& layout) {
  std::string mesh_part;
  if (outcome == Outcome::mesh) {
    put(mesh_part, layout);
    put_names(mesh_part, mesh.objects);
    put_names(mesh_part, mesh.materials);
    put_names(mesh_part, mesh.blocks);
    put_names(mesh_part, mesh.object_alt_names);
  }
  ReportHead head;
  head.outcome = outcome;
  head.stats = stats;
  head.message_bytes = message.size();
  head.mesh_bytes = mesh_part.size();
  std::string bytes;
  put(bytes, head);
  bytes += message;
  bytes += mesh_part;
  return report.write_all(bytes.data(), bytes.size());
}

void write_arrays(platform::File& file, const MeshLayout& layout) {
  for (int a = 0; a < kArrayCount; ++a) {
    const auto* data =
        reinterpret_cast<const void*>(static_cast<std::uintptr_t>(layout[a].address));
    if (file.write_all(data, layout[a].count * kElementBytes[a]) != 0) {
      return;
    }
  }
}

bool read_report(const platform::File& report, std::uint64_t max_bytes, Report& result) {
  int error = 0;
  ReportHead head;
  const std::int64_t size = report.size(&error);
  if (size < static_cast<std::int64_t>(sizeof head) ||
      (max_bytes != 0 && static_cast<std::uint64_t>(size) > max_bytes) ||
      report.read_full_at(&head, sizeof head, 0, &error) !=
          static_cast<std::int64_t>(sizeof head)) {
    return false;
  }
  const auto rest = static_cast<std::uint64_t>(size) - sizeof head;
  if (head.message_bytes > rest || head.mesh_bytes != rest - head.message_bytes) {
    return false;
  }
  result.outcome = head.outcome;
  result.stats = head.stats;
  result.message.resize(head.message_bytes);
  result.mesh_part.resize(head.mesh_bytes);
  return report.read_full_at(result.message.data(), head.message_bytes, sizeof head, &error) ==
             static_cast<std::int64_t>(head.message_bytes) &&
         report.read_full_at(result.mesh_part.data(), head.mesh_bytes,
                             sizeof head + head.message_bytes,
                             &error) == static_cast<std::int64_t>(head.mesh_bytes);
}

MeshReceiver::MeshReceiver(std::string broken_prefix, std::uint64_t byte_limit,
                           const WorkerPool& pool)
    : broken_(std::move(broken_prefix)), byte_limit_(byte_limit), pool_(pool) {}

void MeshReceiver::take_report(std::string_view mesh_part) {
  Cursor cursor(mesh_part, broken_);
  layout_ = cursor.value<MeshLayout>();
  mesh_.objects = cursor.names();
  mesh_.materials = cursor.names();
  mesh_.blocks = cursor.names();
  mesh_.object_alt_names = cursor.names();
  if (!cursor.done()) {
    throw Error(broken_ + "the handover runs on past its end");
  }
  check_counts();
  size_arrays();
}

void MeshReceiver::check_counts() const {
  std::uint64_t bytes = 0;
  for (int a = 0; a < kArrayCount; ++a) {
    if (layout_[a].count > kMaxMeshElements) {
      throw Error(broken_ + "an array of " + std::to_string(layout_[a].count) +
                  " elements is larger than a mesh may hold");
    }
    bytes += layout_[a].count * kElementBytes[a];  // at most 2^31 x 40 bytes each
  }
  if (byte_limit_ != 0 && bytes > byte_limit_) {
    throw Error(broken_ + "its arrays take " + std::to_string(bytes) +
                " bytes, more than the reader's memory limit of " + std::to_string(byte_limit_));
  }
  const std::uint64_t triangles = layout_[kTriangles].count;
  const std::uint64_t objects = mesh_.objects.size();
  if (triangles == 0) {
    throw Error(broken_ + "mesh has no faces");
  }
  if (objects == 0) {
    throw Error(broken_ + "mesh has no objects");
  }
  // Each annotation is empty or one per element of what it annotates.
  const struct {
    std::uint64_t count, per;
    const char *what, *of;
  } annotations[] = {
      {layout_[kTriangleMaterials].count, triangles, "triangle materials", "triangles"},
      {layout_[kObjectBlocks].count, objects, "object blocks", "objects"},
      {mesh_.object_alt_names.size(), objects, "alternative object names", "objects"},
      {layout_[kPolygroups].count, triangles, "polygroups", "triangles"},
      {layout_[kColors].count, 3 * triangles, "colors", "corners"},
  };
  for (const auto& a : annotations) {
    if (a.count != 0 && a.count != a.per) {
      throw Error(broken_ + "there are " + std::to_string(a.count) + " " + a.what + " for " +
                  std::to_string(a.per) + " " + a.of);
    }
  }
}

void MeshReceiver::size_arrays() {
  // Sized without a first write: each page is mapped, zeroed and filled by
  // the copy of its slice, on the pool's threads, while it is in the cache.
  int k = 0;
  for_each_array(mesh_, [&](auto& array) { resize_for_overwrite(array, layout_[k++].count); });
}

void MeshReceiver::check_slice(const Slice& slice) {
  CheckedArray checked;
  if (checked_array(slice.array, checked)) {
    const std::uint64_t size = kElementBytes[slice.array];
    check_range(mesh_, checked, slice.begin / size, (slice.begin + slice.size) / size, failures_);
  }
}

bool MeshReceiver::copy_from_process(std::uint32_t pid) {
  const std::vector<Slice> slices = slices_of(layout_);
  const std::array<char*, kArrayCount> data = array_data(mesh_);
  const auto copy = [&](const Slice& s) {
    return platform::read_process_memory(pid, layout_[s.array].address + s.begin,
                                         data[s.array] + s.begin, s.size);
  };
  // The first slice tells whether the system lets this process read the
  // child at all; a refusal leaves the copy to the file.
  const int first = copy(slices.front());
  if (platform::is_access_denied_error(first)) {
    return false;
  }
  if (first != 0) {
    throw Error(broken_ + "the handover is truncated");
  }
  check_slice(slices.front());
  // Each slice checked while it is still in the cache.
  pool_.for_chunks(slices.size() - 1, 1, [&](std::uint64_t i, std::uint64_t, std::uint64_t) {
    if (copy(slices[i + 1]) != 0) {
      throw Error(broken_ + "the handover is truncated");
    }
    check_slice(slices[i + 1]);
  });
  return true;
}

void MeshReceiver::copy_from_file(const platform::File& file) {
  std::array<std::uint64_t, kArrayCount> offsets{};
  for (int a = 1; a < kArrayCount; ++a) {
    offsets[a] = offsets[a - 1] + layout_[a - 1].count * kElementBytes[a - 1];
  }
  const std::vector<Slice> slices = slices_of(layout_);
  const std::array<char*, kArrayCount> data = array_data(mesh_);
  pool_.for_chunks(slices.size(), 1, [&](std::uint64_t i, std::uint64_t, std::uint64_t) {
    const Slice& s = slices[i];
    int error = 0;
    if (file.read_full_at(data[s.array] + s.begin, s.size, offsets[s.array] + s.begin, &error) !=
        static_cast<std::int64_t>(s.size)) {
      throw Error(broken_ + "the handover is truncated");
    }
    check_slice(s);
  });
}

Mesh MeshReceiver::finish() {
  raise_first_failure(failures_, broken_);
  check_material_indices(mesh_, broken_);
  check_block_indices(mesh_, broken_);
  refuse_duplicate_objects(mesh_, broken_);
  return std::move(mesh_);
}

}  // namespace kv::handover
