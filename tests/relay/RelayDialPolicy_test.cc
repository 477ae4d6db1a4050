#include "relay/RelayDialPolicy.h"

#include <gtest/gtest.h>

#include "RelayHarness.h"

namespace tarnwick {
namespace {

using Phase = RelayDialPolicy::FailurePhase;
using Decision = RelayDialPolicy::Decision;

struct DecideCase {
  const char* name;
  Phase phase;
  std::int64_t attemptsLeft;
  Decision expected;
};

class RelayDialPolicyTest : public ::testing::TestWithParam<DecideCase> {};

TEST_P(RelayDialPolicyTest, Decides) {
  const auto& c = GetParam();
  EXPECT_EQ(RelayDialPolicy::decide(c.phase, c.attemptsLeft), c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    TruthTable, RelayDialPolicyTest,
    ::testing::Values(
        DecideCase{"SetupWithOneLeftRedialsWithNoneLeft", Phase::ConnectionSetup, 1,
                   Decision::redial(0)},
        DecideCase{"SetupWithThreeLeftRedialsWithTwoLeft", Phase::ConnectionSetup, 3,
                   Decision::redial(2)},
        DecideCase{"SetupWithNoneLeftFailsOpen", Phase::ConnectionSetup, 0, Decision::failOpen()},
        DecideCase{"SetupWithNegativeCountFailsOpen", Phase::ConnectionSetup, -5,
                   Decision::failOpen()},
        DecideCase{"SetupAtTheLowestCountFailsOpen", Phase::ConnectionSetup, INT64_MIN,
                   Decision::failOpen()},
        DecideCase{"SetupAtTheHighestCountRedials", Phase::ConnectionSetup, INT64_MAX,
                   Decision::redial(INT64_MAX - 1)},
        DecideCase{"PostSetupFailsOpenWithRedialsLeft", Phase::PostSetup, 1, Decision::failOpen()},
        DecideCase{"PostSetupFailsOpenWithNoneLeft", Phase::PostSetup, 0, Decision::failOpen()}),
    CaseName());

struct EqualityCase {
  const char* name;
  Decision a;
  Decision b;
  bool equal;
};

class DecisionEqualityTest : public ::testing::TestWithParam<EqualityCase> {};

TEST_P(DecisionEqualityTest, ComparesCaseAndCount) {
  const auto& c = GetParam();
  EXPECT_EQ(c.a == c.b, c.equal);
  EXPECT_EQ(c.b == c.a, c.equal);
}

INSTANTIATE_TEST_SUITE_P(
    Pairs, DecisionEqualityTest,
    ::testing::Values(
        EqualityCase{"SameRedialCount", Decision::redial(0), Decision::redial(0), true},
        EqualityCase{"OtherRedialCount", Decision::redial(0), Decision::redial(1), false},
        EqualityCase{"RedialZeroIsNotFailOpen", Decision::redial(0), Decision::failOpen(), false},
        EqualityCase{"FailOpenEqualsFailOpen", Decision::failOpen(), Decision::failOpen(), true}),
    CaseName());

}  // namespace
}  // namespace tarnwick
