#include "run/bake_options.h"

#include <array>
#include <cmath>
#include <functional>
#include <string_view>
#include <unordered_map>

#include "core/error.h"
#include "core/parse_number.h"
#include "run/option_values.h"

namespace kv::pipeline {
namespace {

enum class Mode { command_line, settings };

struct Given {
  bool size = false;
  bool height = false;
  bool udim = false;
};

// Index of value among words, or throws the option's own message.
template <std::size_t N>
std::size_t read_word(std::string_view value, const std::array<std::string_view, N>& words,
                      const char* message) {
  for (std::size_t i = 0; i < N; ++i) {
    if (value == words[i]) {
      return i;
    }
  }
  throw UsageError(message);
}

void read_padding_color(std::string_view option, std::string_view value,
                        std::array<double, 3>& color) {
  std::size_t stored = 0;
  std::size_t start = 0;
  for (;;) {
    const std::size_t comma = value.find(',', start);
    std::string_view piece = value.substr(
        start, comma == std::string_view::npos ? std::string_view::npos : comma - start);
    if (stored == 3) {
      throw UsageError("--padding-color takes at most 3 values");
    }
    const auto parsed = parse_float64(piece);  // skips one leading "+" itself
    if (!parsed) {
      throw_invalid_value(option, piece);
    }
    color[stored++] = *parsed;
    if (comma == std::string_view::npos) {
      break;
    }
    start = comma + 1;
  }
}

using OptionReader =
    std::function<void(NormalBakeSettings&, Given&, std::string_view, std::string_view)>;

const std::unordered_map<std::string_view, OptionReader>& option_table() {
  static const std::unordered_map<std::string_view, OptionReader> table = [] {
    std::unordered_map<std::string_view, OptionReader> t;
    auto path_option = [&](std::string_view name,
                           std::filesystem::path NormalBakeSettings::*field) {
      t[name] = [field](NormalBakeSettings& s, Given&, std::string_view, std::string_view v) {
        s.*field = read_path_value(v);
      };
    };
    path_option("--low", &NormalBakeSettings::low);
    path_option("--high", &NormalBakeSettings::high);
    path_option("--out-normal", &NormalBakeSettings::out_normal);
    path_option("--out-opacity", &NormalBakeSettings::out_opacity);
    path_option("--report", &NormalBakeSettings::report);
    path_option("--cache-dir", &NormalBakeSettings::cache_dir);
    path_option("--preview", &NormalBakeSettings::preview);

    t["--size"] = [](NormalBakeSettings& s, Given& g, std::string_view o, std::string_view v) {
      s.width = read_int_value(o, v);
      g.size = true;
    };
    t["--height"] = [](NormalBakeSettings& s, Given& g, std::string_view o, std::string_view v) {
      s.height = read_int_value(o, v);
      g.height = true;
    };
    t["--udim"] = [](NormalBakeSettings& s, Given& g, std::string_view o, std::string_view v) {
      s.udim = read_int_value(o, v);
      g.udim = true;
    };
    t["--aa"] = [](NormalBakeSettings& s, Given&, std::string_view o, std::string_view v) {
      s.aa = read_int_value(o, v);
    };
    t["--front"] = [](NormalBakeSettings& s, Given&, std::string_view o, std::string_view v) {
      s.front = read_float_value(o, v);
    };
    t["--rear"] = [](NormalBakeSettings& s, Given&, std::string_view o, std::string_view v) {
      s.rear = read_float_value(o, v);
    };

    auto bool_option = [&](std::string_view name, bool NormalBakeSettings::*field) {
      t[name] = [field](NormalBakeSettings& s, Given&, std::string_view o, std::string_view v) {
        s.*field = read_bool_value(o, v);
      };
    };
    bool_option("--relative-scale", &NormalBakeSettings::relative_scale);
    bool_option("--average-normals", &NormalBakeSettings::average_normals);
    bool_option("--ignore-backface", &NormalBakeSettings::ignore_backface);
    bool_option("--progress", &NormalBakeSettings::progress);

    t["--dilation"] = [](NormalBakeSettings& s, Given&, std::string_view o, std::string_view v) {
      const std::int32_t value = read_int_value(o, v);
      if (static_cast<std::uint32_t>(value) > 256u) {
        throw UsageError("--dilation takes 0 to 256");
      }
      s.dilation = value;
    };
    t["--padding"] = [](NormalBakeSettings& s, Given&, std::string_view, std::string_view v) {
      static constexpr std::array<std::string_view, 6> words = {
          "ring", "passthrough", "infinite", "transparent", "color", "diffusion"};
      s.padding = static_cast<PaddingMode>(read_word(
          v, words,
          "--padding takes ring, passthrough, infinite, transparent, color or diffusion"));
    };
    t["--padding-color"] = [](NormalBakeSettings& s, Given&, std::string_view o,
                              std::string_view v) { read_padding_color(o, v, s.padding_color); };
    t["--normal-format"] = [](NormalBakeSettings& s, Given&, std::string_view, std::string_view v) {
      static constexpr std::array<std::string_view, 2> words = {"opengl", "directx"};
      s.normal_format = static_cast<std::uint32_t>(
          read_word(v, words, "--normal-format takes opengl or directx"));
    };
    t["--tangent-space"] = [](NormalBakeSettings& s, Given&, std::string_view, std::string_view v) {
      static constexpr std::array<std::string_view, 2> words = {"per-fragment", "per-vertex"};
      s.tangent_space = static_cast<std::uint32_t>(
          read_word(v, words, "--tangent-space takes per-fragment or per-vertex"));
    };
    t["--match"] = [](NormalBakeSettings& s, Given&, std::string_view, std::string_view v) {
      static constexpr std::array<std::string_view, 3> words = {"always", "name", "objects"};
      const std::size_t which = read_word(v, words, "--match takes always, name or objects");
      s.match_by_name = which >= 1;
      s.match_objects = which == 2;
    };
    t["--low-suffix"] = [](NormalBakeSettings& s, Given&, std::string_view, std::string_view v) {
      s.low_suffix = std::string(v);
    };
    t["--high-suffix"] = [](NormalBakeSettings& s, Given&, std::string_view, std::string_view v) {
      s.high_suffix = std::string(v);
    };
    t["--raster-material"] = [](NormalBakeSettings& s, Given&, std::string_view,
                                std::string_view v) { s.raster_materials.emplace_back(v); };
    t["--uv-tile"] = [](NormalBakeSettings& s, Given&, std::string_view o, std::string_view v) {
      const std::int32_t value = read_int_value(o, v);
      if (value < 1001 || value > 1999) {
        throw UsageError("--uv-tile takes 1001 to 1999");
      }
      s.uv_tile = value;
    };
    t["--quads"] = [](NormalBakeSettings& s, Given&, std::string_view, std::string_view v) {
      static constexpr std::array<std::string_view, 2> words = {"split", "reject"};
      s.quads = static_cast<std::uint32_t>(read_word(v, words, "--quads takes split or reject"));
    };
    t["--threads"] = [](NormalBakeSettings& s, Given&, std::string_view o, std::string_view v) {
      const std::int32_t value = read_int_value(o, v);
      if (value < 0) {
        throw UsageError("--threads takes 0 or more");
      }
      s.threads = value;
    };
    t["--backend"] = [](NormalBakeSettings& s, Given&, std::string_view, std::string_view v) {
      static constexpr std::array<std::string_view, 3> words = {"auto", "gpu", "cpu"};
      s.backend = std::string(words[read_word(v, words, "--backend takes auto, gpu or cpu")]);
    };
    t["--gpu-pipeline"] = [](NormalBakeSettings& s, Given&, std::string_view, std::string_view v) {
      static constexpr std::array<std::string_view, 2> words = {"batched", "resident"};
      s.gpu_pipeline =
          std::string(words[read_word(v, words, "--gpu-pipeline takes batched or resident")]);
      s.gpu_pipeline_given = true;
    };
    t["--gpu-precision"] = [](NormalBakeSettings& s, Given&, std::string_view, std::string_view v) {
      static constexpr std::array<std::string_view, 3> words = {"exact", "fp32-resolve", "fp32"};
      s.gpu_precision = std::string(
          words[read_word(v, words, "--gpu-precision takes exact, fp32-resolve or fp32")]);
      s.gpu_precision_given = true;
    };
    t["--gpu-band-pause-ms"] = [](NormalBakeSettings& s, Given&, std::string_view o,
                                  std::string_view v) {
      const float value = read_float_value(o, v);
      if (!(value >= 0.0f && value <= 100.0f)) {
        throw UsageError("--gpu-band-pause-ms takes 0 to 100");
      }
      s.gpu_band_pause_ms = value;
    };
    t["--gpu-band-growth"] = [](NormalBakeSettings& s, Given&, std::string_view o,
                                std::string_view v) {
      const float value = read_float_value(o, v);
      if (!(value >= 0.0f && value <= 64.0f) || std::floor(value) != value) {
        throw UsageError("--gpu-band-growth takes a whole number 0 to 64");
      }
      s.gpu_band_growth = static_cast<std::int32_t>(value);
    };
    t["--gpu-band-ms"] = [](NormalBakeSettings& s, Given&, std::string_view o, std::string_view v) {
      const float value = read_float_value(o, v);
      if (!(value >= 0.5f && value <= 1000.0f)) {
        throw UsageError("--gpu-band-ms takes 0.5 to 1000");
      }
      s.gpu_band_ms = value;
    };
    t["--uv-snap-bits"] = [](NormalBakeSettings& s, Given&, std::string_view o,
                             std::string_view v) {
      if (v == "off") {
        s.uv_snap_bits = -1;
        return;
      }
      const std::int32_t value = read_int_value(o, v);
      if (static_cast<std::uint32_t>(value) > 16u) {
        throw UsageError("--uv-snap-bits takes 0 to 16 or off");
      }
      s.uv_snap_bits = value;
    };
    t["--uv-snap-unit"] = [](NormalBakeSettings& s, Given&, std::string_view, std::string_view v) {
      static constexpr std::array<std::string_view, 2> words = {"sample", "texel"};
      s.uv_snap_texel = read_word(v, words, "--uv-snap-unit takes sample or texel") == 1;
    };
    t["--memory-budget-mb"] = [](NormalBakeSettings& s, Given&, std::string_view o,
                                 std::string_view v) {
      const std::int32_t value = read_int_value(o, v);
      if (value < 0) {
        throw UsageError("--memory-budget-mb takes 0 (automatic) or more");
      }
      s.memory_budget_mb = static_cast<std::uint64_t>(value);
      s.memory_budget_given = true;
    };
    t["--preview-size"] = [](NormalBakeSettings& s, Given&, std::string_view o,
                             std::string_view v) {
      const std::int32_t value = read_int_value(o, v);
      if (value < 1 || value > 16384) {
        throw UsageError("--preview-size takes 1 to 16384");
      }
      s.preview_size = value;
    };
    return t;
  }();
  return table;
}

bool is_command_line_only(std::string_view option) {
  static constexpr std::array<std::string_view, 12> options = {
      "--low",     "--high",         "--out-normal", "--out-opacity", "--report", "--progress",
      "--preview", "--preview-size", "--quads",      "--cache-dir",   "--help",   "-h"};
  for (auto o : options) {
    if (option == o) {
      return true;
    }
  }
  return false;
}

NormalBakeSettings parse(const std::vector<std::string>& list, std::size_t start, Mode mode) {
  NormalBakeSettings settings;
  Given given;
  for (std::size_t i = start; i < list.size(); i += 2) {
    const std::string& option = list[i];
    if (mode == Mode::settings && is_command_line_only(option)) {
      throw UsageError(option + " is not a setting");
    }
    if (option == "--help" || option == "-h") {
      settings.help = true;
      return settings;  // no further element and no final rule
    }
    if (option.size() < 2 || option.compare(0, 2, "--") != 0) {
      throw UsageError("unexpected argument '" + option + "'");
    }
    if (i + 1 >= list.size()) {
      throw UsageError("missing value for " + option);
    }
    const auto& table = option_table();
    const auto found = table.find(option);
    if (found == table.end()) {
      throw UsageError("unknown option " + option);
    }
    found->second(settings, given, option, list[i + 1]);
  }

  if (mode == Mode::command_line) {
    if (settings.low.empty() || settings.high.empty() || settings.out_normal.empty() ||
        !given.size) {
      throw UsageError("--low, --high, --size and --out-normal are required");
    }
  } else if (!given.size) {
    throw UsageError("settings need --size");
  }
  if (!given.height) {
    settings.height = settings.width;
  }
  if (settings.uv_tile != 0) {
    if (given.udim && settings.udim != settings.uv_tile) {
      throw UsageError("--uv-tile and --udim name different tiles");
    }
    settings.udim = settings.uv_tile;
  }
  if (settings.gpu_pipeline_given && settings.gpu_pipeline == "resident" &&
      settings.backend == "cpu") {
    throw UsageError("--gpu-pipeline resident needs --backend gpu or auto");
  }
  if (settings.gpu_precision_given && settings.gpu_precision != "exact" &&
      settings.gpu_pipeline != "resident") {
    throw UsageError("--gpu-precision fp32-resolve and fp32 need --gpu-pipeline resident");
  }
  return settings;
}

}  // namespace

NormalBakeSettings parseBakeOptions(const std::vector<std::string>& args) {
  return parse(args, 1, Mode::command_line);
}

NormalBakeSettings parseBakeSettings(const std::vector<std::string>& settings) {
  return parse(settings, 0, Mode::settings);
}

}  // namespace kv::pipeline
