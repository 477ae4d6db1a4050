#include "platform/Text.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>

namespace tarnwick {
namespace {

enum class Width { U16, I32, I64 };

struct DecimalCase {
  const char* name;
  const char* text;
  Width width;
  LeadingPlus plus;
  std::optional<std::int64_t> expected;
};

std::optional<std::int64_t> parseAs(Width width, std::string_view text, LeadingPlus plus) {
  switch (width) {
    case Width::U16:
      if (auto v = parseDecimal<std::uint16_t>(text, plus)) return *v;
      return std::nullopt;
    case Width::I32:
      if (auto v = parseDecimal<std::int32_t>(text, plus)) return *v;
      return std::nullopt;
    case Width::I64:
      return parseDecimal<std::int64_t>(text, plus);
  }
  return std::nullopt;
}

class ParseDecimalTest : public ::testing::TestWithParam<DecimalCase> {};

TEST_P(ParseDecimalTest, ReadsOnlyStrictDecimals) {
  const DecimalCase& c = GetParam();
  EXPECT_EQ(parseAs(c.width, c.text, c.plus), c.expected) << "text \"" << c.text << "\"";
}

constexpr auto kNo = LeadingPlus::Rejected;
constexpr auto kPlus = LeadingPlus::Accepted;

INSTANTIATE_TEST_SUITE_P(
    Table, ParseDecimalTest,
    ::testing::Values(
        DecimalCase{"Port", "443", Width::U16, kNo, 443},
        DecimalCase{"PortMaximum", "65535", Width::U16, kNo, 65535},
        DecimalCase{"PortOverflow", "65536", Width::U16, kNo, std::nullopt},
        DecimalCase{"PlusRejectedByDefault", "+443", Width::U16, kNo, std::nullopt},
        DecimalCase{"PlusAcceptedWhenAsked", "+443", Width::U16, kPlus, 443},
        DecimalCase{"PlusThenMinus", "+-1", Width::I32, kPlus, std::nullopt},
        DecimalCase{"PlusAlone", "+", Width::I32, kPlus, std::nullopt},
        DecimalCase{"DoublePlus", "++1", Width::I32, kPlus, std::nullopt},
        DecimalCase{"LeadingBlank", " 1", Width::I32, kNo, std::nullopt},
        DecimalCase{"TrailingBlank", "1 ", Width::I32, kNo, std::nullopt},
        DecimalCase{"Empty", "", Width::I32, kNo, std::nullopt},
        DecimalCase{"MinusAlone", "-", Width::I32, kNo, std::nullopt},
        DecimalCase{"NegativeZeroSigned", "-0", Width::I64, kNo, 0},
        DecimalCase{"NegativeZeroUnsigned", "-0", Width::U16, kNo, std::nullopt},
        DecimalCase{"Negative", "-42", Width::I32, kNo, -42},
        DecimalCase{"NegativeUnsigned", "-1", Width::U16, kNo, std::nullopt},
        DecimalCase{"Int32Overflow", "2147483648", Width::I32, kNo, std::nullopt},
        DecimalCase{"Int64Maximum", "9223372036854775807", Width::I64, kNo,
                    INT64_C(9223372036854775807)},
        DecimalCase{"Int64Minimum", "-9223372036854775808", Width::I64, kNo, INT64_MIN},
        DecimalCase{"Int64Overflow", "9223372036854775808", Width::I64, kNo, std::nullopt},
        DecimalCase{"Hex", "0x10", Width::I32, kNo, std::nullopt},
        DecimalCase{"Exponent", "1e3", Width::I32, kNo, std::nullopt},
        DecimalCase{"Fraction", "1.0", Width::I32, kNo, std::nullopt},
        DecimalCase{"NonAsciiDigit", "\xD9\xA3", Width::I32, kNo, std::nullopt}),
    [](const auto& p) { return std::string(p.param.name); });

struct UTF8Case {
  const char* name;
  std::string bytes;
  bool valid;
  std::string repaired;
};

class UTF8Test : public ::testing::TestWithParam<UTF8Case> {};

TEST_P(UTF8Test, ValidatesAndRepairsLikePlatformStrings) {
  EXPECT_EQ(isValidUTF8(GetParam().bytes), GetParam().valid);
  EXPECT_EQ(toValidUTF8(GetParam().bytes), GetParam().repaired);
}

const std::string kFFFD = "\xEF\xBF\xBD";

INSTANTIATE_TEST_SUITE_P(
    Table, UTF8Test,
    ::testing::Values(
        UTF8Case{"Empty", "", true, ""}, UTF8Case{"Ascii", "/usr/bin/curl", true, "/usr/bin/curl"},
        UTF8Case{"TwoBytes", "caf\xC3\xA9", true, "caf\xC3\xA9"},
        UTF8Case{"ThreeBytes", "\xE2\x80\x94", true, "\xE2\x80\x94"},
        UTF8Case{"FourBytes", "\xF0\x9D\x84\x9E", true, "\xF0\x9D\x84\x9E"},
        UTF8Case{"HighestScalar", "\xF4\x8F\xBF\xBF", true, "\xF4\x8F\xBF\xBF"},
        UTF8Case{"LoneContinuation", "a\x80z", false, "a" + kFFFD + "z"},
        UTF8Case{"InvalidByte", "\xFF", false, kFFFD},
        UTF8Case{"OverlongSlash", "\xC0\xAF", false, kFFFD + kFFFD},
        UTF8Case{"OverlongThreeBytes", "\xE0\x80\xAF", false, kFFFD + kFFFD + kFFFD},
        UTF8Case{"Surrogate", "\xED\xA0\x80", false, kFFFD + kFFFD + kFFFD},
        UTF8Case{"BeyondUnicode", "\xF4\x90\x80\x80", false, kFFFD + kFFFD + kFFFD + kFFFD},
        UTF8Case{"TruncatedAtEnd", "ab\xF0\x9D\x84", false, "ab" + kFFFD},
        UTF8Case{"TruncatedBeforeAscii",
                 "\xE2\x82"
                 "A",
                 false, kFFFD + "A"},
        UTF8Case{"TruncatedThenValid", "\xE2\xE2\x80\x94", false, kFFFD + "\xE2\x80\x94"}),
    [](const auto& p) { return std::string(p.param.name); });

}  // namespace
}  // namespace tarnwick
