// Texts the system reads and writes: log lines, JSON documents and numbers, UTF-8.

#include <gtest/gtest.h>

#include <cstdint>
#include <tuple>

#include "platform/Json.h"
#include "platform/Log.h"
#include "platform/Text.h"

namespace tarnwick {
namespace {

const std::string kFFFD = "\xEF\xBF\xBD";
const std::string kValid = "/usr/bin/caf\xC3\xA9 \xE2\x80\x94 \xF0\x9D\x84\x9E \xF4\x8F\xBF\xBF";

TEST(LogTest, RendersAsTheUnifiedLogShowsIt) {
  const std::tuple<const char*, std::vector<LogArg>, const char*> cases[] = {
      {"dial %{public}s", {"example.com"}, "dial example.com"},
      {"path %s", {"/home/me"}, "path <private>"},
      {"%{bool}d,%{bool}d", {1, 0}, "true,false"},
      {"ts %ld", {std::int64_t{-1767225600123456789}}, "ts -1767225600123456789"},
      {"pid %d port %hu", {4242, 70000}, "pid 4242 port 4464"},
      {"%f %f", {2.5, 3}, "2.500000 3.000000"},
      {"100%% done, 5%", {}, "100% done, 5%"},
      {"%{public}s — lost → direct", {"a"}, "a — lost → direct"},
      {"%{public}s and %d", {"one"}, "one and <missing>"},
      {"host %{public}s", {7}, "host <non-text>"}};
  for (const auto& [format, args, expected] : cases)
    EXPECT_EQ(renderLogFormat(format, args), expected) << format;
}

// A path, host name or signing identifier comes from a program: whatever it holds, its line stays
// one line, and what it could pass off as an escape of ours is escaped too.
TEST(LogTest, EscapesControlCharactersInTexts) {
  const std::pair<std::string, std::string> cases[] = {
      {"/tmp/a\nforged\r\t", "/tmp/a\\nforged\\r\\t"},
      {"\x1b[2J\x7f\x01", "\\x1b[2J\\x7f\\x01"},
      {std::string("nul\0end", 7), "nul\\x00end"},
      {"back\\slash \\n", "back\\\\slash \\\\n"},
      {"next\xC2\x85line\xE2\x80\xA8sep\xE2\x80\xA9", "next\\u0085line\\u2028sep\\u2029"},
      {"bad\xFF\xC0", "bad\\xff\\xc0"},
      {kValid, kValid}};
  for (const auto& [text, shown] : cases) {
    EXPECT_EQ(renderLogFormat("exe=%{public}s", {text}), "exe=" + shown) << shown;
    EXPECT_EQ(renderLogFormat("exe=%s", {text}), "exe=<private>");
  }
}

// Only a whole object or array is a document.
TEST(JsonTest, ParsesOnlyStrictDocuments) {
  for (const char* good :
       {R"({"watchedPIDs":[1,2]})", "[1,2]", " \n\t{}\r\n ", "{\"k\":\"\xE2\x80\x94\"}"})
    EXPECT_TRUE(parseJsonDocument(good)) << good;
  for (const char* bad : {"42", R"("text")", "null", "", "  ", "{} x", "{}{}", R"({"a":)", "[1,]",
                          "/* c */ {}", "{\"k\":\"\xFF\"}", R"({"k":"\ud800"})"})
    EXPECT_FALSE(parseJsonDocument(bad)) << bad;
}

// Numbers read as the platform's numbers do: fractions truncate, booleans count, and what does
// not fit saturates.
TEST(JsonTest, ReadsIntegersAsThePlatformDoes) {
  const auto parsed = parseJsonDocument(
      R"([8080, -3.9, true, 18446744073709551615, 1e300, -1e300, "8080", null, [1]])");
  ASSERT_TRUE(parsed);
  const std::optional<std::int64_t> expected[] = {
      8080, -3, 1, INT64_MAX, INT64_MAX, INT64_MIN, std::nullopt, std::nullopt, std::nullopt};
  for (std::size_t i = 0; i < std::size(expected); ++i) {
    EXPECT_EQ(jsonIntegerValue((*parsed)[i]), expected[i]) << (*parsed)[i].dump();
    EXPECT_EQ(isJsonInteger((*parsed)[i]), i == 0 || i == 3) << (*parsed)[i].dump();
  }
  EXPECT_EQ(dumpCompact(Json{{"path", "/a\xFF"}}), "{\"path\":\"/a\xEF\xBF\xBD\"}");
}

TEST(TextTest, RepairsUTF8ByReplacingEachBadSequence) {
  const std::pair<std::string, std::string> cases[] = {
      {kValid, kValid},
      {"a\x80z", "a" + kFFFD + "z"},
      {"\xFF", kFFFD},
      {"\xC0\xAF", kFFFD + kFFFD},                          // overlong
      {"\xED\xA0\x80", kFFFD + kFFFD + kFFFD},              // surrogate
      {"\xF4\x90\x80\x80", kFFFD + kFFFD + kFFFD + kFFFD},  // beyond Unicode
      {"ab\xF0\x9D\x84", "ab" + kFFFD},                     // truncated at the end
      {"\xE2\x82\x41", kFFFD + "A"},                        // truncated before ASCII
      {"\xE2\xE2\x80\x94", kFFFD + "\xE2\x80\x94"}};
  for (const auto& [bytes, repaired] : cases) {
    EXPECT_EQ(isValidUTF8(bytes), bytes == repaired) << bytes;
    EXPECT_EQ(toValidUTF8(bytes), repaired) << bytes;
  }
}

}  // namespace
}  // namespace tarnwick
