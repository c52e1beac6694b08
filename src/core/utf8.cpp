#include "core/utf8.h"

namespace kv {

bool is_valid_utf8(std::string_view text) {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const std::size_t n = text.size();
  std::size_t i = 0;
  while (i < n) {
    const unsigned char c = p[i];
    if (c < 0x80) {
      ++i;
      continue;
    }
    std::size_t extra = 0;
    unsigned char lo = 0x80, hi = 0xBF;  // allowed range of the second byte
    if (c >= 0xC2 && c <= 0xDF) {
      extra = 1;
    } else if (c == 0xE0) {
      extra = 2;
      lo = 0xA0;
    } else if (c >= 0xE1 && c <= 0xEC) {
      extra = 2;
    } else if (c == 0xED) {
      extra = 2;
      hi = 0x9F;  // excludes the surrogates
    } else if (c >= 0xEE && c <= 0xEF) {
      extra = 2;
    } else if (c == 0xF0) {
      extra = 3;
      lo = 0x90;
    } else if (c >= 0xF1 && c <= 0xF3) {
      extra = 3;
    } else if (c == 0xF4) {
      extra = 3;
      hi = 0x8F;
    } else {
      return false;
    }
    if (n - i <= extra) {
      return false;
    }
    if (p[i + 1] < lo || p[i + 1] > hi) {
      return false;
    }
    for (std::size_t k = 2; k <= extra; ++k) {
      if ((p[i + k] & 0xC0) != 0x80) {
        return false;
      }
    }
    i += extra + 1;
  }
  return true;
}

std::size_t utf8_cut(std::string_view text, std::size_t max_bytes) {
  if (text.size() <= max_bytes) {
    return text.size();
  }
  std::size_t cut = max_bytes;
  for (int step = 0; step < 4 && cut > 0; ++step) {
    if ((static_cast<unsigned char>(text[cut]) & 0xC0) != 0x80) {
      break;
    }
    --cut;
  }
  return cut;
}

}  // namespace kv
