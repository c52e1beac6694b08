// UTF-8 validation and the small text helpers built on it.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kv {

// True when the bytes are well-formed UTF-8: shortest forms only, no
// surrogates, nothing above U+10FFFF.
bool is_valid_utf8(std::string_view text);

// Length of the longest prefix of at most max_bytes that does not end inside
// a character (steps back over at most four continuation bytes).
std::size_t utf8_cut(std::string_view text, std::size_t max_bytes);

}  // namespace kv
