#include "mesh/read_budget.h"

#include <algorithm>
#include <limits>
#include <string>

#include "core/error.h"
#include "platform/platform.h"

namespace kv {
namespace {

// a + b and a * b, held at the largest value instead of wrapping.
std::uint64_t add_capped(std::uint64_t a, std::uint64_t b) {
  return a > std::numeric_limits<std::uint64_t>::max() - b
             ? std::numeric_limits<std::uint64_t>::max()
             : a + b;
}

std::uint64_t times_capped(std::uint64_t a, std::uint64_t b) {
  return b != 0 && a > std::numeric_limits<std::uint64_t>::max() / b
             ? std::numeric_limits<std::uint64_t>::max()
             : a * b;
}

}  // namespace

std::uint64_t MeshEstimate::bytes() const {
  // Positions and normals are three float32, UVs two float64, a triangle is
  // 40 bytes and its material index 4.
  std::uint64_t total = working_bytes;
  total = add_capped(total, times_capped(positions, 12));
  total = add_capped(total, times_capped(normals, 12));
  total = add_capped(total, times_capped(uvs, 16));
  return add_capped(total, times_capped(triangles, 44));
}

ReadBudget::ReadBudget(const MeshReadOptions& options) {
  left_ = options.memory_limit_bytes != 0 ? options.memory_limit_bytes
                                          : platform::memory_available_bytes();
  if (left_ == 0) {
    left_ = std::numeric_limits<std::uint64_t>::max();
  }
}

bool ReadBudget::take_file(std::uint64_t bytes) {
  if (bytes > left_) {
    return false;
  }
  left_ -= bytes;
  file_bytes_ += bytes;
  return true;
}

std::string ReadBudget::refusal(std::uint64_t bytes) const {
  return std::to_string(bytes) + " bytes do not fit in the " + std::to_string(left_) +
         " bytes left of the memory budget";
}

std::string ReadBudget::read_whole_file(const std::filesystem::path& path, std::uint64_t largest,
                                        const char* format) {
  int error = 0;
  platform::File file = platform::File::open_read(path, &error);
  const std::int64_t size = file.is_open() ? file.size(&error) : -1;
  if (size < 0) {
    throw Error("cannot open mesh file: " + path.string());
  }
  const auto bytes = static_cast<std::uint64_t>(size);
  if (bytes > largest) {
    throw Error(path.string() + ": the file is too large for " + format);
  }
  if (!take_file(bytes)) {
    throw OutOfMemory(path.string() + ": the file's " + refusal(bytes));
  }
  std::string text(static_cast<std::size_t>(bytes), '\0');
  if (file.read_full(text.data(), text.size(), &error) != size) {
    throw Error("cannot read mesh file: " + path.string());
  }
  return text;
}

void ReadBudget::check_mesh(const std::filesystem::path& path, const MeshEstimate& estimate) const {
  const std::uint64_t growth = std::max(times_capped(file_bytes_, kExpansion), kFloorBytes);
  const std::uint64_t limit = std::min(left_, growth);
  const std::uint64_t need = estimate.bytes();
  if (need > limit) {
    const std::uint64_t mib = std::uint64_t{1} << 20;
    const std::string message = path.string() + ": the mesh file " + path.string() + " gives " +
                                std::to_string(estimate.triangles) + " triangles and needs about " +
                                std::to_string(add_capped(need, mib - 1) / mib) +
                                " MB; the limit is " + std::to_string(limit / mib) + " MB";
    // Past the memory left, the machine is short; past the growth alone, the
    // file asks for far more than its bytes justify.
    if (need > left_) {
      throw OutOfMemory(message);
    }
    throw Error(message);
  }
}

}  // namespace kv
