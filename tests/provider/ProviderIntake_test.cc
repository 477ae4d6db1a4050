// Flow intake: which flows the provider takes, what it says about them, and how a taken flow
// reaches the relay.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "ProviderHarness.h"

namespace tarnwick {
namespace {

using namespace std::chrono_literals;

const std::string kNoEndpoint =
    "handleNewFlow: watched flow has no resolvable remote endpoint — passing through";
const std::string kNoPort =
    "handleNewFlow: no front-door port configured — passing watched flow through (agent keeps "
    "working)";
const std::string kCircuitOpen =
    "handleNewFlow: front-door circuit OPEN (daemon front door wedging relays) — passing watched "
    "flow DIRECT (uninspected) so the agent keeps working";

struct HandBackCase {
  const char* name;
  Json options;
  std::function<std::shared_ptr<NEAppProxyFlow>(ProviderHarness&)> flow;
  std::vector<std::string> logLines;
};

class HandBackTest : public ::testing::TestWithParam<HandBackCase> {};

TEST_P(HandBackTest, HandsTheFlowBackWithoutAnEvent) {
  ProviderHarness h;
  h.start(GetParam().options);
  h.bridge->clear();
  h.log->clear();
  EXPECT_FALSE(h.offer(GetParam().flow(h)));
  EXPECT_EQ(h.log->messages(), GetParam().logLines);
  EXPECT_TRUE(h.bridge->events().empty());
  EXPECT_EQ(h.connections->made().size(), 0u);
}

const Json kWatching{{"frontDoorPort", 9000}, {"watchedSigningIDs", {ProviderHarness::kAgent}}};

INSTANTIATE_TEST_SUITE_P(
    Intake, HandBackTest,
    ::testing::Values(
        HandBackCase{"Unwatched", kWatching, [](auto& h) { return h.tcpFlow("/usr/bin/other"); },
                     {}},
        HandBackCase{"UnwatchedUDP", kWatching,
                     [](auto& h) { return h.udpFlow("/usr/bin/other"); }, {}},
        HandBackCase{"NoEndpoint", kWatching,
                     [](auto& h) { return h.tcpFlow(ProviderHarness::kAgent, 1, 1, std::nullopt); },
                     {kNoEndpoint}},
        HandBackCase{"EmptyPort", kWatching,
                     [](auto& h) {
                       return h.tcpFlow(ProviderHarness::kAgent, 1, 1,
                                        NWHostEndpoint{"198.18.0.10", ""});
                     },
                     {kNoEndpoint}},
        HandBackCase{"EmptyHost", kWatching,
                     [](auto& h) {
                       return h.tcpFlow(ProviderHarness::kAgent, 1, 1, NWHostEndpoint{"", "443"});
                     },
                     {kNoEndpoint}},
        HandBackCase{"NoFrontDoorPort",
                     Json{{"watchedSigningIDs", {ProviderHarness::kAgent}}},
                     [](auto& h) { return h.tcpFlow(ProviderHarness::kAgent); }, {kNoPort}}),
    CaseName());

TEST(ProviderIntakeTest, RelaysAWatchedFlowAnnouncingItFirst) {
  ProviderHarness h;
  h.startWatchingAgent();
  auto flow = h.tcpFlow(ProviderHarness::kAgent, 4242, 7, NWHostEndpoint{"example.test", "https"});
  EXPECT_TRUE(h.provider->handleNewFlow(flow));
  // Announced before the open completes.
  ASSERT_EQ(h.bridge->trail(), std::vector<std::string>{"relay.open"});
  const Json open = h.bridge->events()[0];
  EXPECT_EQ(open["pid"], 4242);
  EXPECT_EQ(open["signing_id"], ProviderHarness::kAgent);
  EXPECT_EQ(open["dest_host"], "example.test");
  EXPECT_EQ(open["dest_port"], 0);  // a service name is not a number
  const std::string trace = open["trace"];
  EXPECT_EQ(trace.size(), 16u);
  EXPECT_EQ(open.size(), 7u);
  EXPECT_EQ(h.log->messages().back(),
            "handleNewFlow: relaying watched flow signing=/usr/bin/agent pid=4242 trace=" + trace +
                " → example.test:<private>");

  h.env->runUntilIdle();
  EXPECT_TRUE(flow->opened());
  ASSERT_EQ(h.connections->made().size(), 1u);
  const auto frontDoor = h.connections->made()[0];
  EXPECT_EQ(frontDoor->endpoint().host, "127.0.0.1");
  EXPECT_EQ(frontDoor->endpoint().port.rawValue(), 9000);
  frontDoor->becomeReady();
  h.env->runUntilIdle();
  EXPECT_NE(textOf(frontDoor->sent()).find("X-Brask-Trace: " + trace), std::string::npos)
      << textOf(frontDoor->sent());
}

TEST(ProviderIntakeTest, AFailedOpenLogsOnlyItsLine) {
  ProviderHarness h;
  h.startWatchingAgent();
  auto flow = h.tcpFlow(ProviderHarness::kAgent);
  flow->setOpenError(NEError{5, "flow vanished"});
  EXPECT_TRUE(h.offer(flow));
  EXPECT_EQ(h.bridge->trail(), std::vector<std::string>{"relay.open"});
  EXPECT_EQ(h.log->messages().back(), "handleNewFlow: flow.open failed: flow vanished");
  EXPECT_EQ(h.connections->made().size(), 0u);
}

TEST(ProviderIntakeTest, AnOpenCompletingAfterTheProviderIsGoneDoesNothing) {
  ProviderHarness h;
  h.startWatchingAgent();
  auto flow = h.tcpFlow(ProviderHarness::kAgent);
  EXPECT_TRUE(h.provider->handleNewFlow(flow));
  h.provider.reset();
  h.env->runUntilIdle();
  EXPECT_EQ(h.connections->made().size(), 0u);
}

TEST(ProviderIntakeTest, WatchedUDPIsReportedAndHandedBack) {
  ProviderHarness h;
  h.startWatchingAgent();
  EXPECT_FALSE(h.offer(h.udpFlow(ProviderHarness::kAgent, 4242)));
  ASSERT_EQ(h.bridge->events().size(), 1u);
  const Json event = h.bridge->events()[0];
  EXPECT_EQ(event["kind"], "quic.deny");
  EXPECT_EQ(event["pid"], 4242);
  EXPECT_EQ(event["signing_id"], ProviderHarness::kAgent);
  EXPECT_TRUE(event.contains("ts"));
  EXPECT_EQ(event.size(), 4u);
  EXPECT_EQ(h.log->messages().back(),
            "handleQUICFlow: QUIC/UDP from watched pid=4242 — passed through DIRECT (fail-open); "
            "destination-gated downgrade is on-device work");
}

// Three handshakes that fail open the circuit; then watched flows go direct with "circuit-open"
// until a probe after the cool-down.
TEST(ProviderCircuitTest, OpensAfterThreeFailuresThenLetsOneProbeThrough) {
  ProviderHarness h;
  h.startWatchingAgent();
  for (int i = 0; i < 3; ++i) {
    h.offer(h.tcpFlow(ProviderHarness::kAgent));
    h.connections->last()->fail(ECONNREFUSED);  // first attempt
    h.env->runUntilIdle();
    h.connections->last()->fail(ECONNREFUSED);  // the redial
    h.env->runUntilIdle();
    h.connections->last()->fail(ECONNREFUSED);  // the direct leg
    h.env->runUntilIdle();
  }
  EXPECT_EQ(h.provider->circuitStateForTest().kind(), FrontDoorCircuitState::Kind::Open);
  h.bridge->clear();
  const std::size_t dialled = h.connections->made().size();

  EXPECT_FALSE(h.offer(h.tcpFlow(ProviderHarness::kAgent)));
  EXPECT_EQ(h.log->messages().back(), kCircuitOpen);
  ASSERT_EQ(h.bridge->trail(), std::vector<std::string>{"relay.failopen:circuit-open"});
  EXPECT_FALSE(h.bridge->events()[0].contains("trace"));
  EXPECT_EQ(h.connections->made().size(), dialled);

  h.env->advance(61s);
  h.bridge->clear();
  EXPECT_TRUE(h.offer(h.tcpFlow(ProviderHarness::kAgent)));  // the probe
  EXPECT_EQ(h.provider->circuitStateForTest().kind(), FrontDoorCircuitState::Kind::HalfOpen);
  EXPECT_FALSE(h.offer(h.tcpFlow(ProviderHarness::kAgent)));  // everyone else waits
  EXPECT_EQ(h.bridge->trail(),
            (std::vector<std::string>{"relay.open", "relay.failopen:circuit-open"}));
}

TEST(ProviderCircuitTest, WithNoFrontDoorPortTheCircuitIsNotAsked) {
  ProviderHarness h;
  h.start(Json{{"watchedSigningIDs", {ProviderHarness::kAgent}}});
  for (int i = 0; i < 3; ++i) h.provider->circuitRecordFailure();
  h.bridge->clear();
  EXPECT_FALSE(h.offer(h.tcpFlow(ProviderHarness::kAgent)));
  EXPECT_TRUE(h.bridge->events().empty());
  h.env->advance(61s);
  EXPECT_EQ(h.provider->circuitStateForTest().kind(), FrontDoorCircuitState::Kind::Open);
}

TEST(ProviderSessionsTest, ASessionIsKeptByTheTableFromStartToFinish) {
  ProviderHarness h;
  h.startWatchingAgent();
  auto flow = h.tcpFlow(ProviderHarness::kAgent);
  h.offer(flow);
  auto frontDoor = h.connections->last();
  frontDoor->becomeReady();
  frontDoor->deliver(bytesOf("HTTP/1.1 200 Connection established\r\n\r\n"));
  h.env->runUntilIdle();
  EXPECT_EQ(h.provider->activeSessionCountForTest(), 1u);
  frontDoor->deliver(bytesOf("hello"));
  h.env->runUntilIdle();
  EXPECT_EQ(h.provider->circuitStateForTest().kind(), FrontDoorCircuitState::Kind::Closed);
  flow->agentEnds();
  frontDoor->deliverEnd();
  h.env->runUntilIdle();
  EXPECT_EQ(h.provider->activeSessionCountForTest(), 0u);
  EXPECT_EQ(h.bridge->trail().back(), "relay.close");
}

}  // namespace
}  // namespace tarnwick
