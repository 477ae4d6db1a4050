#include "identity/AuditToken.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>

#include "IdentityTesting.h"
#include "platform/ProcessTable.h"

namespace tarnwick {
namespace {

Bytes tokenOf(const std::array<std::uint32_t, 8>& words) {
  Bytes token(kAuditTokenSize);
  std::memcpy(token.data(), words.data(), kAuditTokenSize);
  return token;
}

struct MalformedCase {
  const char* name;
  std::optional<Bytes> token;
};

class MalformedTokenTest : public ::testing::TestWithParam<MalformedCase> {};

TEST_P(MalformedTokenTest, GivesFailureValues) {
  const auto& token = GetParam().token;
  EXPECT_EQ(pidFromAuditTokenData(token), 0);
  EXPECT_EQ(pidVersionFromAuditTokenData(token), -1);
  EXPECT_EQ(signingIDFromAuditTokenData(token), std::nullopt);
}

// A 31- or 33-byte token around this process's own, which would otherwise decode.
Bytes ownTokenResized(std::size_t size) {
  Bytes token = auditTokenForPID(::getpid()).value_or(Bytes(kAuditTokenSize));
  token.resize(size);
  return token;
}

INSTANTIATE_TEST_SUITE_P(Lengths, MalformedTokenTest,
                         ::testing::Values(MalformedCase{"Absent", std::nullopt},
                                           MalformedCase{"Empty", Bytes{}},
                                           MalformedCase{"ThirtyOneBytes", ownTokenResized(31)},
                                           MalformedCase{"ThirtyThreeBytes", ownTokenResized(33)}),
                         CaseName());

struct WordCase {
  const char* name;
  std::uint32_t pidWord;
  std::uint32_t versionWord;
  std::int64_t pid;
  std::int64_t pidVersion;
};

class TokenWordsTest : public ::testing::TestWithParam<WordCase> {};

TEST_P(TokenWordsTest, SignExtendsPidAndVersion) {
  const auto& c = GetParam();
  const Bytes token = tokenOf({11, 12, 13, 14, 15, c.pidWord, 17, c.versionWord});
  EXPECT_EQ(pidFromAuditTokenData(token), c.pid);
  EXPECT_EQ(pidVersionFromAuditTokenData(token), c.pidVersion);
}

INSTANTIATE_TEST_SUITE_P(
    Words, TokenWordsTest,
    ::testing::Values(WordCase{"Zeros", 0, 0, 0, 0}, WordCase{"Ordinary", 4123, 99, 4123, 99},
                      WordCase{"AllOnes", 0xFFFFFFFF, 0xFFFFFFFF, -1, -1},
                      WordCase{"LowestNegative", 0x80000000, 0x80000000, INT32_MIN, INT32_MIN}),
    CaseName());

TEST(AuditToken, ZeroTokenNamesNoProcess) {
  EXPECT_EQ(signingIDFromAuditTokenData(Bytes(kAuditTokenSize)), std::nullopt);
}

TEST(AuditToken, RoundTripOfThisProcess) {
  const auto token = auditTokenForPID(::getpid());
  ASSERT_TRUE(token.has_value());
  ASSERT_EQ(token->size(), kAuditTokenSize);
  std::array<std::uint32_t, 8> words;
  std::memcpy(words.data(), token->data(), kAuditTokenSize);
  EXPECT_EQ(words[1], ::geteuid());
  EXPECT_EQ(words[2], ::getegid());
  EXPECT_EQ(words[3], ::getuid());
  EXPECT_EQ(words[4], ::getgid());
  EXPECT_EQ(pidFromAuditTokenData(token), ::getpid());
  EXPECT_EQ(pidVersionFromAuditTokenData(token),
            pidVersionForStartTime(readProcessStat(::getpid())->startTime));
  EXPECT_GE(pidVersionFromAuditTokenData(token), 0);
  EXPECT_EQ(signingIDFromAuditTokenData(token),
            std::filesystem::canonical("/proc/self/exe").string());
}

TEST(AuditToken, StaleVersionNamesNoProcess) {
  auto token = auditTokenForPID(::getpid());
  ASSERT_TRUE(token.has_value());
  (*token)[28] ^= 1;  // the PID version word
  EXPECT_EQ(signingIDFromAuditTokenData(token), std::nullopt);
}

TEST(AuditToken, ExitedChildGivesFailureValues) {
  SpawnedProcess child("/bin/sleep");
  ASSERT_GT(child.pid(), 0);
  const auto token = auditTokenForPID(child.pid());
  ASSERT_TRUE(token.has_value());
  EXPECT_EQ(signingIDFromAuditTokenData(token), std::filesystem::canonical("/bin/sleep").string());
  child.reap();
  EXPECT_EQ(auditTokenForPID(child.pid()), std::nullopt);
  EXPECT_EQ(signingIDFromAuditTokenData(token), std::nullopt);
  EXPECT_EQ(pidFromAuditTokenData(token), child.pid()) << "decoding itself needs no process";
}

TEST(AuditToken, VersionKeepsLow31BitsOfStartTime) {
  EXPECT_EQ(pidVersionForStartTime(5), 5);
  EXPECT_EQ(pidVersionForStartTime(0x7FFFFFFF), 0x7FFFFFFF);
  EXPECT_EQ(pidVersionForStartTime(0x80000001), 1);
  EXPECT_EQ(pidVersionForStartTime(0x1234567890ull), 0x34567890);
}

const std::string kStatLine =
    "4242 (a (b) c) S 77 4242 4242 0 -1 4194304 100 0 0 0 1 2 0 0 20 0 1 0 987654 1000 50 "
    "18446744073709551615 1 1 0 0 0 0 0 0 0 0 0 0 17 1 0 0 0 0 0\n";

struct StatCase {
  const char* name;
  std::string line;
  std::optional<std::int64_t> parent;
  std::optional<std::uint64_t> startTime;
};

class ParseProcessStatTest : public ::testing::TestWithParam<StatCase> {};

TEST_P(ParseProcessStatTest, ReadsFieldsAfterTheCommandName) {
  const auto& c = GetParam();
  const auto stat = parseProcessStat(c.line);
  ASSERT_EQ(stat.has_value(), c.parent.has_value());
  if (!stat) return;
  EXPECT_EQ(stat->parentPID, *c.parent);
  EXPECT_EQ(stat->startTime, *c.startTime);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, ParseProcessStatTest,
    ::testing::Values(
        StatCase{"NameWithBlanksAndParentheses", kStatLine, 77, 987654},
        StatCase{"PlainName", "1 (init) S 0 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 5 0 0", 0, 5},
        StatCase{"NameOfClosingParentheses", "9 ())) R 3 9 9 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 7", 3,
                 7},
        StatCase{"NoParentheses", "9 init S 3 9 9 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 7", {}, {}},
        StatCase{
            "ClosingBeforeOpening", "9 )init( S 3 9 9 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 7", {}, {}},
        StatCase{"FieldMissing", "9 (x) S 3 9 9 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0", {}, {}},
        StatCase{"ParentNotANumber", "9 (x) S x 9 9 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 7", {}, {}}),
    CaseName());

// A line cut anywhere before the first digit of the start time gives nothing; after it, the
// parent and a prefix of the start time.
TEST(ParseProcessStat, EveryTruncation) {
  const std::size_t startTimeAt = kStatLine.find("987654");
  for (std::size_t cut = 0; cut <= kStatLine.size(); ++cut) {
    const auto stat = parseProcessStat(std::string_view(kStatLine).substr(0, cut));
    ASSERT_EQ(stat.has_value(), cut > startTimeAt) << cut;
    if (stat) {
      EXPECT_EQ(stat->parentPID, 77) << cut;
    }
  }
}

}  // namespace
}  // namespace tarnwick
