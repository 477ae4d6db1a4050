#include "relay/FrontDoorCircuit.h"

#include <gtest/gtest.h>

#include <vector>

#include "RelayHarness.h"

namespace tarnwick {
namespace {

using Kind = FrontDoorCircuitState::Kind;

// Made-up wall-clock times, in seconds from an arbitrary origin.
WallTime at(double seconds) {
  return WallTime(std::chrono::seconds(1767225600)) +
         std::chrono::duration_cast<WallTime::duration>(Seconds(seconds));
}

enum class Op { Allow, Fail, Succeed };

struct Step {
  double t;
  Op op;
  bool allowed = true;  // what Allow must answer
};

Step allow(double t, bool allowed) { return {t, Op::Allow, allowed}; }
Step fail(double t) { return {t, Op::Fail}; }
Step succeed(double t) { return {t, Op::Succeed}; }

struct CircuitCase {
  const char* name;
  std::vector<Step> steps;
  Kind finalKind;
  double openSince = 0;  // for an Open final state
  std::int64_t threshold = FrontDoorCircuit::kDefaultFailureThreshold;
};

class FrontDoorCircuitTest : public ::testing::TestWithParam<CircuitCase> {};

TEST_P(FrontDoorCircuitTest, FollowsTheTimeline) {
  const auto& c = GetParam();
  FrontDoorCircuit circuit(c.threshold);
  for (const auto& step : c.steps) {
    switch (step.op) {
      case Op::Allow:
        EXPECT_EQ(circuit.allowRelay(at(step.t)), step.allowed) << "allow at t=" << step.t;
        break;
      case Op::Fail:
        circuit.recordFailure(at(step.t));
        break;
      case Op::Succeed:
        circuit.recordSuccess(at(step.t));
        break;
    }
  }
  EXPECT_EQ(circuit.state().kind(), c.finalKind);
  if (c.finalKind == Kind::Open) {
    EXPECT_EQ(circuit.state(), FrontDoorCircuitState::open(at(c.openSince)));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Timelines, FrontDoorCircuitTest,
    ::testing::Values(
        CircuitCase{"ClosedAllowsEveryRelayWhileCounting",
                    {allow(0, true), fail(0), allow(1, true), fail(1), allow(2, true)},
                    Kind::Closed},
        CircuitCase{"ThirdFailureWithinTheWindowOpensAtThatFailure",
                    {fail(0), fail(10), allow(58, true), fail(59), allow(59, false),
                     allow(100, false), allow(118.999, false)},
                    Kind::Open,
                    59},
        CircuitCase{"CooldownLetsExactlyOneProbeThrough",
                    {fail(0), fail(10), fail(59), allow(119, true), allow(119, false),
                     allow(500, false), allow(100000, false)},
                    Kind::HalfOpen},
        CircuitCase{"FailureBeforeTheCutOffIsDropped",
                    {fail(0), fail(30), fail(65), allow(65, true)},
                    Kind::Closed},
        CircuitCase{"TwoFailuresSurviveTheCutOffAndAThirdOpens",
                    {fail(0), fail(30), fail(65), fail(66)},
                    Kind::Open,
                    66},
        CircuitCase{
            "FailureExactlyAtTheCutOffStillCounts", {fail(0), fail(30), fail(60)}, Kind::Open, 60},
        CircuitCase{"SuccessForgivesEarlierFailures",
                    {fail(0), fail(10), succeed(20), fail(30), fail(31), allow(31, true)},
                    Kind::Closed},
        CircuitCase{"CountingRestartsAfterASuccess",
                    {fail(0), fail(10), succeed(20), fail(30), fail(31), fail(32)},
                    Kind::Open,
                    32},
        CircuitCase{"ProbeSuccessClosesWithAnEmptyFailureList",
                    {fail(0), fail(10), fail(59), allow(119, true), succeed(120), fail(121),
                     fail(122), allow(122, true)},
                    Kind::Closed},
        CircuitCase{"ProbeFailureReopensWithAFreshCooldown",
                    {fail(0), fail(10), fail(59), allow(119, true), fail(130), allow(189, false),
                     allow(190, true)},
                    Kind::HalfOpen},
        CircuitCase{"ProbeFailureRecordsItsOwnTime",
                    {fail(0), fail(10), fail(59), allow(119, true), fail(130)},
                    Kind::Open,
                    130},
        CircuitCase{"FailureAndSuccessWhileOpenKeepTheOpeningTime",
                    {fail(0), fail(10), fail(59), fail(70), succeed(80), allow(118.9, false),
                     allow(119, true)},
                    Kind::HalfOpen},
        CircuitCase{"OpenIgnoresLateOutcomes",
                    {fail(0), fail(10), fail(59), fail(70), succeed(80)},
                    Kind::Open,
                    59},
        CircuitCase{
            "ClockSetBackWhileOpenLengthensTheWait",
            {fail(0), fail(10), fail(59), allow(-3600, false), allow(118, false), allow(119, true)},
            Kind::HalfOpen},
        CircuitCase{"ClockSetForwardWhileOpenEndsTheWaitEarly",
                    {fail(0), fail(10), fail(59), allow(59 + 3600, true)},
                    Kind::HalfOpen},
        CircuitCase{"ClockSetBackWhileClosedKeepsLaterFailures",
                    {fail(100), fail(30), fail(40)},
                    Kind::Open,
                    40},
        CircuitCase{"ThresholdOfOneOpensAtTheFirstFailure",
                    {allow(0, true), fail(5), allow(6, false)},
                    Kind::Open,
                    5,
                    1}),
    CaseName());

}  // namespace
}  // namespace tarnwick
