#include "provider/TraceID.h"

#include <gtest/gtest.h>

#include <set>
#include <vector>

namespace tarnwick {
namespace {

struct HexCase {
  const char* name;
  std::vector<std::uint8_t> bytes;
  std::string hex;
};

class EncodeHexTest : public ::testing::TestWithParam<HexCase> {};

TEST_P(EncodeHexTest, RendersHighNibbleFirstInLowercase) {
  EXPECT_EQ(TraceID::encodeHex(GetParam().bytes), GetParam().hex);
}

INSTANTIATE_TEST_SUITE_P(
    Table, EncodeHexTest,
    ::testing::Values(HexCase{"Empty", {}, ""}, HexCase{"Extremes", {0, 255}, "00ff"},
                      HexCase{"OneByte", {171}, "ab"},
                      HexCase{"EveryNibble",
                              {0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef},
                              "0123456789abcdef"}),
    [](const auto& param) { return std::string(param.param.name); });

TEST(TraceIDTest, MintedIdentifiersAreSixteenLowercaseHexCharactersAndDistinct) {
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    const std::string id = TraceID::mint();
    ASSERT_EQ(id.size(), 2u * TraceID::byteCount);
    EXPECT_EQ(id.find_first_not_of("0123456789abcdef"), std::string::npos) << id;
    seen.insert(id);
  }
  EXPECT_EQ(seen.size(), 1000u);
}

TEST(TraceIDTest, EveryNibbleValueTurnsUpInEveryPosition) {
  // A generator stuck on some bits (a constant byte, a masked nibble) would leave gaps here.
  std::vector<std::set<char>> perPosition(16);
  for (int i = 0; i < 2000; ++i) {
    const std::string id = TraceID::mint();
    for (size_t p = 0; p < id.size(); ++p) perPosition[p].insert(id[p]);
  }
  for (const auto& chars : perPosition) EXPECT_EQ(chars.size(), 16u);
}

}  // namespace
}  // namespace tarnwick
