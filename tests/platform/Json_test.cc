#include "platform/Json.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

namespace tarnwick {
namespace {

struct DocumentCase {
  const char* name;
  std::string bytes;
  bool accepted;
};

class ParseJsonDocumentTest : public ::testing::TestWithParam<DocumentCase> {};

TEST_P(ParseJsonDocumentTest, AcceptsOnlyWholeObjectsAndArrays) {
  EXPECT_EQ(parseJsonDocument(GetParam().bytes).has_value(), GetParam().accepted)
      << GetParam().bytes;
}

INSTANTIATE_TEST_SUITE_P(
    Table, ParseJsonDocumentTest,
    ::testing::Values(
        DocumentCase{"Object", R"({"watchedPIDs":[1,2]})", true},
        DocumentCase{"Array", "[1,2]", true},
        DocumentCase{"SurroundingWhiteSpace", " \n\t{}\r\n ", true},
        DocumentCase{"Unicode", "{\"k\":\"\xE2\x80\x94\"}", true},
        DocumentCase{"NumberFragment", "42", false},
        DocumentCase{"TextFragment", R"("text")", false},
        DocumentCase{"NullFragment", "null", false}, DocumentCase{"BoolFragment", "true", false},
        DocumentCase{"Empty", "", false}, DocumentCase{"WhiteSpaceOnly", "  ", false},
        DocumentCase{"TrailingBytes", "{} x", false}, DocumentCase{"TwoDocuments", "{}{}", false},
        DocumentCase{"Truncated", R"({"a":)", false}, DocumentCase{"TrailingComma", "[1,]", false},
        DocumentCase{"Comment", "/* c */ {}", false},
        DocumentCase{"InvalidUTF8", "{\"k\":\"\xFF\"}", false},
        DocumentCase{"LoneSurrogateEscape", R"({"k":"\ud800"})", false}),
    [](const auto& p) { return std::string(p.param.name); });

struct IntegerCase {
  const char* name;
  Json value;
  std::optional<std::int64_t> expected;
};

class JsonIntegerValueTest : public ::testing::TestWithParam<IntegerCase> {};

TEST_P(JsonIntegerValueTest, BehavesAsAPlatformNumber) {
  EXPECT_EQ(jsonIntegerValue(GetParam().value), GetParam().expected) << GetParam().value.dump();
}

constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();

INSTANTIATE_TEST_SUITE_P(
    Table, JsonIntegerValueTest,
    ::testing::Values(IntegerCase{"Integer", Json(8080), 8080},
                      IntegerCase{"Negative", Json(-7), -7},
                      IntegerCase{"FractionTruncates", Json(3.9), 3},
                      IntegerCase{"NegativeFractionTruncatesTowardZero", Json(-3.9), -3},
                      IntegerCase{"True", Json(true), 1}, IntegerCase{"False", Json(false), 0},
                      IntegerCase{"UnsignedAboveInt64", Json(std::uint64_t{1} << 63), kMax},
                      IntegerCase{"HugeDouble", Json(1e300), kMax},
                      IntegerCase{"HugeNegativeDouble", Json(-1e300), kMin},
                      IntegerCase{"Int64Minimum", Json(kMin), kMin},
                      IntegerCase{"Text", Json("8080"), std::nullopt},
                      IntegerCase{"Null", Json(nullptr), std::nullopt},
                      IntegerCase{"Array", Json::array({1}), std::nullopt}),
    [](const auto& p) { return std::string(p.param.name); });

TEST(JsonTest, ParsedNumbersKeepTheirKind) {
  const auto document = parseJsonDocument(R"([1, 1.5, true, 18446744073709551615])");
  ASSERT_TRUE(document);
  EXPECT_TRUE(isJsonInteger((*document)[0]));
  EXPECT_FALSE(isJsonInteger((*document)[1]));
  EXPECT_FALSE(isJsonInteger((*document)[2]));
  EXPECT_EQ(jsonIntegerValue((*document)[3]), kMax);
}

TEST(JsonTest, DumpReplacesInvalidUTF8InsteadOfFailing) {
  const Json event = {{"kind", "relay.open"}, {"path", std::string("/opt/a\xFF")}};
  EXPECT_EQ(dumpCompact(event), "{\"kind\":\"relay.open\",\"path\":\"/opt/a\xEF\xBF\xBD\"}");
}

TEST(JsonTest, MemberLookupToleratesNonObjects) {
  const Json object = {{"socketPath", "/run/d.sock"}};
  ASSERT_NE(jsonMember(object, "socketPath"), nullptr);
  EXPECT_EQ(*jsonMember(object, "socketPath"), "/run/d.sock");
  EXPECT_EQ(jsonMember(object, "missing"), nullptr);
  EXPECT_EQ(jsonMember(Json::array({"socketPath"}), "socketPath"), nullptr);
  EXPECT_EQ(jsonMember(Json("socketPath"), "socketPath"), nullptr);
}

}  // namespace
}  // namespace tarnwick
