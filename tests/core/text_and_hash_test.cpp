#include <gtest/gtest.h>

#include <string>

#include "core/fnv1a.h"
#include "core/json_line.h"
#include "core/utf8.h"

namespace kv {
namespace {

TEST(Utf8, AcceptsWellFormedAndRefusesTheRest) {
  EXPECT_TRUE(is_valid_utf8(""));
  EXPECT_TRUE(is_valid_utf8("plain"));
  EXPECT_TRUE(is_valid_utf8("\xC3\xA9t\xC3\xA9"));  // é
  EXPECT_TRUE(is_valid_utf8("\xE2\x82\xAC"));       // €
  EXPECT_TRUE(is_valid_utf8("\xF0\x9F\x98\x80"));   // emoji
  EXPECT_TRUE(is_valid_utf8("\xF4\x8F\xBF\xBF"));   // U+10FFFF
  EXPECT_FALSE(is_valid_utf8("\xC3"));              // cut short
  EXPECT_FALSE(is_valid_utf8("\xC0\xAF"));          // overlong
  EXPECT_FALSE(is_valid_utf8("\xE0\x80\xAF"));      // overlong
  EXPECT_FALSE(is_valid_utf8("\xED\xA0\x80"));      // surrogate
  EXPECT_FALSE(is_valid_utf8("\xF4\x90\x80\x80"));  // above U+10FFFF
  EXPECT_FALSE(is_valid_utf8("\x80"));              // stray continuation
  EXPECT_FALSE(is_valid_utf8("a\xFF"));
}

TEST(Utf8, CutBacksOffToACharacterStart) {
  const std::string text =
      "ab\xE2\x82\xAC"
      "cd";  // a b € c d
  EXPECT_EQ(utf8_cut(text, 100), text.size());
  EXPECT_EQ(utf8_cut(text, 2), 2u);
  EXPECT_EQ(utf8_cut(text, 3), 2u);  // inside €
  EXPECT_EQ(utf8_cut(text, 4), 2u);
  EXPECT_EQ(utf8_cut(text, 5), 5u);
}

TEST(Fnv1a, KnownValuesAndHex) {
  // Published FNV-1a 64 test vectors.
  EXPECT_EQ(fnv1a(""), 0xcbf29ce484222325ull);
  EXPECT_EQ(fnv1a("a"), 0xaf63dc4c8601ec8cull);
  EXPECT_EQ(fnv1a("foobar"), 0x85944171f73967e8ull);
  EXPECT_EQ(fnv1a("bar", fnv1a("foo")), fnv1a("foobar"));
  EXPECT_EQ(fnv1a_hex(0x85944171f73967e8ull), "85944171f73967e8");
  EXPECT_EQ(fnv1a_hex(0x1ull), "0000000000000001");
  EXPECT_NE(fnv1a_word(kFnv1aOffset, 1), fnv1a_word(kFnv1aOffset, 2));
}

TEST(JsonLine, CompactOrderedUnescaped) {
  Json object;
  object["z"] = 1;
  object["a"] = "\xC3\xA9";
  object["m"] = std::string("bad\xFF");
  EXPECT_EQ(json_line(object), "{\"z\":1,\"a\":\"\xC3\xA9\",\"m\":\"bad\xEF\xBF\xBD\"}");
}

}  // namespace
}  // namespace kv
