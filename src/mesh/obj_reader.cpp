#include "mesh/obj_reader.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <unordered_map>

#include <emmintrin.h>

#include "core/error.h"
#include "core/large_array.h"
#include "core/parallel.h"
#include "core/parse_number.h"
#include "mesh/array_memory.h"
#include "platform/platform.h"

namespace kv {

namespace {

constexpr std::uint64_t kMaxElements = 2147483647;
constexpr std::size_t kMaxNameBytes = 65536;

// ---- tokens ------------------------------------------------------------------

inline bool is_space(char c) {
  return c == ' ' || c == '\t' || c == '\v' || c == '\f' || c == '\r';
}

inline const char* skip_space(const char* p, const char* end) {
  while (p < end && is_space(*p)) {
    ++p;
  }
  return p;
}

inline const char* token_end(const char* p, const char* end) {
  while (p < end && !is_space(*p)) {
    ++p;
  }
  return p;
}

// Next token of a line, or none at the end of the line or at a token that
// begins a comment.
inline bool next_token(const char*& p, const char* end, std::string_view& token) {
  p = skip_space(p, end);
  if (p == end || *p == '#') {
    return false;
  }
  const char* begin = p;
  p = token_end(p, end);
  token = std::string_view(begin, static_cast<std::size_t>(p - begin));
  return true;
}

// The rest of a line as a name: trimmed at both ends, cut before a token
// that begins a comment.
std::string_view rest_as_name(const char* p, const char* end) {
  const char* first = nullptr;
  const char* last = nullptr;
  std::string_view token;
  while (next_token(p, end, token)) {
    if (first == nullptr) {
      first = token.data();
    }
    last = token.data() + token.size();
  }
  if (first == nullptr) {
    return {};
  }
  return std::string_view(first, static_cast<std::size_t>(last - first));
}

std::size_t count_tokens(const char* p, const char* end) {
  std::size_t count = 0;
  std::string_view token;
  while (next_token(p, end, token)) {
    ++count;
  }
  return count;
}

enum class Keyword : std::uint8_t {
  other,
  v,
  vt,
  vn,
  f,
  o,
  g,
  l,
  usemtl,
  mtllib,
};

// Reads the keyword of a line; p is left behind it.
inline Keyword read_keyword(const char*& p, const char* end) {
  p = skip_space(p, end);
  // The common keywords, without scanning for the token's end.
  if (end - p >= 3 && is_space(p[1])) {
    switch (p[0]) {
      case 'v':
        ++p;
        return Keyword::v;
      case 'f':
        ++p;
        return Keyword::f;
      default:
        break;
    }
  } else if (end - p >= 4 && p[0] == 'v' && is_space(p[2])) {
    if (p[1] == 't') {
      p += 2;
      return Keyword::vt;
    }
    if (p[1] == 'n') {
      p += 2;
      return Keyword::vn;
    }
  }
  const char* begin = p;
  p = token_end(p, end);
  const std::size_t length = static_cast<std::size_t>(p - begin);
  if (length == 1) {
    switch (begin[0]) {
      case 'v':
        return Keyword::v;
      case 'f':
        return Keyword::f;
      case 'o':
        return Keyword::o;
      case 'g':
        return Keyword::g;
      case 'l':
        return Keyword::l;
      default:
        return Keyword::other;
    }
  }
  if (length == 2 && begin[0] == 'v') {
    if (begin[1] == 't') {
      return Keyword::vt;
    }
    if (begin[1] == 'n') {
      return Keyword::vn;
    }
    return Keyword::other;
  }
  if (length == 6) {
    const std::string_view word(begin, 6);
    if (word == "usemtl") {
      return Keyword::usemtl;
    }
    if (word == "mtllib") {
      return Keyword::mtllib;
    }
  }
  return Keyword::other;
}

// ---- numbers -----------------------------------------------------------------

constexpr double kPow10[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                             1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

constexpr std::uint64_t kPow10Int[] = {1,      10,      100,      1000,     10000,
                                       100000, 1000000, 10000000, 100000000};

// The decimal digits at the start of 8 bytes (the first byte lowest): how
// many there are (0 to 8) and their value, a few operations for all eight.
inline unsigned digit_run8(const char* p, std::uint64_t& value) {
  std::uint64_t bytes = 0;
  std::memcpy(&bytes, p, 8);
  const std::uint64_t t = bytes ^ 0x3030303030303030ULL;  // digits become 0..9
  // High bit of every byte that is not a digit; carries only run towards
  // later bytes, so the first non-digit is found exactly.
  const std::uint64_t non_digit = ((t + 0x7676767676767676ULL) | t) & 0x8080808080808080ULL;
  const unsigned n = non_digit == 0 ? 8u : static_cast<unsigned>(std::countr_zero(non_digit)) / 8;
  if (n == 0) {
    value = 0;
    return 0;
  }
  // Move the n digits to the top bytes: the bytes below read as leading zeros.
  std::uint64_t d = t << (8 * (8 - n));
  d = (d * 10) + (d >> 8);
  d = (((d & 0x000000FF000000FFULL) * (100 + (1000000ULL << 32))) +
       (((d >> 16) & 0x000000FF000000FFULL) * (1 + (10000ULL << 32)))) >>
      32;
  value = d;
  return n;
}

// Reads a run of decimal digits into mantissa * 10^count + run; `limit` is
// how far bytes may be read (the end of the whole text).
inline const char* read_digits(const char* p, const char* end, const char* limit,
                               std::uint64_t& mantissa, std::ptrdiff_t& count) {
  while (limit - p >= 8) {
    std::uint64_t run = 0;
    const unsigned n = digit_run8(p, run);
    mantissa = mantissa * kPow10Int[n] + run;
    count += n;
    p += n;
    if (n < 8 || count > 19) {
      return p;
    }
  }
  while (p < end && static_cast<unsigned>(*p - '0') < 10) {
    mantissa = mantissa * 10 + static_cast<unsigned>(*p - '0');
    ++count;
    ++p;
  }
  return p;
}

// Decimal m * 10^e with m below 2^53 and |e| at most 22: one correctly
// rounded operation on exact operands, so the double is correctly rounded.
// Reads such a number from p on and returns where it stops, or nullptr when
// the text there is not of that plain shape (the general parser decides).
inline const char* parse_plain_decimal(const char* p, const char* end, const char* limit,
                                       double& out) {
  bool negative = false;
  if (p < end && *p == '-') {
    negative = true;
    ++p;
  }
  std::uint64_t mantissa = 0;
  int exponent = 0;
  std::ptrdiff_t digit_count = 0;
  p = read_digits(p, end, limit, mantissa, digit_count);
  if (p < end && *p == '.' && digit_count <= 19) {
    const std::ptrdiff_t whole = digit_count;
    p = read_digits(p + 1, end, limit, mantissa, digit_count);
    exponent = -static_cast<int>(digit_count - whole);
  }
  // More than 19 digits may have wrapped the mantissa; such rare texts
  // (long leading zeros included) go to the general parser.
  if (digit_count == 0 || digit_count > 19) {
    return nullptr;
  }
  if (p < end && (*p == 'e' || *p == 'E')) {
    ++p;
    bool exponent_negative = false;
    if (p < end && (*p == '-' || *p == '+')) {
      exponent_negative = *p == '-';
      ++p;
    }
    const char* exponent_digits = p;
    int written = 0;
    while (p < end && static_cast<unsigned>(*p - '0') < 10) {
      if (written < 10000) {
        written = written * 10 + (*p - '0');
      }
      ++p;
    }
    if (p == exponent_digits) {
      return nullptr;
    }
    exponent += exponent_negative ? -written : written;
  }
  if (mantissa == 0) {
    out = negative ? -0.0 : 0.0;
    return p;
  }
  if (mantissa > (std::uint64_t{1} << 53) || exponent < -22 || exponent > 22) {
    return nullptr;
  }
  double value = static_cast<double>(mantissa);
  value = exponent < 0 ? value / kPow10[-exponent] : value * kPow10[exponent];
  out = negative ? -value : value;
  return p;
}

// The correctly rounded double of a decimal rounds to its correctly rounded
// float unless it sits exactly on a midpoint between two floats (then the
// decimal may lie on either side), or float's subnormal or overflow range is
// involved; those cases return false.
inline bool narrow_exactly(double wide, float& out) {
  if (wide == 0.0) {
    out = static_cast<float>(wide);
    return true;
  }
  const double magnitude = std::fabs(wide);
  const std::uint64_t bits = std::bit_cast<std::uint64_t>(wide);
  constexpr std::uint64_t kLowBits = (std::uint64_t{1} << 29) - 1;
  if (magnitude >= 1.1754943508222875e-38 && magnitude <= 3.4028234663852886e38 &&
      (bits & kLowBits) != (std::uint64_t{1} << 28)) {
    out = static_cast<float>(wide);
    return true;
  }
  return false;
}

inline bool plain_value(double wide, double& out) {
  out = wide;
  return true;
}
inline bool plain_value(double wide, float& out) {
  return narrow_exactly(wide, out);
}

template <typename T>
bool parse_general(const char* p, const char* end, T& out) {
  T value{};
  const auto [stop, ec] = std::from_chars(p, end, value, std::chars_format::general);
  if (stop != end) {
    return false;
  }
  if (ec == std::errc::result_out_of_range) {
    // Overflow is refused, underflow rounds to a signed zero.
    std::optional<T> wide;
    if constexpr (std::is_same_v<T, float>) {
      wide = parse_float32(std::string_view(p, static_cast<std::size_t>(end - p)));
    } else {
      wide = parse_float64(std::string_view(p, static_cast<std::size_t>(end - p)));
    }
    if (!wide) {
      return false;
    }
    value = *wide;
  } else if (ec != std::errc()) {
    return false;
  }
  if (!std::isfinite(value)) {
    return false;
  }
  out = value;
  return true;
}

// One component token: an optional "+", then the general floating format,
// consumed whole, finite, correctly rounded.
template <typename T>
bool parse_component(std::string_view token, T& out) {
  const char* p = token.data();
  const char* end = p + token.size();
  if (*p == '+') {
    ++p;
  }
  if (p == end || *p == '+') {
    return false;
  }
  double wide = 0.0;
  if (parse_plain_decimal(p, end, end, wide) == end && plain_value(wide, out)) {
    return true;
  }
  return parse_general(p, end, out);
}

// ---- chunks --------------------------------------------------------------------

std::vector<std::uint64_t> chunk_starts(std::string_view text, int threads, std::uint64_t floor) {
  const std::uint64_t size = text.size();
  const std::uint64_t t = threads > 0 ? static_cast<std::uint64_t>(threads) : 1;
  const std::uint64_t target = size / (4 * t);
  const std::uint64_t reach = std::max(target, floor > 0 ? floor - 1 : 0);
  std::vector<std::uint64_t> starts;
  std::uint64_t begin = 0;
  do {
    starts.push_back(begin);
    const std::uint64_t search = begin + reach;
    std::uint64_t end = size;
    if (search < size && search + 1 < size) {
      const void* found = std::memchr(text.data() + search, '\n', size - search);
      if (found != nullptr) {
        end = static_cast<std::uint64_t>(static_cast<const char*>(found) - text.data()) + 1;
      }
    }
    begin = end;
  } while (begin < size);
  return starts;
}

struct Block {
  std::string_view name;
  bool from_g = false;
};

// What the pre-pass finds in one chunk.
struct ChunkCounts {
  std::uint64_t positions = 0;
  std::uint64_t uvs = 0;
  std::uint64_t normals = 0;
  std::uint64_t triangles = 0;
  std::uint64_t quads = 0;
  std::uint64_t polygons = 0;
  std::uint64_t polygon_corners = 0;
  std::uint64_t lines = 0;
  bool face_before_block = false;     // a face before the chunk's first o/g
  bool face_before_material = false;  // a face before the chunk's first usemtl
  std::vector<Block> blocks;
  std::vector<std::string_view> materials;  // usemtl names in order
  std::vector<std::string_view> libraries;  // mtllib names in order
};

// Where one chunk writes in the joined mesh and what it starts with.
struct ChunkPlan {
  std::uint64_t position = 0;
  std::uint64_t uv = 0;
  std::uint64_t normal = 0;
  std::uint64_t triangle = 0;
  std::uint64_t triangle_end = 0;  // the next chunk's first triangle
  std::uint64_t polygon = 0;
  std::uint64_t block = 0;     // first entry in block_objects
  std::uint64_t material = 0;  // first entry in usemtl_materials
  std::uint32_t start_object = 0;
  std::uint32_t start_material = 0;
  bool has_object = false;
};

// The first "\n" in [p, end), or end. Lines are short, so sixteen bytes are
// tested at a time inline rather than through a library call per line.
inline const char* find_newline(const char* p, const char* end) {
  const __m128i newline = _mm_set1_epi8('\n');
  while (end - p >= 16) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    const auto hits = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, newline)));
    if (hits != 0) {
      return p + std::countr_zero(hits);
    }
    p += 16;
  }
  const void* found = std::memchr(p, '\n', static_cast<std::size_t>(end - p));
  return found != nullptr ? static_cast<const char*>(found) : end;
}

template <typename F>
void for_each_line(const char* begin, const char* end, F&& fn) {
  const char* p = begin;
  while (p < end) {
    const char* line_end = find_newline(p, end);
    fn(p, line_end);
    p = line_end + 1;
  }
}

// Set bits of a 16-bit mask (without relying on a popcount instruction).
inline unsigned bits16(unsigned x) {
  x = x - ((x >> 1) & 0x5555u);
  x = (x & 0x3333u) + ((x >> 2) & 0x3333u);
  x = (x + (x >> 4)) & 0x0F0Fu;
  return (x + (x >> 8)) & 0x1Fu;
}

// Corners of a face line: tokens up to the line's end or a comment token.
// The line holds no "\n"; sixteen bytes are classified at a time.
inline std::uint64_t count_corners(const char* p, const char* line_end) {
  std::uint64_t count = 0;
  unsigned previous_in_token = 0;
  const __m128i space = _mm_set1_epi8(' ');
  const __m128i below_tab = _mm_set1_epi8(8);
  const __m128i above_cr = _mm_set1_epi8(14);
  const __m128i hash = _mm_set1_epi8('#');
  while (line_end - p >= 16) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    // Whitespace: 0x20, or 0x09..0x0D (0x0A cannot occur inside a line).
    const __m128i is_white = _mm_or_si128(
        _mm_cmpeq_epi8(bytes, space),
        _mm_and_si128(_mm_cmpgt_epi8(bytes, below_tab), _mm_cmplt_epi8(bytes, above_cr)));
    const unsigned in_token = ~static_cast<unsigned>(_mm_movemask_epi8(is_white)) & 0xFFFFu;
    const unsigned starts = in_token & ~((in_token << 1) | previous_in_token);
    const unsigned comment =
        starts & static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, hash)));
    if (comment != 0) {
      // Tokens that start before the first comment token count.
      return count + bits16(starts & ((comment & -comment) - 1));
    }
    count += bits16(starts);
    previous_in_token = in_token >> 15;
    p += 16;
  }
  bool in_token = previous_in_token != 0;
  for (; p < line_end; ++p) {
    const bool white = is_space(*p);
    if (!white && !in_token) {
      if (*p == '#') {
        break;
      }
      ++count;
    }
    in_token = !white;
  }
  return count;
}

ChunkCounts count_chunk(const char* begin, const char* end) {
  ChunkCounts counts;
  const char* p = begin;
  while (p < end) {
    const char* line_end = find_newline(p, end);
    switch (read_keyword(p, line_end)) {
      case Keyword::v:
        ++counts.positions;
        break;
      case Keyword::vt:
        ++counts.uvs;
        break;
      case Keyword::vn:
        ++counts.normals;
        break;
      case Keyword::f: {
        const std::uint64_t corners = count_corners(p, line_end);
        if (counts.blocks.empty()) {
          counts.face_before_block = true;
        }
        if (counts.materials.empty()) {
          counts.face_before_material = true;
        }
        if (corners >= 3) {
          counts.triangles += corners - 2;
          counts.quads += corners == 4 ? 1 : 0;
          if (corners >= 5) {
            ++counts.polygons;
            counts.polygon_corners += corners;
          }
        }
        break;
      }
      case Keyword::o:
      case Keyword::g: {
        const bool from_g = p[-1] == 'g';
        counts.blocks.push_back(Block{rest_as_name(p, line_end), from_g});
        break;
      }
      case Keyword::usemtl:
        counts.materials.push_back(rest_as_name(p, line_end));
        break;
      case Keyword::mtllib: {
        std::string_view token;
        while (next_token(p, line_end, token)) {
          counts.libraries.push_back(token);
        }
        break;
      }
      case Keyword::l:
        ++counts.lines;
        break;
      case Keyword::other:
        break;
    }
    p = line_end + 1;
  }
  return counts;
}

// Names found in, or added to, a table in order of first appearance.
class NameTable {
 public:
  explicit NameTable(std::vector<std::string>& names) : names_(names) {}
  std::uint32_t find_or_add(std::string_view name, bool* added = nullptr) {
    const auto found = index_.find(name);
    if (found != index_.end()) {
      if (added != nullptr) {
        *added = false;
      }
      return found->second;
    }
    const auto index = static_cast<std::uint32_t>(names_.size());
    names_.emplace_back(name);
    index_.emplace(name, index);
    if (added != nullptr) {
      *added = true;
    }
    return index;
  }

 private:
  std::vector<std::string>& names_;
  // Keys view the file's text or string literals, which outlive the table.
  std::unordered_map<std::string_view, std::uint32_t> index_;
};

// Everything the parse pass of one chunk writes into.
struct ParseTargets {
  Mesh* mesh = nullptr;
  // Per chunk: the vertex colours it read, by global position index.
  std::vector<std::vector<std::pair<std::uint64_t, std::array<float, 3>>>>* colors = nullptr;
  std::vector<PolygonRecord>* polygons = nullptr;
  const std::vector<std::uint32_t>* block_objects = nullptr;
  const std::vector<std::uint32_t>* usemtl_materials = nullptr;
  FacePolicy policy;
  std::string prefix;              // "path: "
  const char* text_end = nullptr;  // bytes may be read up to here
};

class ChunkParser {
 public:
  ChunkParser(const ParseTargets& targets, const ChunkPlan& plan, std::size_t chunk)
      : t_(targets),
        chunk_(chunk),
        positions_(plan.position),
        uvs_(plan.uv),
        normals_(plan.normal),
        triangles_(plan.triangle),
        triangle_end_(plan.triangle_end),
        polygons_(plan.polygon),
        block_(plan.block),
        material_event_(plan.material),
        object_(plan.start_object),
        has_object_(plan.has_object),
        material_(plan.start_material) {}

  void parse(const char* begin, const char* end) {
    for_each_line(begin, end, [&](const char* p, const char* line_end) {
      switch (read_keyword(p, line_end)) {
        case Keyword::v:
          vertex(p, line_end);
          break;
        case Keyword::vt:
          texture_coordinate(p, line_end);
          break;
        case Keyword::vn:
          normal(p, line_end);
          break;
        case Keyword::f:
          face(p, line_end);
          break;
        case Keyword::o:
        case Keyword::g:
          check_name(rest_as_name(p, line_end), "object");
          object_ = (*t_.block_objects)[block_++];
          has_object_ = true;
          break;
        case Keyword::usemtl:
          check_name(rest_as_name(p, line_end), "material");
          material_ = (*t_.usemtl_materials)[material_event_++];
          break;
        case Keyword::mtllib:
        case Keyword::l:
        case Keyword::other:
          break;
      }
    });
  }

 private:
  [[noreturn]] void fail(const std::string& message) const { throw Error(t_.prefix + message); }

  void check_name(std::string_view name, const char* what) const {
    if (name.size() > kMaxNameBytes) {
      fail(std::string(what) + " name is longer than 65536 bytes");
    }
  }

  template <typename T, std::size_t N>
  void components(const char*& p, const char* end, std::array<T, N>& out, std::size_t required,
                  const char* what) const {
    for (std::size_t i = 0; i < N; ++i) {
      p = skip_space(p, end);
      // Plain decimals are read in place; anything else goes through the
      // token rules.
      double wide = 0.0;
      const char* stop =
          p < end && *p != '+' ? parse_plain_decimal(p, end, t_.text_end, wide) : nullptr;
      if (stop != nullptr && (stop == end || is_space(*stop)) && plain_value(wide, out[i])) {
        p = stop;
        continue;
      }
      std::string_view token;
      if (!next_token(p, end, token)) {
        if (i < required) {
          fail(std::string("missing ") + what + " component");
        }
        return;
      }
      if (!parse_component(token, out[i])) {
        fail(std::string("invalid ") + what + " component '" + std::string(token) + "'");
      }
    }
  }

  void vertex(const char* p, const char* end) {
    std::array<float, 3> position{};
    components(p, end, position, 3, "vertex position");
    const std::uint64_t index = positions_++;
    t_.mesh->positions[index] = position;
    // Exactly six numbers after the keyword carry a colour.
    p = skip_space(p, end);
    if (p != end && *p != '#' && count_tokens(p, end) == 3) {
      std::array<float, 3> color{};
      components(p, end, color, 3, "vertex color");
      (*t_.colors)[chunk_].emplace_back(index, color);
    }
  }

  void texture_coordinate(const char* p, const char* end) {
    // u alone is enough (v is then 0); a third value (w) is ignored.
    std::array<double, 2> uv{0.0, 0.0};
    components(p, end, uv, 1, "texture coordinate");
    t_.mesh->uvs[uvs_++] = uv;
  }

  void normal(const char* p, const char* end) {
    std::array<float, 3> n{};
    components(p, end, n, 3, "normal");
    const float x2 = n[0] * n[0];
    const float y2 = n[1] * n[1];
    const float z2 = n[2] * n[2];
    const float length = std::sqrt((x2 + y2) + z2);
    if (!(length > 0.0f) || !std::isfinite(length)) {
      fail("zero-length normal");
    }
    const float inverse = 1.0f / length;
    t_.mesh->normals[normals_++] = {n[0] * inverse, n[1] * inverse, n[2] * inverse};
  }

  enum class Field : std::uint8_t { vertex, uv, normal };

  static const char* kind_name(Field field) {
    switch (field) {
      case Field::vertex:
        return "vertex";
      case Field::uv:
        return "texture coordinate";
      case Field::normal:
        return "normal";
    }
    return "";
  }

  // One index field of a corner, ending at '/' or the token's end. Returns
  // the resolved zero-based index.
  std::uint32_t index_field(const char*& p, const char* end, Field field,
                            std::string_view token) const {
    const char* q = p;
    if (q < end && *q == '+') {
      ++q;
    }
    bool negative = false;
    if (q < end && *q == '-') {
      negative = true;
      ++q;
    }
    std::int64_t value = 0;
    const char* digits = q;
    while (q < end && static_cast<unsigned>(*q - '0') < 10) {
      const int digit = *q - '0';
      if (value > (std::numeric_limits<std::int64_t>::max() - digit) / 10) {
        fail(std::string("invalid ") + kind_name(field) + " index '" + std::string(token) + "'");
      }
      value = value * 10 + digit;
      ++q;
    }
    const bool field_ends = q == end || (*q == '/' && field != Field::normal);
    if (q == digits || !field_ends || value == 0) {
      fail(std::string("invalid ") + kind_name(field) + " index '" + std::string(token) + "'");
    }
    p = q;
    std::uint64_t count = 0;
    switch (field) {
      case Field::vertex:
        count = positions_;
        break;
      case Field::uv:
        count = uvs_;
        break;
      case Field::normal:
        count = normals_;
        break;
    }
    // count is below 2^31, so the sums cannot wrap.
    const std::int64_t resolved = negative ? static_cast<std::int64_t>(count) - value : value - 1;
    if (resolved < 0 || static_cast<std::uint64_t>(resolved) >= count) {
      fail(std::string(kind_name(field)) + " index out of range: " + std::string(token));
    }
    return static_cast<std::uint32_t>(resolved);
  }

  Corner corner(std::string_view token) const {
    const char* p = token.data();
    const char* end = p + token.size();
    Corner c;
    c.position = index_field(p, end, Field::vertex, token);
    if (p == end) {
      return c;
    }
    ++p;  // '/'
    if (p < end && *p == '/') {
      ++p;
      c.normal = static_cast<std::int32_t>(index_field(p, end, Field::normal, token));
      return c;
    }
    c.uv = static_cast<std::int32_t>(index_field(p, end, Field::uv, token));
    if (p == end) {
      return c;
    }
    ++p;  // '/'
    c.normal = static_cast<std::int32_t>(index_field(p, end, Field::normal, token));
    return c;
  }

  // A positive index of at most 10 digits that resolves in range; false
  // for anything else, which the token rules then judge.
  bool plain_index(const char*& p, const char* end, std::uint64_t count, std::uint32_t& out) const {
    std::uint64_t value = 0;
    std::ptrdiff_t digits = 0;
    const char* q = read_digits(p, end, t_.text_end, value, digits);
    if (digits > 10 || value == 0 || value > count) {
      return false;
    }
    out = static_cast<std::uint32_t>(value - 1);
    p = q;
    return true;
  }

  // p, p/t, p//n or p/t/n with plain indices, ending at whitespace or the
  // end of the line.
  bool plain_corner(const char*& p, const char* end, Corner& c) const {
    const char* q = p;
    if (!plain_index(q, end, positions_, c.position)) {
      return false;
    }
    if (q < end && *q == '/') {
      ++q;
      if (q == end || is_space(*q)) {
        return false;
      }
      if (*q != '/') {
        std::uint32_t uv = 0;
        if (!plain_index(q, end, uvs_, uv)) {
          return false;
        }
        c.uv = static_cast<std::int32_t>(uv);
      }
      if (q < end && *q == '/') {
        ++q;
        std::uint32_t normal = 0;
        if (!plain_index(q, end, normals_, normal)) {
          return false;
        }
        c.normal = static_cast<std::int32_t>(normal);
      }
    }
    if (q != end && !is_space(*q)) {
      return false;
    }
    p = q;
    return true;
  }

  void face(const char* p, const char* end) {
    face_.clear();
    while (true) {
      p = skip_space(p, end);
      if (p == end || *p == '#') {
        break;
      }
      Corner c;
      if (!plain_corner(p, end, c)) {
        const char* begin = p;
        p = token_end(p, end);
        c = corner(std::string_view(begin, static_cast<std::size_t>(p - begin)));
      }
      face_.push_back(c);
    }
    const std::size_t n = face_.size();
    const bool refused = n < 3 || (n == 4 && t_.policy.quads == QuadPolicy::reject) ||
                         (n >= 5 && t_.policy.polygons == PolygonPolicy::reject);
    if (refused) {
      check_face(n, t_.policy, t_.prefix);
    }
    if (!has_object_) {
      fail("internal error: OBJ face without an object");
    }
    const std::size_t count = face_triangle_count(n);
    if (triangles_ + count > triangle_end_) {
      fail("internal error: OBJ face count differs between passes");
    }
    Triangle* out = t_.mesh->triangles.data() + triangles_;
    std::uint32_t* materials = t_.mesh->triangle_materials.data() + triangles_;
    for (std::size_t i = 0; i < count; ++i) {
      const LocalTriangle local = face_triangle(n, i);
      out[i].corners = {face_[local[0]], face_[local[1]], face_[local[2]]};
      out[i].object = object_;
      materials[i] = material_;
    }
    if (n >= 5) {
      (*t_.polygons)[polygons_++] = PolygonRecord{triangles_, static_cast<std::uint32_t>(n)};
    }
    triangles_ += count;
  }

  const ParseTargets& t_;
  std::size_t chunk_;
  std::uint64_t positions_;
  std::uint64_t uvs_;
  std::uint64_t normals_;
  std::uint64_t triangles_;
  std::uint64_t triangle_end_;
  std::uint64_t polygons_;
  std::uint64_t block_;
  std::uint64_t material_event_;
  std::uint32_t object_;
  bool has_object_;
  std::uint32_t material_;
  std::vector<Corner> face_;
};

std::string format_path(const std::filesystem::path& path) {
  return path.string();
}

ObjReadResult parse_text(std::string_view text, const std::filesystem::path& path,
                         const MeshReadOptions& options, std::uint64_t chunk_floor,
                         const WorkerPool& pool) {
  const std::string path_text = format_path(path);
  const std::string prefix = path_text + ": ";
  const int threads = std::max(pool.thread_count(), 1);
  const std::vector<std::uint64_t> starts = chunk_starts(text, threads, chunk_floor);
  const std::uint64_t chunks = starts.size();
  auto chunk_end = [&](std::uint64_t c) {
    return c + 1 < chunks ? starts[static_cast<std::size_t>(c + 1)] : text.size();
  };

  // Pre-pass: counts, blocks and materials of every chunk.
  std::vector<ChunkCounts> counts(static_cast<std::size_t>(chunks));
  pool.for_chunks(chunks, 1, [&](std::uint64_t c, std::uint64_t, std::uint64_t) {
    counts[static_cast<std::size_t>(c)] =
        count_chunk(text.data() + starts[static_cast<std::size_t>(c)], text.data() + chunk_end(c));
  });

  // Join of the counts in file order: output offsets, objects, blocks and
  // materials as the file names them.
  ObjReadResult result;
  Mesh& mesh = result.mesh;
  std::vector<ChunkPlan> plans(static_cast<std::size_t>(chunks));
  std::vector<std::uint32_t> block_objects;
  std::vector<std::uint32_t> usemtl_materials;
  std::vector<std::int64_t> object_block;  // -1: made while no block was open
  NameTable objects(mesh.objects);
  NameTable materials(mesh.materials);
  NameTable blocks(mesh.blocks);
  bool has_g = false;
  for (const ChunkCounts& chunk : counts) {
    for (const Block& block : chunk.blocks) {
      has_g = has_g || block.from_g;
    }
  }
  ChunkPlan next;
  bool has_object = false;
  bool has_material = false;
  std::int64_t current_block = -1;
  std::uint64_t triangle_total = 0;
  std::uint64_t polygon_total = 0;
  std::uint64_t polygon_corner_total = 0;
  std::uint64_t quad_total = 0;
  std::uint64_t largest_chunk_triangles = 0;
  auto add_object = [&](std::string_view name) {
    bool added = false;
    const std::uint32_t index = objects.find_or_add(name, &added);
    if (added) {
      object_block.push_back(current_block);
    }
    return index;
  };
  for (std::size_t c = 0; c < counts.size(); ++c) {
    const ChunkCounts& chunk = counts[c];
    ChunkPlan& plan = plans[c];
    plan = next;
    if (chunk.face_before_block && !has_object) {
      next.start_object = add_object("default");
      has_object = true;
    }
    if (chunk.face_before_material && !has_material) {
      next.start_material = materials.find_or_add("default");
      has_material = true;
    }
    plan.start_object = next.start_object;
    plan.start_material = next.start_material;
    plan.has_object = has_object;
    for (const Block& block : chunk.blocks) {
      if (has_g && !block.from_g) {
        current_block = blocks.find_or_add(block.name);
      }
      next.start_object = add_object(block.name);
      has_object = true;
      block_objects.push_back(next.start_object);
    }
    for (std::string_view name : chunk.materials) {
      next.start_material = materials.find_or_add(name);
      has_material = true;
      usemtl_materials.push_back(next.start_material);
    }
    for (std::string_view name : chunk.libraries) {
      result.material_libraries.emplace_back(name);
    }
    next.position += chunk.positions;
    next.uv += chunk.uvs;
    next.normal += chunk.normals;
    next.triangle += chunk.triangles;
    plan.triangle_end = next.triangle;
    next.polygon += chunk.polygons;
    next.block += chunk.blocks.size();
    next.material += chunk.materials.size();
    result.stats.lines += chunk.lines;
    quad_total += chunk.quads;
    polygon_corner_total += chunk.polygon_corners;
    largest_chunk_triangles = std::max(largest_chunk_triangles, chunk.triangles);
  }
  triangle_total = next.triangle;
  polygon_total = next.polygon;
  if (!mesh.blocks.empty()) {
    // Objects made before the first block take a block of their own.
    for (std::int64_t& block : object_block) {
      if (block < 0) {
        block = blocks.find_or_add("default");
      }
    }
    mesh.object_blocks.assign(object_block.begin(), object_block.end());
  }
  const std::uint64_t element_counts[] = {next.position, next.uv, next.normal, triangle_total};
  const char* element_names[] = {"vertex positions", "texture coordinates", "normals", "triangles"};
  for (std::size_t i = 0; i < 4; ++i) {
    if (element_counts[i] > kMaxElements) {
      throw Error(prefix + "mesh has more than 2147483647 " + element_names[i]);
    }
  }

  if (options.memory_limit_bytes > 0) {
    const std::uint64_t parallel_chunks = std::max<std::uint64_t>(
        std::min<std::uint64_t>(static_cast<std::uint64_t>(threads), chunks), 1);
    const std::uint64_t working =
        5 * triangle_total + parallel_chunks * largest_chunk_triangles * 8;
    // Elements: the mesh's arrays, and the corners of the polygons that are
    // re-triangulated after the join.
    const std::uint64_t elements =
        next.position + next.uv + next.normal + triangle_total + polygon_corner_total;
    const std::uint64_t estimate = 16 * working + text.size() + 12 * elements;
    if (estimate > options.memory_limit_bytes) {
      const std::uint64_t mib = std::uint64_t{1} << 20;
      throw Error(prefix + "the mesh file " + path_text + " gives " +
                  std::to_string(triangle_total) + " triangles and needs about " +
                  std::to_string((estimate + mib - 1) / mib) + " MB; the limit is " +
                  std::to_string(options.memory_limit_bytes / mib) + " MB");
    }
  }

  // Parse pass: every chunk writes its elements at its own offsets.
  // The arrays' pages are mapped on the pool's threads, then the arrays are
  // sized side by side, the largest first.
  prefault_arrays(
      {reserve_array(mesh.triangles, static_cast<std::size_t>(triangle_total)),
       reserve_array(mesh.positions, static_cast<std::size_t>(next.position)),
       reserve_array(mesh.normals, static_cast<std::size_t>(next.normal)),
       reserve_array(mesh.uvs, static_cast<std::size_t>(next.uv)),
       reserve_array(mesh.triangle_materials, static_cast<std::size_t>(triangle_total))},
      pool);
  pool.for_chunks(5, 1, [&](std::uint64_t array, std::uint64_t, std::uint64_t) {
    switch (array) {
      case 0:
        mesh.triangles.resize(static_cast<std::size_t>(triangle_total));
        break;
      case 1:
        mesh.positions.resize(static_cast<std::size_t>(next.position));
        break;
      case 2:
        mesh.normals.resize(static_cast<std::size_t>(next.normal));
        break;
      case 3:
        mesh.uvs.resize(static_cast<std::size_t>(next.uv));
        break;
      default:
        mesh.triangle_materials.resize(static_cast<std::size_t>(triangle_total));
        break;
    }
  });
  std::vector<std::vector<std::pair<std::uint64_t, std::array<float, 3>>>> colors(
      static_cast<std::size_t>(chunks));
  std::vector<PolygonRecord> polygons(static_cast<std::size_t>(polygon_total));
  ParseTargets targets;
  targets.mesh = &mesh;
  targets.colors = &colors;
  targets.polygons = &polygons;
  targets.block_objects = &block_objects;
  targets.usemtl_materials = &usemtl_materials;
  targets.policy = FacePolicy{options.quads, options.polygons};
  targets.prefix = prefix;
  targets.text_end = text.data() + text.size();
  pool.for_chunks(chunks, 1, [&](std::uint64_t c, std::uint64_t, std::uint64_t) {
    ChunkParser parser(targets, plans[static_cast<std::size_t>(c)], static_cast<std::size_t>(c));
    parser.parse(text.data() + starts[static_cast<std::size_t>(c)], text.data() + chunk_end(c));
  });

  if (mesh.triangles.empty()) {
    throw Error(prefix + "mesh has no faces: " + path_text);
  }
  const bool has_colors =
      std::any_of(colors.begin(), colors.end(), [](const auto& list) { return !list.empty(); });
  if (has_colors) {
    // A vertex written without a colour in a file with colours is white.
    std::vector<std::array<float, 3>> vertex_colors(mesh.positions.size(), {1.0f, 1.0f, 1.0f});
    for (const auto& list : colors) {
      for (const auto& [index, color] : list) {
        vertex_colors[index] = color;
      }
    }
    mesh.colors.resize(mesh.triangles.size() * 3);
    for (std::size_t t = 0; t < mesh.triangles.size(); ++t) {
      for (std::size_t k = 0; k < 3; ++k) {
        mesh.colors[3 * t + k] = vertex_colors[mesh.triangles[t].corners[k].position];
      }
    }
  }
  result.stats.quads_split = quad_total;
  result.stats.polygons = polygon_total;
  result.stats.polygons_inexact = retriangulate_polygons(mesh, polygons, &pool);
  return result;
}

}  // namespace

std::vector<std::uint64_t> obj_chunk_starts(std::string_view text, int threads,
                                            std::uint64_t chunk_floor) {
  return chunk_starts(text, threads, chunk_floor);
}

namespace detail {
ObjReadResult parse_obj_chunked(std::string_view text, const std::filesystem::path& path,
                                const MeshReadOptions& options, std::uint64_t chunk_floor) {
  const WorkerPool pool(options.threads);
  return parse_text(text, path, options, chunk_floor, pool);
}
}  // namespace detail

ObjReadResult parse_obj(std::string_view text, const std::filesystem::path& path,
                        const MeshReadOptions& options) {
  const WorkerPool pool(options.threads);
  return parse_text(text, path, options, kObjChunkFloor, pool);
}

ObjReadResult read_obj(const std::filesystem::path& path, const MeshReadOptions& options) {
  int error = 0;
  platform::File file = platform::File::open_read(path, &error);
  if (!file.is_open()) {
    throw Error("cannot open mesh file: " + format_path(path));
  }
  const std::int64_t size = file.size(&error);
  if (size < 0) {
    throw Error("cannot read mesh file: " + format_path(path));
  }
  // Left uninitialised: the reads fill every byte. Slices are read on the
  // pool's threads, so that copying the text out of the file cache is shared.
  const auto bytes = static_cast<std::size_t>(size);
  const LargeBuffer buffer(bytes);
  const WorkerPool pool(options.threads);
  constexpr std::uint64_t kReadSlice = std::uint64_t{8} << 20;
  FirstFailure short_read;
  pool.for_chunks(bytes, kReadSlice,
                  [&](std::uint64_t slice, std::uint64_t begin, std::uint64_t end) {
                    int slice_error = 0;
                    const std::size_t length = static_cast<std::size_t>(end - begin);
                    // Mapping the slice's fresh pages in one call is cheaper
                    // than faulting them in one by one inside the read.
                    platform::prefault_for_write(buffer.data() + begin, length);
                    if (file.read_full_at(buffer.data() + begin, length, begin, &slice_error) !=
                        static_cast<std::int64_t>(length)) {
                      short_read.record(slice);
                    }
                  });
  if (short_read.failed()) {
    throw Error("cannot read mesh file: " + format_path(path));
  }
  file.close();
  const std::string_view text(buffer.data(), bytes);
  if (options.on_text) {
    options.on_text(text);
  }
  return parse_text(text, path, options, kObjChunkFloor, pool);
}

}  // namespace kv
