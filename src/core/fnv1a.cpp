#include "core/fnv1a.h"

#include <string>

namespace kv {

std::string fnv1a_hex(std::uint64_t hash) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text(16, '0');
  for (int i = 15; i >= 0; --i) {
    text[static_cast<std::size_t>(i)] = kDigits[hash & 0xF];
    hash >>= 4;
  }
  return text;
}

}  // namespace kv
