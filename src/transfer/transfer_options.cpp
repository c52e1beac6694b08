#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <string_view>
#include <unordered_map>

#include "core/error.h"
#include "core/parse_number.h"
#include "run/option_values.h"
#include "transfer/texture_io.h"
#include "transfer/transfer_settings.h"

namespace kv::transfer {
namespace {

using pipeline::checked_path_text;
using pipeline::read_bool_value;
using pipeline::read_float_value;
using pipeline::read_int_value;
using pipeline::read_path_value;
using pipeline::throw_invalid_value;
using pipeline::UsageError;

// A texture or output place: a path, or a well-formed shared-memory form.
std::string read_place(std::string_view value) {
  std::string text = checked_path_text(value);
  parse_shm_form(text);  // throws on a malformed form
  return text;
}

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

std::vector<double> read_values(std::string_view option, std::string_view value) {
  std::vector<double> values;
  std::size_t start = 0;
  for (;;) {
    const std::size_t comma = value.find(',', start);
    const std::string_view piece = value.substr(
        start, comma == std::string_view::npos ? std::string_view::npos : comma - start);
    if (values.size() == 4) {
      throw UsageError(std::string(option) + " takes at most 4 values");
    }
    const auto parsed = parse_float64(piece);
    if (!parsed) {
      throw_invalid_value(option, piece);
    }
    values.push_back(*parsed);
    if (comma == std::string_view::npos) {
      return values;
    }
    start = comma + 1;
  }
}

std::vector<std::string> split_names(std::string_view value) {
  std::vector<std::string> names;
  std::size_t start = 0;
  for (;;) {
    const std::size_t comma = value.find(',', start);
    names.emplace_back(value.substr(
        start, comma == std::string_view::npos ? std::string_view::npos : comma - start));
    if (comma == std::string_view::npos) {
      return names;
    }
    start = comma + 1;
  }
}

// What the parser keeps between options: the textures waiting for their
// --out, and whether the last output can still take its own options.
struct ParseState {
  TransferSettings settings;
  std::vector<TextureRequest> pending;
  bool height_given = false;
  bool size_given = false;
  bool mode_given = false;
};

TextureRequest& last_texture(ParseState& p, std::string_view option) {
  if (p.pending.empty()) {
    throw UsageError(std::string(option) + " needs a --texture before it");
  }
  return p.pending.back();
}

OutputRequest& last_output(ParseState& p, std::string_view option) {
  if (p.settings.outputs.empty() || !p.pending.empty()) {
    throw UsageError(std::string(option) + " needs an --out right after its textures");
  }
  return p.settings.outputs.back();
}

SourceTile read_source_tile(std::string_view value) {
  const std::size_t equals = value.find('=');
  if (equals == std::string_view::npos || equals + 1 == value.size()) {
    throw UsageError("--source-tile takes tile=path, not '" + std::string(value) + "'");
  }
  SourceTile tile;
  tile.tile = read_int_value("--source-tile", value.substr(0, equals));
  tile.where = read_place(value.substr(equals + 1));
  return tile;
}

using Reader = std::function<void(ParseState&, std::string_view, std::string_view)>;

void add_output_options(std::unordered_map<std::string_view, Reader>& t) {
  t["--texture"] = [](ParseState& p, std::string_view, std::string_view v) {
    p.pending.push_back(TextureRequest{read_place(v), {}, {}, {}});
  };
  t["--bind"] = [](ParseState& p, std::string_view o, std::string_view v) {
    for (std::string& name : split_names(v)) {
      last_texture(p, o).bind_objects.push_back(std::move(name));
    }
  };
  t["--bind-object"] = [](ParseState& p, std::string_view o, std::string_view v) {
    last_texture(p, o).bind_objects.emplace_back(v);
  };
  t["--bind-material"] = [](ParseState& p, std::string_view o, std::string_view v) {
    last_texture(p, o).bind_materials.emplace_back(v);
  };
  t["--source-tile"] = [](ParseState& p, std::string_view o, std::string_view v) {
    TextureRequest& texture = last_texture(p, o);
    texture.tiles.push_back(read_source_tile(v));
  };
  t["--out"] = [](ParseState& p, std::string_view, std::string_view v) {
    if (p.pending.empty()) {
      throw UsageError("--out needs at least one --texture before it");
    }
    OutputRequest out;
    out.where = read_place(v);
    out.textures = std::move(p.pending);
    p.pending.clear();
    p.settings.outputs.push_back(std::move(out));
  };
  t["--out-mask"] = [](ParseState& p, std::string_view o, std::string_view v) {
    last_output(p, o).mask = read_place(v);
  };
  t["--out-srgb"] = [](ParseState& p, std::string_view o, std::string_view v) {
    last_output(p, o).srgb = read_bool_value(o, v);
  };
  t["--out-padding-color"] = [](ParseState& p, std::string_view o, std::string_view v) {
    last_output(p, o).padding_color = read_values(o, v);
  };
}

void add_mesh_options(std::unordered_map<std::string_view, Reader>& t) {
  t["--mode"] = [](ParseState& p, std::string_view, std::string_view v) {
    static constexpr std::array<std::string_view, 2> words = {"uv2uv", "m2m"};
    p.settings.mode = static_cast<TransferMode>(read_word(v, words, "--mode takes uv2uv or m2m"));
    p.mode_given = true;
  };
  t["--target"] = [](ParseState& p, std::string_view, std::string_view v) {
    p.settings.target = read_path_value(v);
  };
  t["--source-uvs"] = [](ParseState& p, std::string_view, std::string_view v) {
    p.settings.source_uvs = read_path_value(v);
  };
  t["--high"] = [](ParseState& p, std::string_view, std::string_view v) {
    p.settings.high = read_path_value(v);
  };
  t["--size"] = [](ParseState& p, std::string_view o, std::string_view v) {
    p.settings.width = read_int_value(o, v);
    p.size_given = true;
  };
  t["--height"] = [](ParseState& p, std::string_view o, std::string_view v) {
    p.settings.height = read_int_value(o, v);
    p.height_given = true;
  };
  t["--dump-hits"] = [](ParseState& p, std::string_view, std::string_view v) {
    p.settings.dump_hits = read_path_value(v);
  };
  t["--report"] = [](ParseState& p, std::string_view, std::string_view v) {
    p.settings.report = read_path_value(v);
  };
  t["--raster-material"] = [](ParseState& p, std::string_view, std::string_view v) {
    p.settings.raster_materials.emplace_back(v);
  };
  t["--raster-object"] = [](ParseState& p, std::string_view, std::string_view v) {
    p.settings.raster_objects.emplace_back(v);
  };
  t["--low-suffix"] = [](ParseState& p, std::string_view, std::string_view v) {
    p.settings.low_suffix = std::string(v);
  };
  t["--high-suffix"] = [](ParseState& p, std::string_view, std::string_view v) {
    p.settings.high_suffix = std::string(v);
  };
}

void add_sampling_options(std::unordered_map<std::string_view, Reader>& t) {
  t["--aa"] = [](ParseState& p, std::string_view o, std::string_view v) {
    p.settings.aa = read_int_value(o, v);
  };
  t["--filter"] = [](ParseState& p, std::string_view, std::string_view v) {
    static constexpr std::array<std::string_view, 2> words = {"nearest", "bilinear"};
    p.settings.filter =
        static_cast<SampleFilter>(read_word(v, words, "--filter takes nearest or bilinear"));
  };
  t["--address"] = [](ParseState& p, std::string_view, std::string_view v) {
    static constexpr std::array<std::string_view, 3> words = {"repeat", "clamp", "window"};
    p.settings.address =
        static_cast<AddressMode>(read_word(v, words, "--address takes repeat, clamp or window"));
  };
  t["--weights"] = [](ParseState& p, std::string_view, std::string_view v) {
    static constexpr std::array<std::string_view, 2> words = {"gpu8", "exact"};
    p.settings.weights =
        static_cast<BilinearWeights>(read_word(v, words, "--weights takes gpu8 or exact"));
  };
  t["--snap"] = [](ParseState& p, std::string_view o, std::string_view v) {
    p.settings.snap_bits = v == "off" ? -1 : read_int_value(o, v);
  };
  t["--udim"] = [](ParseState& p, std::string_view o, std::string_view v) {
    p.settings.udim = read_int_value(o, v);
  };
  t["--threads"] = [](ParseState& p, std::string_view o, std::string_view v) {
    const std::int32_t value = read_int_value(o, v);
    if (value < 0) {
      throw UsageError("--threads takes 0 or more");
    }
    p.settings.threads = value;
  };
  t["--backend"] = [](ParseState& p, std::string_view, std::string_view v) {
    static constexpr std::array<std::string_view, 3> words = {"auto", "gpu", "cpu"};
    p.settings.backend =
        std::string(words[read_word(v, words, "--backend takes auto, gpu or cpu")]);
  };
}

void add_padding_and_ray_options(std::unordered_map<std::string_view, Reader>& t) {
  t["--dilation"] = [](ParseState& p, std::string_view o, std::string_view v) {
    const std::int32_t value = read_int_value(o, v);
    if (static_cast<std::uint32_t>(value) > 256u) {
      throw UsageError("--dilation takes 0 to 256");
    }
    p.settings.dilation = value;
  };
  t["--padding"] = [](ParseState& p, std::string_view, std::string_view v) {
    static constexpr std::array<std::string_view, 6> words = {
        "ring", "passthrough", "infinite", "transparent", "color", "diffusion"};
    p.settings.padding = static_cast<PaddingMode>(read_word(
        v, words, "--padding takes ring, passthrough, infinite, transparent, color or diffusion"));
  };
  t["--padding-color"] = [](ParseState& p, std::string_view o, std::string_view v) {
    p.settings.padding_color = read_values(o, v);
  };
  t["--front"] = [](ParseState& p, std::string_view o, std::string_view v) {
    p.settings.front = read_float_value(o, v);
  };
  t["--rear"] = [](ParseState& p, std::string_view o, std::string_view v) {
    p.settings.rear = read_float_value(o, v);
  };
  t["--relative-scale"] = [](ParseState& p, std::string_view o, std::string_view v) {
    p.settings.relative_scale = read_bool_value(o, v);
  };
  t["--average-normals"] = [](ParseState& p, std::string_view o, std::string_view v) {
    p.settings.average_normals = read_bool_value(o, v);
  };
  t["--ignore-backface"] = [](ParseState& p, std::string_view o, std::string_view v) {
    p.settings.ignore_backface = read_bool_value(o, v);
  };
  t["--match"] = [](ParseState& p, std::string_view, std::string_view v) {
    static constexpr std::array<std::string_view, 3> words = {"always", "name", "objects"};
    p.settings.match =
        static_cast<MatchMode>(read_word(v, words, "--match takes always, name or objects"));
  };
}

const std::unordered_map<std::string_view, Reader>& option_table() {
  static const std::unordered_map<std::string_view, Reader> table = [] {
    std::unordered_map<std::string_view, Reader> t;
    add_output_options(t);
    add_mesh_options(t);
    add_sampling_options(t);
    add_padding_and_ray_options(t);
    return t;
  }();
  return table;
}

// The rules over the whole command line, once every option is read.
void apply_final_rules(ParseState& p) {
  TransferSettings& s = p.settings;
  if (!p.pending.empty()) {
    throw UsageError("every --texture needs an --out after it");
  }
  if (!p.mode_given || s.target.empty() || !p.size_given || s.outputs.empty()) {
    throw UsageError(
        "transfer needs --mode, --target, --size and at least one --texture and --out");
  }
  if (s.mode == TransferMode::uv2uv) {
    if (s.source_uvs.empty()) {
      throw UsageError("--mode uv2uv needs --source-uvs");
    }
    if (!s.high.empty()) {
      throw UsageError("--high is for --mode m2m; uv2uv reads --source-uvs");
    }
    if (!s.dump_hits.empty()) {
      throw UsageError("--dump-hits is for --mode m2m");
    }
  } else {
    if (s.high.empty()) {
      throw UsageError("--mode m2m needs --high");
    }
    if (!s.source_uvs.empty()) {
      throw UsageError("--source-uvs is for --mode uv2uv; m2m reads --high");
    }
  }
  if (!p.height_given) {
    s.height = s.width;
  }
}

// Options that name the meshes or files of the command line itself; the
// service gives those as fields of its own.
bool is_command_line_only(std::string_view option) {
  static constexpr std::array<std::string_view, 6> options = {"--target", "--source-uvs", "--high",
                                                              "--report", "--help",       "-h"};
  return std::find(options.begin(), options.end(), option) != options.end();
}

// The options of a texture and output group.
bool is_output_option(std::string_view option) {
  static constexpr std::array<std::string_view, 9> options = {
      "--texture", "--bind",     "--bind-object", "--bind-material",    "--source-tile",
      "--out",     "--out-mask", "--out-srgb",    "--out-padding-color"};
  return std::find(options.begin(), options.end(), option) != options.end();
}

// Reads option and value pairs from `start` on; `allow` throws for an option
// the list may not hold. True when --help ended the list.
bool read_options(ParseState& p, const std::vector<std::string>& list, std::size_t start,
                  const std::function<void(std::string_view)>& allow) {
  for (std::size_t i = start; i < list.size(); i += 2) {
    const std::string& option = list[i];
    allow(option);
    if (option == "--help" || option == "-h") {
      p.settings.help = true;
      return true;
    }
    if (option.size() < 2 || option.compare(0, 2, "--") != 0) {
      throw UsageError("unexpected argument '" + option + "'");
    }
    const auto& table = option_table();
    const auto found = table.find(option);
    if (found == table.end()) {
      throw UsageError("unknown option " + option);
    }
    if (i + 1 >= list.size()) {
      throw UsageError("missing value for " + option);
    }
    found->second(p, option, list[i + 1]);
  }
  return false;
}

}  // namespace

TransferSettings parse_transfer_options(const std::vector<std::string>& args) {
  ParseState p;
  if (read_options(p, args, 2, [](std::string_view) {})) {
    return p.settings;
  }
  apply_final_rules(p);
  return p.settings;
}

TransferSettings parse_transfer_settings(const std::vector<std::string>& settings,
                                         const std::vector<std::string>& outputs,
                                         bool* outputs_failed) {
  ParseState p;
  *outputs_failed = false;
  read_options(p, settings, 0, [](std::string_view option) {
    if (is_command_line_only(option)) {
      throw UsageError(std::string(option) + " is not a setting");
    }
    if (is_output_option(option)) {
      throw UsageError(std::string(option) + " belongs in outputs");
    }
  });
  if (!p.mode_given || !p.size_given) {
    throw UsageError("settings need --mode and --size");
  }
  if (!p.settings.dump_hits.empty() && p.settings.mode != TransferMode::m2m) {
    throw UsageError("--dump-hits is for --mode m2m");
  }
  *outputs_failed = true;
  read_options(p, outputs, 0, [](std::string_view option) {
    if (is_command_line_only(option)) {
      throw UsageError(std::string(option) + " is not a setting");
    }
    if (!is_output_option(option)) {
      throw UsageError(std::string(option) + " belongs in settings");
    }
  });
  if (!p.pending.empty()) {
    throw UsageError("every --texture needs an --out after it");
  }
  if (p.settings.outputs.empty()) {
    throw UsageError("outputs need at least one --texture and --out");
  }
  *outputs_failed = false;
  if (!p.height_given) {
    p.settings.height = p.settings.width;
  }
  return p.settings;
}

void check_transfer_settings(const TransferSettings& s) {
  if (s.width < 1 || s.width > 16384 || s.height < 1 || s.height > 16384) {
    throw Error("transfer: the output size must be 1 to 16384 texels per side");
  }
  if (s.aa != 1 && s.aa != 2 && s.aa != 4 && s.aa != 8) {
    throw Error("transfer: anti-aliasing must be 1, 2, 4 or 8");
  }
  if (s.snap_bits < -1 || s.snap_bits > 16) {
    throw Error("transfer: snap bits must be off (-1) or 0 to 16");
  }
  if (s.udim < 1001 || s.udim > 1999) {
    throw Error("transfer: the UDIM tile must be 1001 to 1999");
  }
  for (const OutputRequest& out : s.outputs) {
    for (const TextureRequest& texture : out.textures) {
      for (std::size_t i = 0; i < texture.tiles.size(); ++i) {
        const std::int32_t tile = texture.tiles[i].tile;
        if (tile < 1001 || tile > 1999) {
          throw Error("transfer: a source tile must be 1001 to 1999");
        }
        for (std::size_t j = 0; j < i; ++j) {
          if (texture.tiles[j].tile == tile) {
            throw Error("transfer: source tile " + std::to_string(tile) + " is given twice");
          }
        }
      }
    }
  }
  if (s.mode == TransferMode::m2m &&
      (!std::isfinite(s.front) || !std::isfinite(s.rear) || s.front < 0.0f || s.rear < 0.0f)) {
    throw Error("transfer: ray distances must be finite and not negative");
  }
}

const char* mode_word(TransferMode mode) {
  return mode == TransferMode::m2m ? "m2m" : "uv2uv";
}

const char* filter_word(SampleFilter filter) {
  return filter == SampleFilter::nearest ? "nearest" : "bilinear";
}

const char* address_word(AddressMode address) {
  switch (address) {
    case AddressMode::clamp:
      return "clamp";
    case AddressMode::window:
      return "window";
    case AddressMode::repeat:
      break;
  }
  return "repeat";
}

const char* weights_word(BilinearWeights weights) {
  return weights == BilinearWeights::exact ? "exact" : "gpu8";
}

}  // namespace kv::transfer
