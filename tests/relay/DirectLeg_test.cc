// The fail-open leg: a direct dial to the real destination and two byte pumps.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "RelayHarness.h"

namespace tarnwick {
namespace {

class DirectLegFixture {
 public:
  std::shared_ptr<ScriptedTCPFlow> dial(const FlowTarget& target = RelayHarness::defaultTarget(),
                                        FailOpenReason reason = FailOpenReason::NoAck) {
    auto flow = h.makeFlow(target);
    h.engine.dialDirect(flow, target, 4242, "/usr/bin/agent", reason, queue);
    h.env->runUntilIdle();
    return flow;
  }
  // Dials and makes the destination accept.
  std::shared_ptr<ScriptedTCPFlow> dialReady() {
    auto flow = dial();
    h.connection(0)->becomeReady();
    h.env->runUntilIdle();
    return flow;
  }
  std::size_t closes() const { return h.context->ofKind("relay.close").size(); }

  RelayHarness h;
  std::shared_ptr<DispatchQueue> queue =
      h.env->makeQueue(RelayEngine::kRelayQueueLabel, QualityOfService::UserInitiated);
};

struct InvalidPortCase {
  const char* name;
  std::string port;
};

class DirectLegInvalidPortTest : public ::testing::TestWithParam<InvalidPortCase>,
                                 public DirectLegFixture {};

TEST_P(DirectLegInvalidPortTest, ClosesTheFlowWithOneLineAndNoEvent) {
  auto flow = dial({"198.18.0.10", GetParam().port}, FailOpenReason::HandshakeTimeout);
  EXPECT_EQ(h.log->messages(),
            std::vector<std::string>{"dialDirect: invalid target port " + GetParam().port +
                                     " (reason=handshake-timeout) — closing"});
  EXPECT_TRUE(flow->readClosed());
  EXPECT_TRUE(flow->writeClosed());
  EXPECT_TRUE(h.context->events().empty());
  EXPECT_EQ(h.connectionCount(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Ports, DirectLegInvalidPortTest,
    ::testing::Values(InvalidPortCase{"Empty", ""}, InvalidPortCase{"Name", "https"},
                      InvalidPortCase{"TooLarge", "70000"}, InvalidPortCase{"Negative", "-1"},
                      InvalidPortCase{"Zero", "0"}, InvalidPortCase{"PlusMinus", "+-1"},
                      InvalidPortCase{"LeadingBlank", " 443"},
                      InvalidPortCase{"TrailingJunk", "443x"}),
    CaseName());

struct ValidPortCase {
  const char* name;
  std::string port;
  std::uint16_t dialled;
};

class DirectLegValidPortTest : public ::testing::TestWithParam<ValidPortCase>,
                               public DirectLegFixture {};

TEST_P(DirectLegValidPortTest, AnnouncesThenDials) {
  std::size_t eventsWhenDialled = 99;
  h.connections->onMake = [&](const auto&) { eventsWhenDialled = h.context->events().size(); };
  auto flow = dial({"example.net", GetParam().port}, FailOpenReason::RelayFailed);
  EXPECT_EQ(h.log->messages(),
            std::vector<std::string>{"relay leg unavailable (relay-failed) — failing OPEN: dialing "
                                     "example.net:" +
                                     GetParam().port + " direct (uninspected)"});
  EXPECT_EQ(eventsWhenDialled, 1u);  // the event goes out before the dial
  ASSERT_EQ(h.connectionCount(), 1u);
  EXPECT_EQ(h.connection(0)->endpoint().host, "example.net");
  EXPECT_EQ(h.connection(0)->endpoint().port.rawValue(), GetParam().dialled);
  const auto events = h.context->ofKind("relay.failopen");
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0]["dest_port"], GetParam().dialled);
  EXPECT_EQ(events[0]["reason"], "relay-failed");
  h.connection(0)->fail(ECONNREFUSED);
  h.env->runUntilIdle();
}

INSTANTIATE_TEST_SUITE_P(Ports, DirectLegValidPortTest,
                         ::testing::Values(ValidPortCase{"Plain", "443", 443},
                                           ValidPortCase{"LeadingPlus", "+443", 443},
                                           ValidPortCase{"LeadingZeros", "00443", 443},
                                           ValidPortCase{"Lowest", "1", 1},
                                           ValidPortCase{"Highest", "65535", 65535}),
                         CaseName());

struct LegEndCase {
  const char* name;
  std::function<void(RelayHarness&, ScriptedTCPFlow&, ScriptedConnection&)> script;
  std::string agentGot;
  std::string destinationGot;
  bool destinationWriteShutDown;
};

class DirectLegEndTest : public ::testing::TestWithParam<LegEndCase>, public DirectLegFixture {};

TEST_P(DirectLegEndTest, EndsTheWholeLegOnce) {
  auto flow = dialReady();
  auto conn = h.connection(0);
  GetParam().script(h, *flow, *conn);
  h.env->runUntilIdle();
  EXPECT_EQ(textOf(flow->written()), GetParam().agentGot);
  EXPECT_EQ(textOf(conn->sent()), GetParam().destinationGot);
  EXPECT_EQ(conn->writeShutDown(), GetParam().destinationWriteShutDown);
  EXPECT_EQ(closes(), 1u);
  EXPECT_TRUE(conn->cancelled());
  EXPECT_TRUE(flow->readClosed());
  EXPECT_TRUE(flow->writeClosed());
  EXPECT_EQ(h.context->circuitFailures() + h.context->circuitSuccesses(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Ends, DirectLegEndTest,
    ::testing::Values(LegEndCase{"AgentEndsItsStream",
                                 [](RelayHarness&, ScriptedTCPFlow& f, ScriptedConnection&) {
                                   f.agentSends(bytesOf("hello"));
                                   f.agentEnds();
                                 },
                                 "", "hello", true},
                      LegEndCase{"AgentReadFails",
                                 [](RelayHarness&, ScriptedTCPFlow& f, ScriptedConnection&) {
                                   f.agentFails({5, "gone"});
                                 },
                                 "", "", true},
                      LegEndCase{"DestinationEndsWithItsLastBytes",
                                 [](RelayHarness&, ScriptedTCPFlow&, ScriptedConnection& c) {
                                   c.deliver(bytesOf("reply"));
                                   c.deliver(bytesOf("bye"), true);
                                 },
                                 "replybye", "", false},
                      LegEndCase{"DestinationErrorAfterSomeBytes",
                                 [](RelayHarness&, ScriptedTCPFlow&, ScriptedConnection& c) {
                                   c.deliver(bytesOf("x"), false, NWError::fromErrno(ECONNRESET));
                                 },
                                 "x", "", false},
                      LegEndCase{"DestinationErrorAlone",
                                 [](RelayHarness&, ScriptedTCPFlow&, ScriptedConnection& c) {
                                   c.deliver(std::nullopt, false, NWError::fromErrno(ECONNRESET));
                                 },
                                 "", "", false},
                      LegEndCase{"SendToDestinationFails",
                                 [](RelayHarness& h, ScriptedTCPFlow& f, ScriptedConnection& c) {
                                   c.setAutoCompleteSends(false);
                                   f.agentSends(bytesOf("lost"));
                                   h.env->runUntilIdle();
                                   c.completeSend(NWError::fromErrno(EPIPE));
                                 },
                                 "", "", false},
                      LegEndCase{"WriteToAgentFails",
                                 [](RelayHarness&, ScriptedTCPFlow& f, ScriptedConnection& c) {
                                   f.failWrites(NEError{32, "broken"});
                                   c.deliver(bytesOf("unwritten"));
                                 },
                                 "", "", false},
                      LegEndCase{"BothSidesEndTogether",
                                 [](RelayHarness&, ScriptedTCPFlow& f, ScriptedConnection& c) {
                                   f.agentEnds();
                                   c.deliverEnd();
                                 },
                                 "", "", true}),
    CaseName());

class DirectLegTest : public ::testing::Test, public DirectLegFixture {};

TEST_F(DirectLegTest, CarriesBytesBothWaysInOrder) {
  auto flow = dialReady();
  auto conn = h.connection(0);
  Bytes up, down;
  for (std::size_t i = 0; i < 20; ++i) {
    const Bytes a = patternBytes(100 + i, up.size());
    const Bytes b = patternBytes(70000 + i, down.size());  // larger than one receive
    up.insert(up.end(), a.begin(), a.end());
    down.insert(down.end(), b.begin(), b.end());
    flow->agentSends(a);
    conn->deliver(b);
    h.env->runUntilIdle();
  }
  EXPECT_EQ(conn->sent(), up);
  EXPECT_EQ(flow->written(), down);
  EXPECT_EQ(closes(), 0u);
  flow->agentEnds();
  h.env->runUntilIdle();
  EXPECT_EQ(closes(), 1u);
}

TEST_F(DirectLegTest, FailedDialClosesTheFlowWithoutAClose) {
  auto flow = dial();
  h.connection(0)->fail(EHOSTUNREACH);
  h.env->runUntilIdle();
  EXPECT_EQ(h.log->count("dialDirect: direct dial to 198.18.0.10:443 failed — closing"), 1u);
  EXPECT_TRUE(flow->readClosed());
  EXPECT_TRUE(flow->writeClosed());
  EXPECT_TRUE(h.connection(0)->cancelled());
  EXPECT_EQ(h.context->eventTrail(), std::vector<std::string>{"relay.failopen:no-ack"});
}

TEST_F(DirectLegTest, WaitingDialKeepsTheFlowOpenUntilReady) {
  auto flow = dial();
  auto conn = h.connection(0);
  conn->wait(ENETUNREACH);
  h.env->advance(std::chrono::hours(1));
  EXPECT_FALSE(flow->readClosed());
  EXPECT_EQ(flow->pendingReads(), 0u);
  conn->becomeReady();
  flow->agentSends(bytesOf("late"));
  h.env->runUntilIdle();
  EXPECT_EQ(textOf(conn->sent()), "late");
  flow->agentEnds();
  h.env->runUntilIdle();
  EXPECT_EQ(closes(), 1u);
}

TEST_F(DirectLegTest, AgentEndFinishesAtOnceEvenWithAReplyInFlight) {
  auto flow = dialReady();
  auto conn = h.connection(0);
  flow->agentEnds();
  h.env->runUntilIdle();
  conn->deliver(bytesOf("too late"));
  h.env->runUntilIdle();
  EXPECT_EQ(closes(), 1u);
  EXPECT_TRUE(flow->written().empty());
}

TEST_F(DirectLegTest, EmptyReceiveStopsThatDirectionOnly) {
  auto flow = dialReady();
  auto conn = h.connection(0);
  conn->deliver(Bytes{});
  h.env->runUntilIdle();
  EXPECT_EQ(conn->pendingReceives(), 0u);  // no further receive on this connection
  EXPECT_EQ(closes(), 0u);
  flow->agentSends(bytesOf("still up"));
  h.env->runUntilIdle();
  EXPECT_EQ(textOf(conn->sent()), "still up");
  flow->agentEnds();
  h.env->runUntilIdle();
  EXPECT_EQ(closes(), 1u);
}

TEST_F(DirectLegTest, ProviderGoneStopsThePumpsWhereTheyAre) {
  auto flow = dialReady();
  auto conn = h.connection(0);
  h.context.reset();
  flow->agentSends(bytesOf("x"));
  conn->deliver(bytesOf("y"));
  h.env->runUntilIdle();
  EXPECT_TRUE(conn->sent().empty());
  EXPECT_TRUE(flow->written().empty());
  EXPECT_FALSE(flow->readClosed());
  EXPECT_FALSE(conn->cancelled());
}

}  // namespace
}  // namespace tarnwick
