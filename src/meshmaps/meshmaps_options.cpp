#include "meshmaps/meshmaps_options.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <deque>
#include <string_view>
#include <unordered_map>

#include "core/error.h"
#include "core/parse_number.h"
#include "core/utf8.h"

namespace kv::meshmaps {
namespace {

using pipeline::UsageError;

std::int32_t read_int(std::string_view option, std::string_view value) {
  const auto parsed = parse_int32(value);
  if (!parsed) {
    throw UsageError(std::string(option) + " needs an integer");
  }
  return *parsed;
}

float read_number(std::string_view option, std::string_view value) {
  const auto parsed = parse_float32(value);
  if (!parsed || !std::isfinite(*parsed)) {
    throw UsageError(std::string(option) + " needs a number");
  }
  return *parsed;
}

std::filesystem::path read_path(std::string_view value) {
  if (value.find('\0') != std::string_view::npos) {
    throw UsageError("a path holds a NUL character");
  }
  if (!is_valid_utf8(value)) {
    throw UsageError("a path is not valid UTF-8");
  }
  return std::filesystem::path(std::u8string(value.begin(), value.end()));
}

// Index of value among words; otherwise "<option> takes a, b or c".
template <std::size_t N>
std::size_t read_word(std::string_view option, std::string_view value,
                      const std::array<std::string_view, N>& words) {
  for (std::size_t i = 0; i < N; ++i) {
    if (value == words[i]) {
      return i;
    }
  }
  std::string message = std::string(option) + " takes ";
  for (std::size_t i = 0; i < N; ++i) {
    if (i > 0) {
      message += i + 1 == N ? " or " : ", ";
    }
    message += words[i];
  }
  throw UsageError(message);
}

float read_ranged(std::string_view option, std::string_view value, float low, float high,
                  std::string_view range) {
  const float v = read_number(option, value);
  if (!(v >= low && v <= high)) {
    throw UsageError(std::string(option) + " takes " + std::string(range));
  }
  return v;
}

using Reader = std::function<void(MeshMapsSettings&, std::string_view, std::string_view)>;
using Table = std::unordered_map<std::string_view, Reader>;
using Flag = std::function<void(MeshMapsSettings&)>;

// The map outputs: option, map name, settings field.
struct Output {
  std::string_view option;
  std::string_view map;
  std::filesystem::path MapOutputs::*field;
};
constexpr std::array<Output, 10> outputs = {{
    {"--out-opacity", "opacity", &MapOutputs::opacity},
    {"--out-ao", "ao", &MapOutputs::ao},
    {"--out-thickness", "thickness", &MapOutputs::thickness},
    {"--out-curvature", "curvature", &MapOutputs::curvature},
    {"--out-height", "height", &MapOutputs::height},
    {"--out-raw", "raw", &MapOutputs::raw},
    {"--out-world-normal", "world_normal", &MapOutputs::world_normal},
    {"--out-position", "position", &MapOutputs::position},
    {"--out-id", "id", &MapOutputs::id},
    {"--out-bent-normals", "bent_normals", &MapOutputs::bent_normals},
}};

void add_output(MeshMapsSettings& s, const Output& o, std::filesystem::path path) {
  s.out.*o.field = std::move(path);
  if (std::find(s.map_order.begin(), s.map_order.end(), o.map) == s.map_order.end()) {
    s.map_order.emplace_back(o.map);
  }
}

void add_outputs(Table& t) {
  for (const Output& o : outputs) {
    t[o.option] = [o](MeshMapsSettings& s, std::string_view, std::string_view v) {
      add_output(s, o, read_path(v));
    };
  }
  t["--report"] = [](MeshMapsSettings& s, std::string_view, std::string_view v) {
    s.bake.report = read_path(v);
  };
  t["--cache-dir"] = [](MeshMapsSettings& s, std::string_view, std::string_view v) {
    s.bake.cache_dir = read_path(v);
  };
  t["--low"] = [](MeshMapsSettings& s, std::string_view, std::string_view v) {
    s.bake.low = read_path(v);
  };
  t["--high"] = [](MeshMapsSettings& s, std::string_view, std::string_view v) {
    s.bake.high = read_path(v);
  };
  t["--normal-map"] = [](MeshMapsSettings& s, std::string_view, std::string_view v) {
    s.normal_map = read_path(v);
  };
  t["--noise"] = [](MeshMapsSettings& s, std::string_view, std::string_view v) {
    s.noise = read_path(v);
  };
  t["--noise-x"] = [](MeshMapsSettings& s, std::string_view, std::string_view v) {
    s.noise_x = read_path(v);
  };
}

void add_primary(Table& t) {
  t["--size"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    s.bake.width = read_int(o, v);
  };
  t["--height-px"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    s.bake.height = read_int(o, v);
  };
  t["--antialias"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    static constexpr std::array<std::string_view, 4> words = {"1", "2", "4", "8"};
    s.bake.aa = 1 << read_word(o, v, words);
  };
  t["--front"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    s.bake.front = read_number(o, v);
  };
  t["--rear"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    s.bake.rear = read_number(o, v);
  };
  t["--threads"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    const std::int32_t n = read_int(o, v);
    if (n < 0) {
      throw UsageError("--threads takes 0 or more");
    }
    s.bake.threads = n;
  };
  t["--match"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    static constexpr std::array<std::string_view, 3> words = {"always", "name", "objects"};
    const std::size_t which = read_word(o, v, words);
    s.bake.match_by_name = which >= 1;
    s.bake.match_objects = which == 2;
  };
  t["--low-suffix"] = [](MeshMapsSettings& s, std::string_view, std::string_view v) {
    s.bake.low_suffix = std::string(v);
  };
  t["--high-suffix"] = [](MeshMapsSettings& s, std::string_view, std::string_view v) {
    s.bake.high_suffix = std::string(v);
  };
  t["--raster-material"] = [](MeshMapsSettings& s, std::string_view, std::string_view v) {
    s.bake.raster_materials.emplace_back(v);
  };
  t["--uv-tile"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    const std::int32_t n = read_int(o, v);
    if (n < 1001 || n > 1999) {
      throw UsageError("--uv-tile takes 1001 to 1999");
    }
    s.bake.uv_tile = n;
    s.bake.udim = n;
  };
  t["--dilation"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    const std::int32_t n = read_int(o, v);
    if (n < 0 || n > 256) {
      throw UsageError("--dilation takes 0 to 256");
    }
    s.bake.dilation = n;
  };
  t["--memory-budget-mb"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    const std::int32_t n = read_int(o, v);
    if (n < 0) {
      throw UsageError("--memory-budget-mb takes 0 (automatic) or more");
    }
    s.bake.memory_budget_mb = static_cast<std::uint64_t>(n);
    s.bake.memory_budget_given = true;
  };
  t["--normal-format"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    static constexpr std::array<std::string_view, 2> words = {"opengl", "directx"};
    s.bake.normal_format = static_cast<std::uint32_t>(read_word(o, v, words));
  };
  t["--tangent-space"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    static constexpr std::array<std::string_view, 2> words = {"per-fragment", "per-vertex"};
    s.bake.tangent_space = static_cast<std::uint32_t>(read_word(o, v, words));
  };
  t["--curvature-method"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    static constexpr std::array<std::string_view, 2> words = {"mesh", "normal-map"};
    s.curvature_method = static_cast<CurvatureMethod>(read_word(o, v, words));
  };
}

// The options every secondary-ray map has, under its prefix.
void add_ray_options(Table& t, const std::string& prefix, RaySettings MeshMapsSettings::*field,
                     bool with_distribution) {
  static std::deque<std::string> names;  // the table's keys point into these; never moved
  auto key = [&](const char* suffix) -> std::string_view {
    names.push_back(prefix + suffix);
    return names.back();
  };
  t[key("-rays")] = [field](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    (s.*field).rays = read_int(o, v);
  };
  t[key("-min")] = [field](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    (s.*field).min = read_number(o, v);
  };
  t[key("-max")] = [field](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    (s.*field).max = read_number(o, v);
  };
  t[key("-spread")] = [field](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    (s.*field).spread = read_ranged(o, v, 0.0f, 180.0f, "0 to 180");
  };
  if (with_distribution) {
    t[key("-distribution")] = [field](MeshMapsSettings& s, std::string_view o, std::string_view v) {
      static constexpr std::array<std::string_view, 2> words = {"uniform", "cosine"};
      (s.*field).distribution = static_cast<Distribution>(read_word(o, v, words));
    };
  }
  t[key("-self-occlusion")] = [field](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    static constexpr std::array<std::string_view, 2> words = {"always", "same-name"};
    (s.*field).self = static_cast<SelfOcclusion>(read_word(o, v, words));
  };
}

void add_map_options(Table& t) {
  add_ray_options(t, "--ao", &MeshMapsSettings::ao, true);
  add_ray_options(t, "--bent", &MeshMapsSettings::bent, true);
  add_ray_options(t, "--thickness", &MeshMapsSettings::thickness, true);
  t["--ao-attenuation"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    static constexpr std::array<std::string_view, 3> words = {"none", "smooth", "linear"};
    s.ao_attenuation = static_cast<Attenuation>(read_word(o, v, words));
  };
  t["--ao-ground-plane"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    static constexpr std::array<std::string_view, 2> words = {"on", "off"};
    s.ao_ground_plane = read_word(o, v, words) == 0;
  };
  t["--ao-ground-offset"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    s.ao_ground_offset = read_number(o, v);
  };
  t["--thickness-range"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    static constexpr std::array<std::string_view, 3> words = {"ray", "minmax", "none"};
    s.thickness_range = static_cast<ThicknessRange>(read_word(o, v, words));
  };
  t["--curvature-rays"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    s.curvature.rays = read_int(o, v);
  };
  t["--curvature-radius"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    s.curvature.max = read_number(o, v);
  };
  t["--curvature-range"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    static constexpr std::array<std::string_view, 2> words = {"auto", "manual"};
    s.curvature_range = static_cast<CurvatureRange>(read_word(o, v, words));
  };
  t["--curvature-min"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    s.curvature_min = read_number(o, v);
  };
  t["--curvature-max"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    s.curvature_max = read_number(o, v);
  };
  t["--curvature-self-intersection"] = [](MeshMapsSettings& s, std::string_view o,
                                          std::string_view v) {
    static constexpr std::array<std::string_view, 2> words = {"always", "same-name"};
    s.curvature.self = static_cast<SelfOcclusion>(read_word(o, v, words));
  };
  t["--curvature-multiplier"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    s.curvature_multiplier = read_number(o, v);
  };
  t["--height-range"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    static constexpr std::array<std::string_view, 4> words = {"ray", "lowmesh", "minmax", "manual"};
    s.height_range = static_cast<HeightRange>(read_word(o, v, words));
  };
  t["--height-divisor"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    s.height_divisor = read_number(o, v);
  };
}

void add_look_options(Table& t) {
  t["--world-normal-up"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    static constexpr std::array<std::string_view, 2> words = {"z", "y"};
    s.world_normal_up = read_word(o, v, words) == 0 ? 2 : 1;
  };
  t["--position-mode"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    static constexpr std::array<std::string_view, 4> words = {"all", "x", "y", "z"};
    s.position_mode = static_cast<PositionMode>(read_word(o, v, words));
  };
  t["--position-normalization"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    static constexpr std::array<std::string_view, 2> words = {"bsphere", "bbox"};
    s.position_normalization = static_cast<PositionNormalization>(read_word(o, v, words));
  };
  t["--id-source"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    // The reference application's names map onto ours; the message lists ours.
    if (v == "vertex") {
      s.id_source = IdSource::vertex_color;
    } else if (v == "mesh-id") {
      s.id_source = IdSource::polygroup;
    } else if (v == "submesh") {
      s.id_source = IdSource::object;
    } else {
      static constexpr std::array<std::string_view, 5> words = {"object", "polygroup", "material",
                                                                "mesh-island", "vertex-color"};
      s.id_source = static_cast<IdSource>(read_word(o, v, words));
    }
  };
  t["--id-generator"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    static constexpr std::array<std::string_view, 3> words = {"random", "hue", "gray"};
    s.id_generator = static_cast<IdGenerator>(read_word(o, v, words));
  };
  t["--id-seed"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    const auto parsed = parse_uint64(v);
    if (!parsed) {
      throw UsageError(std::string(o) + " needs an integer");
    }
    if (*parsed > 0xFFFFFFFFull) {
      throw UsageError(std::string(o) + " takes 0 to 4294967295");
    }
    s.id_seed = static_cast<std::uint32_t>(*parsed);
  };
}

void add_gpu_options(Table& t) {
  t["--backend"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    static constexpr std::array<std::string_view, 2> words = {"cpu", "gpu"};
    s.bake.backend = std::string(words[read_word(o, v, words)]);
  };
  t["--gpu-failure-policy"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    static constexpr std::array<std::string_view, 3> words = {"fallback", "fail-fast",
                                                              "retry-then-fail"};
    s.gpu_failure_policy = static_cast<GpuFailurePolicy>(read_word(o, v, words));
  };
  t["--gpu-wait-limit-ms"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    const std::int32_t n = read_int(o, v);
    if (n < 0) {
      throw UsageError("--gpu-wait-limit-ms takes 0 (none) or more");
    }
    s.gpu_wait_limit_ms = n;
  };
  t["--gpu-batch-ms"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    s.gpu_batch_ms = read_ranged(o, v, 0.5f, 1000.0f, "0.5 to 1000");
  };
  t["--gpu-batch-pause-ms"] = [](MeshMapsSettings& s, std::string_view o, std::string_view v) {
    s.gpu_batch_pause_ms = read_ranged(o, v, 0.0f, 100.0f, "0 to 100");
  };
}

const Table& option_table() {
  static const Table table = [] {
    Table t;
    add_outputs(t);
    add_primary(t);
    add_map_options(t);
    add_look_options(t);
    add_gpu_options(t);
    return t;
  }();
  return table;
}

const std::unordered_map<std::string_view, Flag>& flag_table() {
  static const std::unordered_map<std::string_view, Flag> table = {
      {"--low-as-high", [](MeshMapsSettings& s) { s.low_as_high = true; }},
      {"--absolute-distances", [](MeshMapsSettings& s) { s.bake.relative_scale = false; }},
      {"--no-average-normals", [](MeshMapsSettings& s) { s.bake.average_normals = false; }},
      {"--keep-backface", [](MeshMapsSettings& s) { s.bake.ignore_backface = false; }},
      {"--ao-absolute", [](MeshMapsSettings& s) { s.ao.absolute = true; }},
      {"--bent-absolute", [](MeshMapsSettings& s) { s.bent.absolute = true; }},
      {"--thickness-absolute", [](MeshMapsSettings& s) { s.thickness.absolute = true; }},
      {"--curvature-absolute", [](MeshMapsSettings& s) { s.curvature.absolute = true; }},
      {"--gpu-primary", [](MeshMapsSettings& s) { s.gpu_primary = true; }},
      {"--gpu-exact", [](MeshMapsSettings& s) { s.gpu_exact = true; }},
      {"--gpu-compact", [](MeshMapsSettings& s) { s.gpu_compact = true; }},
      {"--gpu-resident", [](MeshMapsSettings& s) { s.gpu_resident = true; }},
      {"--no-gpu-resident", [](MeshMapsSettings& s) { s.no_gpu_resident = true; }},
      {"--gpu-resident-check", [](MeshMapsSettings& s) { s.gpu_resident_check = true; }},
  };
  return table;
}

MeshMapsSettings default_settings() {
  MeshMapsSettings s;
  s.bake.dilation = 0;
  s.thickness.max = 0.1f;
  s.curvature.rays = 32;
  s.curvature.max = 0.001f;
  return s;
}


// Options that name the meshes, the outputs or the run's own files: the
// service gives those in fields of their own.
bool is_command_line_only(const std::string& option) {
  static constexpr std::array<std::string_view, 7> options = {
      "--low", "--high", "--low-as-high", "--report", "--cache-dir", "--help", "-h"};
  return option.rfind("--out-", 0) == 0 ||
         std::find(options.begin(), options.end(), option) != options.end();
}

struct Parsed {
  MeshMapsSettings s = default_settings();
  bool size_given = false;
  bool height_given = false;
};

Parsed parse_list(const std::vector<std::string>& args, std::size_t start, bool settings_mode) {
  Parsed parsed;
  MeshMapsSettings& s = parsed.s;
  for (std::size_t i = start; i < args.size(); ++i) {
    const std::string& option = args[i];
    if (settings_mode && is_command_line_only(option)) {
      throw UsageError(option + " is not a setting");
    }
    if (option == "--help" || option == "-h") {
      s.help = true;
      return parsed;
    }
    const auto flag = flag_table().find(option);
    if (flag != flag_table().end()) {
      flag->second(s);
      continue;
    }
    if (option.size() < 2 || option.compare(0, 2, "--") != 0) {
      throw UsageError("unexpected argument '" + option + "'");
    }
    const auto found = option_table().find(option);
    if (found == option_table().end()) {
      throw UsageError("unknown option " + option);
    }
    if (i + 1 >= args.size()) {
      throw UsageError(option + " needs a value");
    }
    found->second(s, option, args[i + 1]);
    parsed.size_given = parsed.size_given || option == "--size";
    parsed.height_given = parsed.height_given || option == "--height-px";
    ++i;
  }
  if (!parsed.height_given) {
    s.bake.height = s.bake.width;
  }
  return parsed;
}

}  // namespace

MeshMapsSettings parse_meshmaps_options(const std::vector<std::string>& args) {
  const Parsed parsed = parse_list(args, 2, false);
  const MeshMapsSettings& s = parsed.s;
  if (s.help) {
    return s;
  }
  if (s.bake.low.empty() || !parsed.size_given || (s.bake.high.empty() && !s.low_as_high)) {
    throw UsageError("meshmaps needs --low, --high (or --low-as-high) and --size");
  }
  if (s.low_as_high && !s.bake.high.empty()) {
    throw UsageError("--low-as-high bakes without --high");
  }
  if (s.map_order.empty()) {
    throw UsageError("meshmaps needs at least one output");
  }
  if (!s.out.raw.empty() && s.out.raw.extension() != ".exr") {
    throw UsageError("--out-raw writes float channels: it needs an .exr path");
  }
  return s;
}

MeshMapsSettings parse_meshmaps_settings(const std::vector<std::string>& settings) {
  const Parsed parsed = parse_list(settings, 0, true);
  if (!parsed.size_given) {
    throw UsageError("settings need --size");
  }
  return parsed.s;
}

bool set_map_output(MeshMapsSettings& s, const std::string& map,
                    const std::filesystem::path& path) {
  for (const Output& o : outputs) {
    if (o.map == map && map != "raw") {
      add_output(s, o, path);
      return true;
    }
  }
  return false;
}

namespace {

void check_rays(const RaySettings& r, const char* map, const char* distance) {
  if (r.rays < 1 || r.rays > 1000) {
    throw Error(std::string("meshmaps: the ") + map + " ray count must be 1 to 1000");
  }
  if (!(r.min >= 0.0f) || !(r.max > 0.0f)) {
    throw Error(std::string("meshmaps: the ") + distance + " must be positive");
  }
}

}  // namespace

void check_meshmaps_settings(const MeshMapsSettings& s) {
  if (s.bake.width > 65536 || s.bake.height > 65536) {
    throw Error("meshmaps: at most 65536 texels per side");
  }
  check_rays(s.ao, "ambient occlusion", "occlusion distance");
  check_rays(s.bent, "bent normals", "bent normals distance");
  check_rays(s.thickness, "thickness", "thickness distance");
  if (s.curvature.rays < 1 || s.curvature.rays > 1000) {
    throw Error("meshmaps: the curvature ray count must be 1 to 1000");
  }
  if (!(s.curvature.max > 0.0f)) {
    throw Error("meshmaps: the curvature radius must be positive");
  }
  if (s.curvature_range == CurvatureRange::manual && !(s.curvature_min < s.curvature_max)) {
    throw Error("meshmaps: --curvature-min must be below --curvature-max");
  }
  if (!(s.height_divisor > 0.0f)) {
    throw Error("meshmaps: --height-divisor must be positive");
  }
  if (s.curvature_method == CurvatureMethod::normal_map && s.normal_map.empty()) {
    throw Error("meshmaps: --curvature-method normal-map needs --normal-map");
  }
  if (!(s.bake.front >= 0.0f) || !(s.bake.rear >= 0.0f)) {
    throw Error("ray distances must be finite and not negative");
  }
}

MeshMapsEnvironment read_meshmaps_environment(const EnvReader& get) {
  MeshMapsEnvironment env;
  if (const auto v = get("KV_MESHMAPS_BUDGET_POLICY")) {
    if (*v != "1" && *v != "2") {
      throw Error("KV_MESHMAPS_BUDGET_POLICY must be 1 or 2");
    }
    env.budget_policy = *v == "1" ? 1 : 2;
  }
  if (const auto v = get("KV_EMBREE_BUILD")) {
    // "compact", "+threads" or both, in that order.
    static constexpr std::array<std::string_view, 3> forms = {"compact", "+threads",
                                                              "compact+threads"};
    const auto at = std::find(forms.begin(), forms.end(), std::string_view(*v));
    if (at == forms.end()) {
      throw Error("cannot read KV_EMBREE_BUILD");
    }
    env.embree_compact = at != forms.begin() + 1;
    env.embree_threads = at != forms.begin();
  }
  if (const auto v = get("KV_MESHMAPS_GPU_GROUP")) {
    if (*v != "32" && *v != "64" && *v != "128") {
      throw Error("KV_MESHMAPS_GPU_GROUP must be 32, 64 or 128");
    }
    env.gpu_group = std::stoi(*v);
  }
  if (const auto v = get("KV_EXP_LAH")) {
    if (*v != "perturbed" && *v != "weighted") {
      throw Error("KV_EXP_LAH must be perturbed or weighted");
    }
    env.low_as_high_experiment = *v;
  }
  return env;
}

}  // namespace kv::meshmaps
