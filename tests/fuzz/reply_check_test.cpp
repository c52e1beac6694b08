// The request target's checker must name every broken rule of a reply, or a
// fuzz run would pass replies that break them.
#include <gtest/gtest.h>

#include <string>

#include "fuzz/request_harness.h"

namespace kv::fuzz {
namespace {

LineAnswer replied(std::string text) {
  LineAnswer answer;
  answer.replies = {std::move(text)};
  return answer;
}

TEST(FuzzReplyCheck, EveryBrokenRuleOfAnImmediateReplyIsNamed) {
  const std::string hello = R"({"id":3,"op":"hello"})";
  ASSERT_EQ(reply_rule_broken(hello, replied("{\"id\":3,\"ok\":true,\"bye\":1}\n")), "");

  LineAnswer two = replied("{\"id\":3,\"ok\":true}\n");
  two.replies.push_back(two.replies[0]);
  EXPECT_EQ(reply_rule_broken(hello, two), "more than one reply at once");
  EXPECT_EQ(reply_rule_broken(hello, LineAnswer{}),
            "no reply, and no job of the request's id is queued");
  EXPECT_EQ(reply_rule_broken(hello, replied("{\"id\":3,\"ok\":true}")),
            "the reply does not end with a newline");
  EXPECT_EQ(reply_rule_broken(hello, replied("{\"id\":3,\n\"ok\":true}\n")),
            "the reply is more than one line");
  EXPECT_EQ(reply_rule_broken(hello, replied("{\"id\":3,\"ok\":true,\"x\":\"\xC3\"}\n")),
            "the reply is not valid UTF-8");
  EXPECT_EQ(reply_rule_broken(hello, replied("{\"id\":3,\"ok\":true\n")), "the reply is not JSON");
  EXPECT_EQ(reply_rule_broken(hello, replied("{\"ok\":true,\"id\":3}\n")),
            "the reply does not begin with \"id\" and \"ok\"");
  EXPECT_EQ(reply_rule_broken(hello, replied("{\"id\":3,\"ok\":1}\n")),
            "the reply does not begin with \"id\" and \"ok\"");
  EXPECT_EQ(reply_rule_broken(hello, replied("{\"id\":4,\"ok\":true}\n")),
            "the reply's id is not the request's (null before the id is read)");
  EXPECT_EQ(reply_rule_broken(hello, replied("{\"id\":null,\"ok\":false,\"error\":\"x\"}\n")),
            "the reply's id is not the request's (null before the id is read)");

  const std::string big = "{\"id\":3,\"ok\":true,\"x\":\"" + std::string(1048576, 'a') + "\"}\n";
  EXPECT_EQ(reply_rule_broken(hello, replied(big)), "the reply is longer than 1048576 bytes");
}

TEST(FuzzReplyCheck, ErrorRepliesKeepTheIdRuleAndTheirTextLimit) {
  // Before the id reads as one, the reply's id is null.
  for (const char* line : {"[1]", R"({"op":"hello"})", R"({"id":1.5,"op":"hello"})",
                           R"({"id":9223372036854775808})", "{\"id\":2"}) {
    SCOPED_TRACE(line);
    EXPECT_EQ(reply_rule_broken(line, replied("{\"id\":null,\"ok\":false,\"error\":\"e\"}\n")), "");
    EXPECT_NE(reply_rule_broken(line, replied("{\"id\":2,\"ok\":false,\"error\":\"e\"}\n")), "");
  }
  const std::string line = R"({"id":-9223372036854775808,"op":"nope"})";
  EXPECT_EQ(reply_rule_broken(
                line, replied("{\"id\":-9223372036854775808,\"ok\":false,\"error\":\"e\"}\n")),
            "");
  EXPECT_EQ(reply_rule_broken(line, replied("{\"id\":-9223372036854775808,\"ok\":false}\n")),
            "an error reply without its error text");
  const std::string cut = std::string(512, 'e') + "...";
  EXPECT_EQ(
      reply_rule_broken(
          line, replied("{\"id\":-9223372036854775808,\"ok\":false,\"error\":\"" + cut + "\"}\n")),
      "");
  EXPECT_EQ(
      reply_rule_broken(
          line, replied("{\"id\":-9223372036854775808,\"ok\":false,\"error\":\"" + cut + "e\"}\n")),
      "the error text is longer than its limit");
  // An invalid byte kept by the cut is replaced afterwards by U+FFFD's three.
  const std::string replaced = std::string(510, 'e') + "\xEF\xBF\xBD\xEF\xBF\xBD...";
  EXPECT_EQ(
      reply_rule_broken(line, replied("{\"id\":-9223372036854775808,\"ok\":false,\"error\":\"" +
                                      replaced + "\"}\n")),
      "");
  EXPECT_EQ(
      reply_rule_broken(line, replied("{\"id\":-9223372036854775808,\"ok\":false,\"error\":\"e" +
                                      replaced + "\"}\n")),
      "the error text is longer than its limit");
  EXPECT_EQ(reply_rule_broken(
                line, replied("{\"id\":-9223372036854775808,\"ok\":false,\"error\":\"internal "
                              "error: boom\"}\n")),
            "a request line gave an internal error: internal error: boom");
}

TEST(FuzzReplyCheck, QueuedWorkAnswersOnceAndIsHeld) {
  const std::string bake = R"({"id":5,"op":"bake"})";
  LineAnswer queued = replied("{\"id\":5,\"ok\":true,\"queued\":true}\n");
  queued.held_after = true;
  EXPECT_EQ(reply_rule_broken(bake, queued), "");
  const std::string rule = "work accepted without {\"queued\":true} and its job";
  LineAnswer not_held = queued;
  not_held.held_after = false;
  EXPECT_EQ(reply_rule_broken(bake, not_held), rule);
  LineAnswer held_before = queued;
  held_before.held_before = true;
  EXPECT_EQ(reply_rule_broken(bake, held_before), rule);
  LineAnswer other_reply = replied("{\"id\":5,\"ok\":true,\"queued\":false}\n");
  other_reply.held_after = true;
  EXPECT_EQ(reply_rule_broken(bake, other_reply), rule);

  // A load replies only from its job: nothing at once, and its job queued.
  const std::string load = R"({"id":6,"op":"mesh.load_file"})";
  LineAnswer silent;
  silent.held_after = true;
  EXPECT_EQ(reply_rule_broken(load, silent), "");
  silent.held_before = true;
  EXPECT_EQ(reply_rule_broken(load, silent), "no reply, and no job of the request's id is queued");
  LineAnswer bake_silent;
  bake_silent.held_after = true;
  EXPECT_EQ(reply_rule_broken(bake, bake_silent),
            "no reply, and no job of the request's id is queued");
}

}  // namespace
}  // namespace kv::fuzz
