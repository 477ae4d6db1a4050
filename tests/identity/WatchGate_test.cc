#include "identity/WatchGate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <string>
#include <thread>

#include "IdentityTesting.h"

namespace tarnwick {
namespace {

using SigningSet = WatchGate::SigningSet;
using PidSet = WatchGate::PidSet;

struct DecodeCase {
  const char* name;
  std::string message;
  bool decoded;
  SigningSet signing;
  PidSet pids;
};

class WatchGateDecodeTest : public ::testing::TestWithParam<DecodeCase> {};

TEST_P(WatchGateDecodeTest, Decodes) {
  const auto& c = GetParam();
  const auto result = WatchGate::decode(bytesOf(c.message));
  ASSERT_EQ(result.has_value(), c.decoded);
  if (!result) return;
  EXPECT_EQ(result->first, c.signing);
  EXPECT_EQ(result->second, c.pids);
}

INSTANTIATE_TEST_SUITE_P(
    Messages, WatchGateDecodeTest,
    ::testing::Values(
        DecodeCase{"WellFormed",
                   R"({"watchedSigningIDs":["com.example.agent"],"watchedPIDs":[4123,"4177"]})",
                   true,
                   {"com.example.agent"},
                   {4123, 4177}},
        DecodeCase{"Empty", "", false, {}, {}},
        DecodeCase{"NotJSON", "watchedPIDs=1", false, {}, {}},
        DecodeCase{"TopLevelArray", "[1,2]", false, {}, {}},
        DecodeCase{"EmptyObjectClearsBoth", "{}", true, {}, {}},
        DecodeCase{"OtherKeysIgnored", R"({"x":1,"watchedPIDs":[3]})", true, {}, {3}},
        DecodeCase{"EmptyTextsDropped", R"({"watchedSigningIDs":["a","",""]})", true, {"a"}, {}},
        DecodeCase{"OneNonTextDiscardsAll", R"({"watchedSigningIDs":["a",5]})", true, {}, {}},
        DecodeCase{
            "SigningAsJSONText", R"({"watchedSigningIDs":"[\"a\",\"b\"]"})", true, {"a", "b"}, {}},
        DecodeCase{"SigningAsPlainText", R"({"watchedSigningIDs":"a"})", true, {}, {}},
        DecodeCase{
            "SigningKeptExactly", R"({"watchedSigningIDs":[" A ","a"]})", true, {" A ", "a"}, {}},
        DecodeCase{"PidElementsSkippedOneByOne",
                   R"({"watchedPIDs":[12,"13","x",14.9,null,"15 ",[16],{"p":17}]})",
                   true,
                   {},
                   {12, 13, 14}},
        DecodeCase{"PidSignsAndBooleans",
                   R"({"watchedPIDs":["-4","+5","+-6","-",true,false]})",
                   true,
                   {},
                   {-4, 5, 1, 0}},
        DecodeCase{"PidTextOverflowSkipped",
                   R"({"watchedPIDs":["9223372036854775807","9223372036854775808"]})",
                   true,
                   {},
                   {INT64_MAX}},
        DecodeCase{"PidsAsJSONText", R"({"watchedPIDs":"[7,\"8\"]"})", true, {}, {7, 8}},
        DecodeCase{"PidsAsBareNumber", R"({"watchedPIDs":7})", true, {}, {}},
        DecodeCase{"PidsAsNonArrayJSONText", R"({"watchedPIDs":"{\"a\":7}"})", true, {}, {}}),
    CaseName());

TEST(WatchGateDecoders, AbsentValueGivesEmptySets) {
  EXPECT_TRUE(WatchGate::decodeStringSet(nullptr).empty());
  EXPECT_TRUE(WatchGate::decodeIntSet(nullptr).empty());
}

struct LookupCase {
  const char* name;
  std::string signingID;
  std::int64_t pid;
  bool watched;
  bool signingMatches;
};

class WatchGateLookupTest : public ::testing::TestWithParam<LookupCase> {
 protected:
  WatchGateLookupTest() { gate_.update({"com.example", ""}, {42, 0, -3}); }
  WatchGate gate_;
};

TEST_P(WatchGateLookupTest, MatchesExactly) {
  const auto& c = GetParam();
  EXPECT_EQ(gate_.isWatched(c.signingID, c.pid), c.watched);
  EXPECT_EQ(gate_.signingMatches(c.signingID), c.signingMatches);
}

INSTANTIATE_TEST_SUITE_P(
    Lookups, WatchGateLookupTest,
    ::testing::Values(LookupCase{"SigningMatch", "com.example", 7, true, true},
                      LookupCase{"PidMatch", "x", 42, true, false},
                      LookupCase{"Neither", "x", 43, false, false},
                      LookupCase{"EmptySigningAndPidZeroNeverMatch", "", 0, false, false},
                      LookupCase{"NegativePidAsStored", "", -3, true, false},
                      LookupCase{"CaseSensitive", "Com.Example", 7, false, false},
                      LookupCase{"NoPrefixMatch", "com.example.helper", 7, false, false}),
    CaseName());

TEST(WatchGate, UpdateReplacesBothSetsAndCounts) {
  WatchGate gate;
  gate.update({"a", "b"}, {1, 2, 3});
  EXPECT_EQ(gate.signingCount(), 2);
  EXPECT_EQ(gate.pidCount(), 3);
  gate.update({}, {9});
  EXPECT_FALSE(gate.isWatched("a", 1));
  EXPECT_TRUE(gate.isWatched("", 9));
  EXPECT_EQ(gate.signingCount(), 0);
  EXPECT_EQ(gate.pidCount(), 1);
}

// Both sets are replaced under one lock: each of the two watch sets covers ("a", 1), one by its
// signing identifier and the other by its PID, so a reader that saw the new signing set with the
// old PID set would find neither.
TEST(WatchGate, ReadersNeverSeeHalfAnUpdate) {
  WatchGate gate;
  gate.update({"a"}, {7});
  std::atomic<bool> done{false};
  std::thread writer([&] {
    for (int i = 0; i < 2000; ++i) {
      if (i % 2 == 0) {
        gate.update({"x"}, {1});
      } else {
        gate.update({"a"}, {7});
      }
    }
    done = true;
  });
  int torn = 0;
  while (!done) {
    if (!gate.isWatched("a", 1)) ++torn;
  }
  writer.join();
  EXPECT_EQ(torn, 0);
}

}  // namespace
}  // namespace tarnwick
