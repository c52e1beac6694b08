// FNV-1a hashing, 64-bit, over bytes or over 32-bit words.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace kv {

inline constexpr std::uint64_t kFnv1aOffset = 14695981039346656037ull;
inline constexpr std::uint64_t kFnv1aPrime = 1099511628211ull;

// Continues a hash over more bytes; start from kFnv1aOffset.
constexpr std::uint64_t fnv1a_bytes(std::uint64_t hash, const unsigned char* data,
                                    std::size_t size) {
  for (std::size_t i = 0; i < size; ++i) {
    hash ^= data[i];
    hash *= kFnv1aPrime;
  }
  return hash;
}

constexpr std::uint64_t fnv1a(std::string_view text, std::uint64_t hash = kFnv1aOffset) {
  for (char c : text) {
    hash ^= static_cast<unsigned char>(c);
    hash *= kFnv1aPrime;
  }
  return hash;
}

inline std::uint64_t fnv1a(std::span<const std::byte> bytes, std::uint64_t hash = kFnv1aOffset) {
  return fnv1a_bytes(hash, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

// Word-wise variant: each 32-bit word is folded in as one unit.
constexpr std::uint64_t fnv1a_word(std::uint64_t hash, std::uint32_t word) {
  hash ^= word;
  hash *= kFnv1aPrime;
  return hash;
}

// "%016x" of a hash: the 16 lower-case hexadecimal digits.
std::string fnv1a_hex(std::uint64_t hash);

}  // namespace kv
