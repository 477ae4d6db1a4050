#include "identity/IdentityGate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "IdentityTesting.h"

namespace tarnwick {
namespace {

struct Step {
  std::int64_t pidVersion;
  const char* signingID;
  bool allowed;
};

struct BindingCase {
  const char* name;
  std::vector<Step> steps;  // all for PID 500, in order
};

class IdentityGateBindingTest : public ::testing::TestWithParam<BindingCase> {};

TEST_P(IdentityGateBindingTest, AllowsOnlyTheBoundProcess) {
  IdentityGate gate;
  for (const Step& step : GetParam().steps) {
    EXPECT_EQ(gate.allowPIDMatch(500, step.pidVersion, step.signingID), step.allowed)
        << "version " << step.pidVersion << ", identifier '" << step.signingID << "'";
  }
}

INSTANTIATE_TEST_SUITE_P(
    Sequences, IdentityGateBindingTest,
    ::testing::Values(
        BindingCase{"SameProcessAgain", {{7, "a", true}, {7, "a", true}}},
        BindingCase{"ReusedPidRefusedForGood",
                    {{7, "a", true}, {8, "a", false}, {8, "a", false}, {7, "a", true}}},
        BindingCase{"ConflictingIdentifierRefused", {{7, "a", true}, {7, "b", false}}},
        BindingCase{"EmptyCurrentIdentifierAccepted", {{7, "a", true}, {7, "", true}}},
        BindingCase{"EmptyRecordedIdentifierStaysEmpty",
                    {{7, "", true}, {7, "b", true}, {7, "c", true}, {8, "", false}}},
        BindingCase{"UnknownVersionRecordsNothing", {{-1, "a", false}, {9, "b", true}}},
        BindingCase{"UnknownVersionRefusedWhenBound", {{7, "a", true}, {-1, "a", false}}},
        BindingCase{"VersionZeroIsAVersion", {{0, "a", true}, {0, "a", true}, {1, "a", false}}}),
    CaseName());

TEST(IdentityGate, PruneKeepsOnlyWatchedBindings) {
  IdentityGate gate;
  gate.allowPIDMatch(500, 7, "a");
  gate.allowPIDMatch(501, 3, "b");
  gate.pruneTo({500, 999});
  EXPECT_EQ(gate.recordedCount(), 1);
  EXPECT_FALSE(gate.allowPIDMatch(500, 8, "a")) << "the kept binding is unchanged";
  EXPECT_TRUE(gate.allowPIDMatch(501, 4, "c")) << "a pruned PID binds afresh";
  gate.pruneTo({});
  EXPECT_EQ(gate.recordedCount(), 0);
}

TEST(IdentityGate, ForgetRemovesOneBinding) {
  IdentityGate gate;
  gate.allowPIDMatch(500, 7, "a");
  gate.allowPIDMatch(501, 7, "a");
  gate.forget(500);
  gate.forget(12345);
  EXPECT_EQ(gate.recordedCount(), 1);
  EXPECT_TRUE(gate.allowPIDMatch(500, 8, "z"));
}

// Simultaneous first flows from one PID, each with another version: exactly one binds.
TEST(IdentityGate, SimultaneousFirstFlowsBindOnce) {
  IdentityGate gate;
  std::atomic<int> allowed{0};
  std::vector<std::thread> threads;
  for (int version = 0; version < 8; ++version) {
    threads.emplace_back([&, version] {
      for (int i = 0; i < 100; ++i) {
        if (gate.allowPIDMatch(500, version, "")) ++allowed;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(allowed.load(), 100);
  EXPECT_EQ(gate.recordedCount(), 1);
}

}  // namespace
}  // namespace tarnwick
