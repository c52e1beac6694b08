#include "obj/bench_obj.h"

#include <charconv>
#include <string>

#include "core/error.h"
#include "core/large_array.h"
#include "core/parallel.h"
#include "mesh/array_memory.h"
#include "platform/platform.h"

namespace kv::bench {

namespace {

// Cells split into two triangle faces instead of one quad.
bool triangle_cell(int i, int j, int object) {
  return (i + j + object) % 5 == 0;
}

class Writer {
 public:
  explicit Writer(const std::filesystem::path& path) : path_(path) {
    int error = 0;
    file_ = platform::File::create_truncate(path, &error);
    if (!file_.is_open()) {
      throw Error("cannot write " + path.string() + ": " + platform::system_error_text(error));
    }
    buffer_.reserve(kFlushBytes + 4096);
  }

  void text(std::string_view s) { buffer_.append(s); }

  // Fixed notation with six decimals, as most exporters write.
  void number(double value) {
    char digits[64];
    const auto result =
        std::to_chars(digits, digits + sizeof digits, value, std::chars_format::fixed, 6);
    buffer_.push_back(' ');
    buffer_.append(digits, result.ptr);
  }

  void index(std::uint64_t value) {
    char digits[24];
    const auto result = std::to_chars(digits, digits + sizeof digits, value);
    buffer_.append(digits, result.ptr);
  }

  void end_line() {
    buffer_.push_back('\n');
    if (buffer_.size() >= kFlushBytes) {
      flush();
    }
  }

  std::uint64_t finish() {
    flush();
    if (const int error = file_.close(); error != 0) {
      throw Error("cannot write " + path_.string() + ": " + platform::system_error_text(error));
    }
    return written_;
  }

 private:
  void flush() {
    if (const int error = file_.write_all(buffer_.data(), buffer_.size()); error != 0) {
      throw Error("cannot write " + path_.string() + ": " + platform::system_error_text(error));
    }
    written_ += buffer_.size();
    buffer_.clear();
  }

  static constexpr std::size_t kFlushBytes = 8u << 20;
  std::filesystem::path path_;
  platform::File file_;
  std::string buffer_;
  std::uint64_t written_ = 0;
};

}  // namespace

BenchObjInfo bench_obj_info(const BenchObjShape& shape) {
  BenchObjInfo info;
  const std::uint64_t side = static_cast<std::uint64_t>(shape.grid) + 1;
  info.positions = side * side * static_cast<std::uint64_t>(shape.objects);
  for (int k = 0; k < shape.objects; ++k) {
    for (int j = 0; j < shape.grid; ++j) {
      for (int i = 0; i < shape.grid; ++i) {
        info.triangles += 2;
        info.quads += triangle_cell(i, j, k) ? 0 : 1;
      }
    }
  }
  return info;
}

BenchObjInfo write_bench_obj(const std::filesystem::path& path, const BenchObjShape& shape) {
  BenchObjInfo info = bench_obj_info(shape);
  Writer out(path);
  out.text("# korvane benchmark mesh\nmtllib bench.mtl\n");
  const int g = shape.grid;
  const std::uint64_t side = static_cast<std::uint64_t>(g) + 1;
  for (int k = 0; k < shape.objects; ++k) {
    out.text("o Object_");
    out.index(static_cast<std::uint64_t>(k));
    out.end_line();
    for (int j = 0; j <= g; ++j) {
      for (int i = 0; i <= g; ++i) {
        // A small integer pattern for the relief keeps the bytes the same
        // with every math library.
        const int bump = (i * 7 + j * 13 + k * 3) % 17;
        out.text("v");
        out.number(2.0 * i / g - 1.0 + 2.5 * k);
        out.number(2.0 * j / g - 1.0);
        out.number(0.05 * bump / 17.0);
        out.end_line();
        out.text("vt");
        out.number(static_cast<double>(i) / g);
        out.number(static_cast<double>(j) / g);
        out.end_line();
        out.text("vn");
        out.number(0.1 * (i % 5) - 0.2);
        out.number(0.1 * (j % 3) - 0.1);
        out.number(1.0);
        out.end_line();
      }
    }
    out.text("usemtl Material_");
    out.index(static_cast<std::uint64_t>(k % 3));
    out.end_line();
    const std::uint64_t base = side * side * static_cast<std::uint64_t>(k) + 1;
    auto corner = [&](int i, int j) {
      const std::uint64_t v =
          base + static_cast<std::uint64_t>(j) * side + static_cast<std::uint64_t>(i);
      out.text(" ");
      out.index(v);
      out.text("/");
      out.index(v);
      out.text("/");
      out.index(v);
    };
    for (int j = 0; j < g; ++j) {
      for (int i = 0; i < g; ++i) {
        if (triangle_cell(i, j, k)) {
          out.text("f");
          corner(i, j);
          corner(i + 1, j);
          corner(i + 1, j + 1);
          out.end_line();
          out.text("f");
          corner(i, j);
          corner(i + 1, j + 1);
          corner(i, j + 1);
          out.end_line();
        } else {
          out.text("f");
          corner(i, j);
          corner(i + 1, j);
          corner(i + 1, j + 1);
          corner(i, j + 1);
          out.end_line();
        }
      }
    }
  }
  info.bytes = out.finish();
  return info;
}

std::uint64_t mesh_array_bytes(const Mesh& mesh) {
  std::uint64_t bytes = mesh.positions.size() * 12 + mesh.uvs.size() * 16 +
                        mesh.normals.size() * 12 + mesh.triangles.size() * sizeof(Triangle) +
                        mesh.triangle_materials.size() * 4 + mesh.object_blocks.size() * 4 +
                        mesh.polygroups.size() * 4 + mesh.colors.size() * 12;
  for (const auto* names : {&mesh.objects, &mesh.materials, &mesh.blocks}) {
    for (const std::string& name : *names) {
      bytes += name.size();
    }
  }
  return bytes;
}

void plain_read(const std::filesystem::path& path, int threads) {
  int error = 0;
  platform::File file = platform::File::open_read(path, &error);
  const std::int64_t size = file.is_open() ? file.size(&error) : -1;
  if (size < 0) {
    throw Error("cannot read " + path.string());
  }
  const auto bytes = static_cast<std::size_t>(size);
  // The same memory the readers use: a huge-page block, mapped first.
  const LargeBuffer buffer(bytes);
  prefault_arrays({ArrayBytes{buffer.data(), bytes}}, WorkerPool(threads));
  if (file.read_full(buffer.data(), bytes, &error) != size) {
    throw Error("cannot read " + path.string());
  }
}

}  // namespace kv::bench
