#include "fuzz/harness.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "core/error.h"
#include "fuzz/mesh_check.h"
#include "fuzz/request_harness.h"
#include "image/exr_reader.h"
#include "image/kvt_file.h"
#include "image/png.h"
#include "mesh/fbx_reader.h"
#include "mesh/gltf_reader.h"
#include "mesh/kvm_file.h"
#include "mesh/mesh_format.h"
#include "mesh/obj_reader.h"
#include "platform/platform.h"
#include "run/bake_options.h"

namespace kv::fuzz {
namespace {

// The readers take paths: each input is written to a file of its own name in
// a folder of this process, removed when the process ends.
class InputFolder {
 public:
  InputFolder()
      : path_(std::filesystem::temp_directory_path() /
              ("korvane-fuzz-" + std::to_string(platform::process_id()))) {
    platform::create_directories(path_);
  }
  ~InputFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  InputFolder(const InputFolder&) = delete;
  InputFolder& operator=(const InputFolder&) = delete;

  std::filesystem::path write(const std::string& name, std::span<const std::uint8_t> bytes) const {
    const std::filesystem::path file = path_ / name;
    int error = 0;
    platform::File out = platform::File::create_truncate(file, &error);
    if (!out.is_open() || out.write_all(bytes.data(), bytes.size()) != 0 || out.close() != 0) {
      throw std::runtime_error("fuzz harness: cannot write " + file.string());
    }
    return file;
  }

 private:
  std::filesystem::path path_;
};

const InputFolder& input_folder() {
  static const InputFolder folder;
  return folder;
}

[[noreturn]] void broken(const std::string& target, const std::string& rule) {
  std::fprintf(stderr, "fuzz target %s: %s\n", target.c_str(), rule.c_str());
  std::abort();
}

void check_mesh(const std::string& target, const Mesh& mesh, bool unit_normals) {
  const std::string rule = mesh_rule_broken(mesh, unit_normals);
  if (!rule.empty()) {
    broken(target, "the mesh read breaks a rule: " + rule);
  }
}

MeshReadOptions one_thread() {
  MeshReadOptions options;
  options.threads = 1;
  return options;
}

bool bytes_equal(const auto& a, const auto& b) {
  return a.size() == b.size() &&
         (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(a[0])) == 0);
}

// The OBJ text read in one chunk, and again cut into many small chunks on two
// threads: the joins must give the same mesh, or the same first error.
void run_obj(std::span<const std::uint8_t> input) {
  const std::string_view text(reinterpret_cast<const char*>(input.data()), input.size());
  std::string whole_error;
  Mesh whole;
  try {
    whole = parse_obj(text, "input.obj", one_thread()).mesh;
  } catch (const Error& e) {
    whole_error = e.what();
  }
  constexpr std::size_t kChunkedUpTo = 65536;
  if (input.size() <= kChunkedUpTo) {
    MeshReadOptions two = one_thread();
    two.threads = 2;
    std::string chunked_error;
    Mesh chunked;
    try {
      chunked = detail::parse_obj_chunked(text, "input.obj", two, 64).mesh;
    } catch (const Error& e) {
      chunked_error = e.what();
    }
    const bool same =
        chunked_error == whole_error && bytes_equal(whole.positions, chunked.positions) &&
        bytes_equal(whole.uvs, chunked.uvs) && bytes_equal(whole.normals, chunked.normals) &&
        bytes_equal(whole.triangles, chunked.triangles) && whole.objects == chunked.objects &&
        whole.materials == chunked.materials && whole.blocks == chunked.blocks;
    if (!same) {
      broken("obj", "small chunks give another result: '" + chunked_error + "' against '" +
                        whole_error + "'");
    }
  }
  if (!whole_error.empty()) {
    throw Error(whole_error);
  }
  check_mesh("obj", whole, true);
}

std::uint32_t kvm_flags(std::span<const std::uint8_t> input) {
  std::uint32_t flags = 0;
  if (input.size() >= 16) {
    std::memcpy(&flags, input.data() + 12, 4);
  }
  return flags;
}

bool starts_with_kvm_magic(std::span<const std::uint8_t> input) {
  return input.size() >= 8 && std::memcmp(input.data(), kKvmMagic, 8) == 0;
}

void run_kvm(std::span<const std::uint8_t> input) {
  const auto path = input_folder().write("input.kvm", input);
  check_mesh("kvm", read_kvm(path, 1), (kvm_flags(input) & kKvmNormalsAsIs) == 0);
}

void run_gltf(const char* target, const char* name, std::span<const std::uint8_t> input) {
  const auto path = input_folder().write(name, input);
  MeshStats stats;
  check_mesh(target, read_gltf(path, one_thread(), &stats), true);
}

void run_fbx(std::span<const std::uint8_t> input) {
  const auto path = input_folder().write("input.fbx", input);
  MeshStats stats;
  const Mesh mesh = read_fbx(path, one_thread(), &stats);
  check_mesh("fbx", mesh, true);
  if (stats.quads_split > mesh.triangles.size() || stats.polygons_inexact > mesh.triangles.size()) {
    broken("fbx", "the counters exceed the triangle count");
  }
}

// The first byte picks the file's name (so the sniffing meets every
// extension) and the face policies; the rest is the file.
void run_read_mesh(std::span<const std::uint8_t> input) {
  if (input.empty()) {
    return;
  }
  static const char* const names[] = {"input.obj", "input.kvm", "input.gltf",
                                      "input.GLB", "input.fbx", "input"};
  const std::uint8_t pick = input[0];
  const std::span<const std::uint8_t> file = input.subspan(1);
  const auto path = input_folder().write(names[pick % 6], file);
  MeshReadOptions options = one_thread();
  options.quads = (pick & 0x40) != 0 ? QuadPolicy::reject : QuadPolicy::split;
  options.polygons = (pick & 0x80) != 0 ? PolygonPolicy::reject : PolygonPolicy::accept;
  MeshStats stats;
  const Mesh mesh = read_mesh(path, options, &stats);
  const bool as_is = starts_with_kvm_magic(file) && (kvm_flags(file) & kKvmNormalsAsIs) != 0;
  check_mesh("read_mesh", mesh, !as_is);
}

void run_png(std::span<const std::uint8_t> input) {
  const auto path = input_folder().write("input.png", input);
  const TexelImage image = readPng(path);
  const bool valid = image.width >= 1 && image.width <= 16384 && image.height >= 1 &&
                     image.height <= 16384 && image.channels >= 1 && image.channels <= 4 &&
                     (image.type == ComponentType::kU8 || image.type == ComponentType::kU16) &&
                     image.data.size() == image.expected_bytes();
  if (!valid) {
    broken("png", "the image read does not match its own size and type");
  }
}

void run_exr(std::span<const std::uint8_t> input) {
  const auto path = input_folder().write("input.exr", input);
  const TexelImage image = read_exr(path);
  const bool valid = image.width >= 1 && image.width <= kMaxImageSide && image.height >= 1 &&
                     image.height <= kMaxImageSide && image.channels >= 1 && image.channels <= 4 &&
                     (image.type == ComponentType::kF16 || image.type == ComponentType::kF32) &&
                     image.data.size() == image.expected_bytes();
  if (!valid) {
    broken("exr", "the image read does not match its own size and type");
  }
}

std::uint32_t header_field(std::span<const std::uint8_t> input, std::size_t offset) {
  std::uint32_t value = 0;
  std::memcpy(&value, input.data() + offset, 4);
  return value;
}

// An image read from a texel file must be the file: its header's size, type
// and channels, every byte after the header, and written back the same bytes.
void check_kvt_image(const TexelImage& image, std::span<const std::uint8_t> input) {
  const bool valid =
      input.size() >= kKvtHeaderBytes && image.width >= 1 && image.width <= kKvtMaxSide &&
      image.height >= 1 && image.height <= kKvtMaxSide && image.channels >= 1 &&
      image.channels <= kKvtMaxChannels && component_bytes(image.type) != 0 &&
      header_field(input, 12) == static_cast<std::uint32_t>(image.type) &&
      header_field(input, 16) == static_cast<std::uint32_t>(image.width) &&
      header_field(input, 20) == static_cast<std::uint32_t>(image.height) &&
      header_field(input, 24) == static_cast<std::uint32_t>(image.channels) &&
      image.data.size() == image.expected_bytes() &&
      input.size() == kKvtHeaderBytes + image.data.size() &&
      std::equal(image.data.begin(), image.data.end(), input.begin() + kKvtHeaderBytes);
  if (!valid) {
    broken("kvt", "the image read does not match the file's header and texels");
  }
  std::vector<std::uint8_t> written(kvt_file_bytes(image));
  write_kvt_into(written, image);
  if (!std::equal(written.begin(), written.end(), input.begin(), input.end())) {
    broken("kvt", "the image written back differs from the file read");
  }
}

// The file and the in-memory form (a shared-memory section) must give the
// same image or the same first refusal.
void run_kvt(std::span<const std::uint8_t> input) {
  const auto path = input_folder().write("input.kvt", input);
  TexelImage from_file, from_memory;
  std::string file_error, memory_error;
  try {
    from_file = read_kvt(path);
  } catch (const Error& e) {
    file_error = e.what();
  }
  try {
    from_memory = parse_kvt(input);
  } catch (const Error& e) {
    memory_error = e.what();
  }
  if (file_error != memory_error) {
    broken("kvt", "the file and the section disagree: '" + file_error + "' against '" +
                      memory_error + "'");
  }
  if (!file_error.empty()) {
    throw Error(file_error);
  }
  check_kvt_image(from_file, input);
  check_kvt_image(from_memory, input);
}

// Arguments are the input cut at zero bytes; the first byte's lowest bit
// picks the command line (argv[0] added) or the service's settings mode.
void run_bake_options(std::span<const std::uint8_t> input) {
  if (input.empty()) {
    return;
  }
  const bool settings = (input[0] & 1) != 0;
  std::vector<std::string> args;
  if (!settings) {
    args.emplace_back("korvane");
  }
  std::string current;
  for (std::size_t i = 1; i < input.size(); ++i) {
    if (input[i] == 0) {
      args.push_back(current);
      current.clear();
    } else {
      current.push_back(static_cast<char>(input[i]));
    }
  }
  args.push_back(current);
  const NormalBakeSettings s =
      settings ? pipeline::parseBakeSettings(args) : pipeline::parseBakeOptions(args);
  if (s.help) {
    return;
  }
  const bool valid =
      s.dilation >= 0 && s.dilation <= 256 && s.uv_snap_bits >= -1 && s.uv_snap_bits <= 16 &&
      s.threads >= 0 &&
      (s.uv_tile == 0 || (s.uv_tile >= 1001 && s.uv_tile <= 1999 && s.udim == s.uv_tile)) &&
      (settings || (!s.low.empty() && !s.high.empty() && !s.out_normal.empty()));
  if (!valid) {
    broken("bake_options", "settings were accepted outside their ranges");
  }
}

}  // namespace

const std::vector<std::string>& target_names() {
  static const std::vector<std::string> names = {"obj",          "kvm",       "gltf",   "glb",
                                                 "fbx",          "read_mesh", "png",    "exr",
                                                 "bake_options", "kvt",       "request"};
  return names;
}

Outcome run_target(std::string_view target, std::span<const std::uint8_t> input) {
  Outcome outcome;
  try {
    if (target == "obj") {
      run_obj(input);
    } else if (target == "kvm") {
      run_kvm(input);
    } else if (target == "gltf") {
      run_gltf("gltf", "input.gltf", input);
    } else if (target == "glb") {
      run_gltf("glb", "input.glb", input);
    } else if (target == "fbx") {
      run_fbx(input);
    } else if (target == "read_mesh") {
      run_read_mesh(input);
    } else if (target == "png") {
      run_png(input);
    } else if (target == "exr") {
      run_exr(input);
    } else if (target == "bake_options") {
      run_bake_options(input);
    } else if (target == "kvt") {
      run_kvt(input);
    } else if (target == "request") {
      if (std::optional<std::string> error = run_request(input)) {
        outcome.refused = true;
        outcome.message = *error;
      }
    } else {
      throw std::invalid_argument("no fuzz target named " + std::string(target));
    }
  } catch (const Error& e) {
    outcome.refused = true;
    outcome.message = e.what();
  } catch (const pipeline::UsageError& e) {
    outcome.refused = true;
    outcome.message = e.what();
  }
  return outcome;
}

}  // namespace kv::fuzz
