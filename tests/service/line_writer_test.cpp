// The serialiser and the line writers: fixed fields first, long messages cut
// on a character boundary, invalid UTF-8 replaced, oversized lines replaced.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "core/utf8.h"
#include "service/line_writer.h"
#include "support/message_of.h"

namespace kv::service {
namespace {

TEST(LineWriter, FixedFieldsComeFirstAndFieldsKeepTheirOrder) {
  Json fields = Json::object();
  fields["zeta"] = 1;
  fields["alpha"] = "é";
  EXPECT_EQ(success_reply(7, fields), "{\"id\":7,\"ok\":true,\"zeta\":1,\"alpha\":\"é\"}");
  EXPECT_EQ(success_reply_text(-3, ""), "{\"id\":-3,\"ok\":true}");
  EXPECT_EQ(success_reply_text(1, "{\"b\":[1,2],\"a\":null}"),
            "{\"id\":1,\"ok\":true,\"b\":[1,2],\"a\":null}");
  EXPECT_EQ(error_reply(std::nullopt, "bad"), "{\"id\":null,\"ok\":false,\"error\":\"bad\"}");
  EXPECT_EQ(error_reply(4, "gone", Json{{"code", "cancelled"}}),
            "{\"id\":4,\"ok\":false,\"error\":\"gone\",\"code\":\"cancelled\"}");
  EXPECT_EQ(event_line("region", 9, Json{{"x", 0}}), "{\"event\":\"region\",\"job\":9,\"x\":0}");
}

TEST(LineWriter, ReplyFieldsThatAreNotAnObjectOrReuseAFixedKeyAreRefused) {
  EXPECT_EQ(test::message_of([] { success_reply_text(1, "[1]"); }),
            "reply fields must be a JSON object");
  EXPECT_EQ(test::message_of([] { success_reply_text(1, "null"); }),
            "reply fields must be a JSON object");
  EXPECT_EQ(test::message_of([] { success_reply_text(1, "\"x\""); }),
            "reply fields must be a JSON object");
  EXPECT_EQ(test::message_of([] { success_reply_text(1, "{\"ok\":false}"); }),
            "reply field \"ok\" is reserved");
  EXPECT_EQ(test::message_of([] {
              error_reply(1, "x", Json{{"error", 1}});
            }),
            "reply field \"error\" is reserved");
  EXPECT_EQ(test::message_of([] {
              event_line("e", 1, Json{{"job", 2}});
            }),
            "reply field \"job\" is reserved");
  const std::string bad = test::message_of([] { success_reply_text(1, "{nope"); });
  EXPECT_EQ(bad.rfind("reply fields are not valid JSON: ", 0), 0u) << bad;
}

TEST(LineWriter, LongMessagesAreCutOnACharacterBoundary) {
  // 300 two-byte characters: 600 bytes; 512 falls on a boundary.
  std::string two;
  for (int i = 0; i < 300; ++i) {
    two += "é";
  }
  Json line = Json::parse(error_reply(1, two));
  EXPECT_EQ(line["error"].get<std::string>(), two.substr(0, 512) + "...");

  // Three-byte characters: 512 is inside the 171st, so the cut is at 510.
  std::string three;
  for (int i = 0; i < 200; ++i) {
    three += "€";
  }
  line = Json::parse(event_line("notice", 2, Json{{"message", three}}));
  const std::string cut = line["message"].get<std::string>();
  EXPECT_EQ(cut, three.substr(0, 510) + "...");
  EXPECT_TRUE(is_valid_utf8(cut));

  // Exactly 512 bytes stays whole; other fields are never cut.
  const std::string exact(512, 'a');
  EXPECT_EQ(Json::parse(error_reply(1, exact))["error"], exact);
  const std::string other(600, 'b');
  EXPECT_EQ(Json::parse(success_reply(1, Json{{"path", other}}))["path"], other);
}

TEST(LineWriter, InvalidUtf8IsReplacedAndNothingIsEscaped) {
  const std::string text = success_reply(1, Json{{"name", std::string("a\xff"
                                                                      "b")}});
  EXPECT_EQ(text,
            "{\"id\":1,\"ok\":true,\"name\":\"a\xEF\xBF\xBD"
            "b\"}");
  EXPECT_EQ(success_reply(1, Json{{"n", "ü"}}), "{\"id\":1,\"ok\":true,\"n\":\"ü\"}");
}

TEST(LineWriter, OversizedLinesAreReplacedKeepingTheirIdentity) {
  const std::string big(kReplyLimit, 'x');
  EXPECT_EQ(success_reply(7, Json{{"data", big}}),
            "{\"id\":7,\"ok\":false,\"error\":\"the engine's reply was longer than 1048576 "
            "bytes\"}");
  EXPECT_EQ(event_line("region", 3, Json{{"data", big}}),
            "{\"event\":\"region\",\"job\":3,\"error\":\"the engine's reply was longer than "
            "1048576 bytes\"}");
  // A line of exactly the limit is kept: {"id":1,"ok":true,"d":""} is 25
  // bytes around the text.
  const std::string fits(kReplyLimit - 25, 'y');
  EXPECT_EQ(success_reply(1, Json{{"d", fits}}).size(), kReplyLimit);
  EXPECT_EQ(Json::parse(success_reply(1, Json{{"d", fits + "y"}}))["error"],
            "the engine's reply was longer than 1048576 bytes");
}

// A line built under the output lock comes before any line that another
// thread writes because of what the builder did; a builder that throws
// writes nothing.
TEST(LineWriter, ALineBuiltUnderTheLockPrecedesWhatItSetsInMotion) {
  std::vector<std::string> lines;
  Output output([&](std::string_view line) {
    lines.emplace_back(line);
    return true;
  });
  std::atomic<bool> flag{false};
  std::atomic<bool> writing{false};
  std::thread other([&] {
    while (!flag.load()) {
      std::this_thread::yield();
    }
    writing = true;
    output.write_line("job ended");
  });
  output.write_line_built([&] {
    flag = true;
    // Let the other thread reach its write before this line is returned.
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!writing.load() && std::chrono::steady_clock::now() < limit) {
      std::this_thread::yield();
    }
    return std::string("cancelling");
  });
  other.join();
  EXPECT_EQ(lines, (std::vector<std::string>{"cancelling\n", "job ended\n"}));

  EXPECT_THROW(output.write_line_built([]() -> std::string { throw std::runtime_error("no"); }),
               std::runtime_error);
  output.write_line("after");
  EXPECT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines.back(), "after\n");
}

}  // namespace
}  // namespace kv::service
