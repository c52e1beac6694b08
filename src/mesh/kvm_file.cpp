#include "mesh/kvm_file.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "core/error.h"
#include "core/parallel.h"
#include "image/temp_file.h"
#include "mesh/array_memory.h"
#include "mesh/mesh_checks.h"
#include "platform/platform.h"

namespace kv {
namespace {

static_assert(std::endian::native == std::endian::little,
              "the .kvm arrays are read and written as they lie in memory");
static_assert(sizeof(std::array<float, 3>) == 12 && sizeof(std::array<double, 2>) == 16,
              "vector elements must match the file's element sizes");

constexpr std::uint64_t kMaxElements = kMaxMeshElements;
constexpr std::uint32_t kMaxNameBytes = kMaxMeshNameBytes;
// Chunk of the narrowing of float64 UVs on writing.
constexpr std::uint64_t kNarrowChunk = 65536;

[[noreturn]] void fail(const std::filesystem::path& path, std::string_view message) {
  throw Error(path.string() + ": " + std::string(message));
}

// Sequential reads of the file: large arrays go straight into their storage,
// the many small fields (name lengths, names) through one buffer.
class Reader {
 public:
  Reader(platform::File& file, const std::filesystem::path& path) : file_(file), path_(path) {}

  // Fills size bytes; "the file is truncated" when the file ends first.
  void read(void* data, std::size_t size) {
    if (size == 0) {
      return;
    }
    auto* out = static_cast<char*>(data);
    std::size_t take = std::min(size, filled_ - pos_);
    std::memcpy(out, buffer_.data() + pos_, take);
    pos_ += take;
    out += take;
    size -= take;
    if (size == 0) {
      return;
    }
    if (size >= buffer_.size()) {
      if (raw_read(out, size) != size) {
        fail(path_, "the file is truncated");
      }
      return;
    }
    filled_ = raw_read(buffer_.data(), buffer_.size());
    pos_ = 0;
    take = std::min(size, filled_);
    std::memcpy(out, buffer_.data(), take);
    pos_ = take;
    if (take != size) {
      fail(path_, "the file is truncated");
    }
  }

  template <typename T>
  T read_value() {
    T value;
    read(&value, sizeof value);
    return value;
  }

 private:
  std::size_t raw_read(void* data, std::size_t size) {
    int error = 0;
    const std::int64_t got = file_.read_full(data, size, &error);
    if (got < 0) {
      throw Error("cannot read mesh file: " + path_.string());
    }
    return static_cast<std::size_t>(got);
  }

  platform::File& file_;
  const std::filesystem::path& path_;
  std::vector<char> buffer_ = std::vector<char>(std::size_t{1} << 16);
  std::size_t pos_ = 0;
  std::size_t filled_ = 0;
};

struct Header {
  std::uint32_t version = 0;
  std::uint32_t flags = 0;
  std::uint64_t positions = 0;
  std::uint64_t uvs = 0;
  std::uint64_t normals = 0;
  std::uint64_t triangles = 0;
  std::uint64_t objects = 0;
};

Header read_header(Reader& reader, const std::filesystem::path& path) {
  unsigned char raw[kKvmHeaderBytes];
  reader.read(raw, sizeof raw);
  if (std::memcmp(raw, kKvmMagic, sizeof kKvmMagic) != 0) {
    fail(path, "not a korvane mesh (.kvm)");
  }
  Header h;
  std::memcpy(&h.version, raw + 8, 4);
  std::memcpy(&h.flags, raw + 12, 4);
  std::memcpy(&h.positions, raw + 16, 8);
  std::memcpy(&h.uvs, raw + 24, 8);
  std::memcpy(&h.normals, raw + 32, 8);
  std::memcpy(&h.triangles, raw + 40, 8);
  std::memcpy(&h.objects, raw + 48, 8);
  if (h.version != 1) {
    fail(path, "unsupported .kvm version " + std::to_string(h.version));
  }
  if (h.flags > 15) {
    fail(path, "unsupported .kvm flags " + std::to_string(h.flags));
  }
  for (std::uint64_t count : {h.positions, h.uvs, h.normals, h.triangles, h.objects}) {
    if (count > kMaxElements) {
      fail(path, "too many elements");
    }
  }
  if (h.triangles == 0) {
    fail(path, "mesh has no faces");
  }
  if (h.objects == 0) {
    fail(path, "mesh has no objects");
  }
  return h;
}

// The least size a well-formed file with this header can have.
std::uint64_t least_file_size(const Header& h) {
  std::uint64_t bytes = kKvmHeaderBytes + 12 * h.positions +
                        ((h.flags & kKvmUvDouble) ? 16 : 8) * h.uvs + 12 * h.normals +
                        40 * h.triangles + 4 * h.objects;
  if (h.flags & kKvmMaterials) {
    bytes += 8 + 4 * h.triangles;
  }
  return bytes;
}

std::vector<std::string> read_names(Reader& reader, const std::filesystem::path& path,
                                    std::uint64_t count, std::string_view too_long) {
  std::vector<std::string> names;
  for (std::uint64_t i = 0; i < count; ++i) {
    const auto length = reader.read_value<std::uint32_t>();
    if (length > kMaxNameBytes) {
      fail(path, too_long);
    }
    std::string name(length, '\0');
    reader.read(name.data(), length);
    names.push_back(std::move(name));
  }
  return names;
}

// A table (materials or blocks) with its 64-bit count, name list and one
// index per element of the array it annotates.
struct Table {
  std::vector<std::string> names;
  LargeArray<std::uint32_t> indices;
};

Table read_table(Reader& reader, const std::filesystem::path& path, std::uint64_t index_count,
                 std::string_view what) {
  const auto count = reader.read_value<std::uint64_t>();
  if (count == 0 || count > kMaxElements) {
    fail(path, "bad " + std::string(what) + " count " + std::to_string(count));
  }
  Table table;
  table.names = read_names(reader, path, count, std::string(what) + " name too long");
  table.indices.resize(index_count);
  reader.read(table.indices.data(), index_count * sizeof(std::uint32_t));
  return table;
}

// Reads the positions, UVs and normals, which come before the triangles.
void read_vertex_arrays(Reader& reader, Mesh& mesh, const Header& h) {
  mesh.positions.resize(h.positions);
  reader.read(mesh.positions.data(), h.positions * 12);
  mesh.uvs.resize(h.uvs);
  if (h.flags & kKvmUvDouble) {
    reader.read(mesh.uvs.data(), h.uvs * 16);
  } else {
    std::vector<std::array<float, 2>> narrow(h.uvs);
    reader.read(narrow.data(), h.uvs * 8);
    for (std::size_t i = 0; i < narrow.size(); ++i) {
      mesh.uvs[i] = {narrow[i][0], narrow[i][1]};
    }
  }
  mesh.normals.resize(h.normals);
  reader.read(mesh.normals.data(), h.normals * 12);
}

// The four large arrays: their pages mapped on the pool's threads first; then
// the triangles (the largest) are sized on one thread while the arrays before
// them are sized and read on another, and the triangles are read while the
// other thread checks the vertex arrays. The file itself is read in its
// order, one array at a time.
void read_arrays(Reader& reader, Mesh& mesh, const Header& h, const WorkerPool& pool,
                 MeshFailures& failures) {
  prefault_arrays(
      {reserve_array(mesh.positions, h.positions), reserve_array(mesh.uvs, h.uvs),
       reserve_array(mesh.normals, h.normals), reserve_array(mesh.triangles, h.triangles)},
      pool);
  pool.for_chunks(2, 1, [&](std::uint64_t task, std::uint64_t, std::uint64_t) {
    if (task == 0) {
      mesh.triangles.resize(h.triangles);
    } else {
      read_vertex_arrays(reader, mesh, h);
    }
  });
  pool.for_chunks(2, 1, [&](std::uint64_t task, std::uint64_t, std::uint64_t) {
    if (task == 0) {
      reader.read(mesh.triangles.data(), h.triangles * sizeof(Triangle));
    } else {
      check_vertices(mesh, (h.flags & kKvmNormalsAsIs) == 0, WorkerPool::serial(), failures);
    }
  });
}

Mesh read_kvm_file(platform::File& file, const std::filesystem::path& path, int threads) {
  int error = 0;
  Reader reader(file, path);
  const Header h = read_header(reader, path);

  const std::int64_t size = file.size(&error);
  if (size < 0 || static_cast<std::uint64_t>(size) < least_file_size(h)) {
    fail(path, "the file is truncated");
  }

  Mesh mesh;
  const WorkerPool pool(threads);
  MeshFailures failures;
  read_arrays(reader, mesh, h, pool, failures);
  mesh.objects = read_names(reader, path, h.objects, "object name too long");

  const std::string prefix = path.string() + ": ";
  if (h.flags & kKvmMaterials) {
    Table table = read_table(reader, path, h.triangles, "material");
    mesh.materials = std::move(table.names);
    mesh.triangle_materials = std::move(table.indices);
    check_material_indices(mesh, prefix);
  }
  if (h.flags & kKvmBlocks) {
    Table table = read_table(reader, path, h.objects, "block");
    mesh.blocks = std::move(table.names);
    mesh.object_blocks = std::move(table.indices);
    check_block_indices(mesh, prefix);
  }

  // Reading errors come first, then the first bad element of each array.
  check_triangles(mesh, pool, failures);
  raise_first_failure(failures, prefix);
  refuse_duplicate_objects(mesh, prefix);
  return mesh;
}

}  // namespace

Mesh read_kvm(const std::filesystem::path& path, int threads) {
  int error = 0;
  platform::File file = platform::File::open_read(path, &error);
  if (!file.is_open()) {
    throw Error("cannot open mesh file: " + path.string());
  }
  return read_kvm_file(file, path, threads);
}

}  // namespace kv

namespace kv {
namespace {

// Where the image's bytes go.
using WriteBytes = std::function<void(const void* data, std::size_t size)>;

// Collects the many small fields (name lengths and names) so that they reach
// the file in large writes.
class NameWriter {
 public:
  explicit NameWriter(const WriteBytes& file) : file_(file) {}
  ~NameWriter() = default;

  void put(const void* data, std::size_t size) {
    buffer_.append(static_cast<const char*>(data), size);
    if (buffer_.size() >= (std::size_t{1} << 20)) {
      flush();
    }
  }
  void put_names(const std::vector<std::string>& names) {
    for (const std::string& name : names) {
      const auto length = static_cast<std::uint32_t>(name.size());
      put(&length, sizeof length);
      put(name.data(), name.size());
    }
  }
  void flush() {
    file_(buffer_.data(), buffer_.size());
    buffer_.clear();
  }

 private:
  const WriteBytes& file_;
  std::string buffer_;
};

void check_before_writing(const Mesh& mesh, std::uint32_t flags,
                          const std::filesystem::path& path) {
  if (flags > 15) {
    fail(path, "unsupported .kvm flags " + std::to_string(flags));
  }
  for (std::uint64_t count :
       {std::uint64_t{mesh.positions.size()}, std::uint64_t{mesh.uvs.size()},
        std::uint64_t{mesh.normals.size()}, std::uint64_t{mesh.triangles.size()},
        std::uint64_t{mesh.objects.size()}}) {
    if (count > kMaxElements) {
      fail(path, "too many elements");
    }
  }
  if (mesh.triangles.empty()) {
    fail(path, "mesh has no faces");
  }
  if (mesh.objects.empty()) {
    fail(path, "mesh has no objects");
  }
  for (const std::string& name : mesh.objects) {
    if (name.size() > kMaxNameBytes) {
      fail(path, "object name too long");
    }
  }
  if (flags & kKvmMaterials) {
    if (mesh.materials.empty() || mesh.materials.size() > kMaxElements ||
        mesh.triangle_materials.size() != mesh.triangles.size()) {
      fail(path, "kKvmMaterials needs a material table and one material per triangle");
    }
    for (const std::string& name : mesh.materials) {
      if (name.size() > kMaxNameBytes) {
        fail(path, "material name too long");
      }
    }
    for (std::uint32_t index : mesh.triangle_materials) {
      if (index >= mesh.materials.size()) {
        fail(path, "a triangle has a material index out of range");
      }
    }
  }
  // Block names and indices are deliberately left to the reader to check.
  if (flags & kKvmBlocks) {
    if (mesh.blocks.empty() || mesh.blocks.size() > kMaxElements ||
        mesh.object_blocks.size() != mesh.objects.size()) {
      fail(path, "kKvmBlocks needs a block table and one block per object");
    }
  }
}

// The header and the sections in file order, the mesh already checked.
void write_image(const WriteBytes& write, const Mesh& mesh, std::uint32_t flags) {
  unsigned char header[kKvmHeaderBytes];
  const std::uint32_t version = 1;
  const std::uint64_t counts[5] = {mesh.positions.size(), mesh.uvs.size(), mesh.normals.size(),
                                   mesh.triangles.size(), mesh.objects.size()};
  std::memcpy(header, kKvmMagic, 8);
  std::memcpy(header + 8, &version, 4);
  std::memcpy(header + 12, &flags, 4);
  std::memcpy(header + 16, counts, sizeof counts);
  write(header, sizeof header);

  write(mesh.positions.data(), mesh.positions.size() * 12);
  if (flags & kKvmUvDouble) {
    write(mesh.uvs.data(), mesh.uvs.size() * 16);
  } else {
    // Narrowed through one reusable buffer: no second full-size copy.
    std::vector<std::array<float, 2>> narrow;
    for (std::size_t begin = 0; begin < mesh.uvs.size(); begin += kNarrowChunk) {
      const std::size_t end = std::min<std::size_t>(begin + kNarrowChunk, mesh.uvs.size());
      narrow.resize(end - begin);
      for (std::size_t i = begin; i < end; ++i) {
        narrow[i - begin] = {static_cast<float>(mesh.uvs[i][0]),
                             static_cast<float>(mesh.uvs[i][1])};
      }
      write(narrow.data(), narrow.size() * 8);
    }
  }
  write(mesh.normals.data(), mesh.normals.size() * 12);
  write(mesh.triangles.data(), mesh.triangles.size() * sizeof(Triangle));

  NameWriter names(write);
  names.put_names(mesh.objects);
  if (flags & kKvmMaterials) {
    const std::uint64_t count = mesh.materials.size();
    names.put(&count, sizeof count);
    names.put_names(mesh.materials);
    names.flush();
    write(mesh.triangle_materials.data(), mesh.triangle_materials.size() * 4);
  }
  if (flags & kKvmBlocks) {
    const std::uint64_t count = mesh.blocks.size();
    names.put(&count, sizeof count);
    names.put_names(mesh.blocks);
    names.flush();
    write(mesh.object_blocks.data(), mesh.object_blocks.size() * 4);
  }
  names.flush();
}

}  // namespace

void write_kvm(const std::filesystem::path& path, const Mesh& mesh, std::uint32_t flags) {
  check_before_writing(mesh, flags, path);
  TempFile file = TempFile::create(path, path.string() + ": ");
  write_image([&file](const void* data, std::size_t size) { file.write(data, size); }, mesh, flags);
  file.commit();
}

}  // namespace kv
