// A session's failover to the real destination: what reaches the destination, in which order,
// and how a failover that cannot complete ends the session.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "RelayHarness.h"

namespace tarnwick {
namespace {

using namespace std::chrono_literals;

using Trail = std::vector<std::string>;

class RelayFailoverTest : public ::testing::Test, public SessionFixture {
 protected:
  // The front door drops the connection before any response byte.
  void frontDoorDrops() {
    frontDoor->deliverEnd();
    h.env->runUntilIdle();
  }
};

TEST_F(RelayFailoverTest, DestinationGetsReplayThenHeldBytesThenNewBytes) {
  const Bytes early = patternBytes(500);
  agentSends(early);
  frontDoorDrops();
  ASSERT_TRUE(direct());
  Bytes held;
  for (int i = 0; i < 3; ++i) {
    const Bytes chunk = patternBytes(100, 500 + held.size());
    held.insert(held.end(), chunk.begin(), chunk.end());
    agentSends(chunk);
  }
  EXPECT_TRUE(direct()->sent().empty());
  EXPECT_EQ(RelayHarness::afterPreamble(*frontDoor), early);
  direct()->becomeReady();
  h.env->runUntilIdle();
  const Bytes later = patternBytes(200, 800);
  agentSends(later);
  EXPECT_EQ(direct()->sent(), concat({early, held, later}));
  EXPECT_EQ(h.context->eventTrail(),
            (Trail{"relay.failopen:passthrough_dial", "relay.failopen:passthrough_dial_spliced"}));
  EXPECT_EQ(h.context->circuitFailures(), 1);
  EXPECT_EQ(direct()->endpoint().host, "198.18.0.10");
  EXPECT_EQ(direct()->endpoint().port.rawValue(), 443);
  settle();
}

TEST_F(RelayFailoverTest, BytesHeldWhileTheReplayIsBeingSentAreDrainedInOrder) {
  const Bytes early = patternBytes(300);
  agentSends(early);
  frontDoorDrops();
  direct()->setAutoCompleteSends(false);
  direct()->becomeReady();
  h.env->runUntilIdle();  // the replay send is outstanding
  const Bytes during = patternBytes(50, 300);
  agentSends(during);
  direct()->completeSend();  // replay done: the next pass takes what was held meanwhile
  h.env->runUntilIdle();
  const Bytes duringHold = patternBytes(25, 350);
  agentSends(duringHold);
  direct()->completeSend();
  h.env->runUntilIdle();
  direct()->completeSend();
  h.env->runUntilIdle();
  EXPECT_EQ(h.context->ofKind("relay.failopen").size(), 2u);
  direct()->setAutoCompleteSends(true);
  const Bytes live = patternBytes(10, 375);
  agentSends(live);
  EXPECT_EQ(direct()->sent(), concat({early, during, duringHold, live}));
  settle();
}

TEST_F(RelayFailoverTest, NothingToReplayGoesLiveAtOnce) {
  frontDoorDrops();
  direct()->becomeReady();
  h.env->runUntilIdle();
  EXPECT_EQ(h.context->eventTrail(),
            (Trail{"relay.failopen:passthrough_dial", "relay.failopen:passthrough_dial_spliced"}));
  agentSends(bytesOf("x"));
  EXPECT_EQ(textOf(direct()->sent()), "x");
  settle();
}

TEST_F(RelayFailoverTest, SplicedConnectionIsNeitherACircuitSuccessNorASever) {
  frontDoorDrops();
  direct()->becomeReady();
  h.env->runUntilIdle();
  direct()->deliver(bytesOf("response"));
  h.env->runUntilIdle();
  EXPECT_EQ(textOf(flow->written()), "response");
  EXPECT_EQ(h.context->circuitSuccesses(), 0);
  direct()->deliverEnd();
  h.env->runUntilIdle();
  EXPECT_EQ(h.context->severs(), 0);
  EXPECT_EQ(h.context->ofKind("relay.close").size(), 1u);
  EXPECT_EQ(h.context->retainedCount(), 0u);
}

TEST_F(RelayFailoverTest, AgentEndDuringTheDialEndsTheSessionAndTheDialIsCancelledWhenReady) {
  agentSends(bytesOf("hello"));
  frontDoorDrops();
  flow->agentEnds();
  h.env->runUntilIdle();
  EXPECT_EQ(h.context->eventTrail(), (Trail{"relay.failopen:passthrough_dial", "relay.close"}));
  EXPECT_EQ(h.context->retainedCount(), 0u);
  direct()->becomeReady();
  h.env->runUntilIdle();
  EXPECT_TRUE(direct()->cancelled());
  EXPECT_TRUE(direct()->sent().empty());
  EXPECT_EQ(h.context->eventTrail(), (Trail{"relay.failopen:passthrough_dial", "relay.close"}));
}

TEST_F(RelayFailoverTest, FailingReplaySendCancelsTheDirectConnectionAndEndsTheSession) {
  agentSends(bytesOf("hello"));
  frontDoorDrops();
  direct()->setAutoCompleteSends(false);
  direct()->becomeReady();
  h.env->runUntilIdle();
  direct()->completeSend(NWError::fromErrno(EPIPE));
  h.env->runUntilIdle();
  EXPECT_TRUE(direct()->cancelled());
  EXPECT_EQ(h.context->eventTrail(), (Trail{"relay.failopen:passthrough_dial", "relay.close"}));
  EXPECT_TRUE(flow->readClosed());
}

TEST_F(RelayFailoverTest, SplicedConnectionThatStallsLaterEndsTheSessionWithItsLine) {
  frontDoorDrops();
  direct()->becomeReady();
  h.env->runUntilIdle();
  direct()->wait(ENETUNREACH);
  h.env->runUntilIdle();
  EXPECT_EQ(h.log->count("RelaySession.failover: direct dial to 198.18.0.10:443 unreachable — "
                         "closing"),
            1u);
  EXPECT_EQ(h.context->ofKind("relay.close").size(), 1u);
  EXPECT_EQ(h.context->severs(), 0);
  EXPECT_TRUE(direct()->cancelled());
}

struct UnreachableCase {
  const char* name;
  bool waiting;
};

class FailoverUnreachableTest : public ::testing::TestWithParam<UnreachableCase>,
                                public SessionFixture {};

TEST_P(FailoverUnreachableTest, EndsTheSessionWithoutRetrying) {
  agentSends(bytesOf("hello"));
  frontDoor->deliverEnd();
  h.env->runUntilIdle();
  if (GetParam().waiting) {
    direct()->wait(ENETUNREACH);
  } else {
    direct()->fail(ECONNREFUSED);
  }
  h.env->advance(60s);
  EXPECT_EQ(h.log->messages(),
            std::vector<std::string>{
                "RelaySession.failover: direct dial to 198.18.0.10:443 unreachable — closing"});
  EXPECT_EQ(h.context->eventTrail(), (Trail{"relay.failopen:passthrough_dial", "relay.close"}));
  EXPECT_EQ(h.connectionCount(), 2u);
  EXPECT_TRUE(direct()->cancelled());
  EXPECT_EQ(h.context->retainedCount(), 0u);
  EXPECT_TRUE(flow->readClosed());
}

INSTANTIATE_TEST_SUITE_P(States, FailoverUnreachableTest,
                         ::testing::Values(UnreachableCase{"Waiting", true},
                                           UnreachableCase{"Failed", false}),
                         CaseName());

struct BadPortCase {
  const char* name;
  std::string port;
};

class FailoverBadPortTest : public ::testing::TestWithParam<BadPortCase> {};

TEST_P(FailoverBadPortTest, EndsTheSessionAfterItsFailOpenEvent) {
  RelayHarness h;
  auto flow = h.relayToSession({"198.18.0.10", GetParam().port});
  h.connection(0)->deliverEnd();
  h.env->runUntilIdle();
  EXPECT_EQ(h.log->messages(),
            std::vector<std::string>{"RelaySession.failover: invalid target port " +
                                     GetParam().port + " — closing"});
  EXPECT_EQ(h.context->eventTrail(), (Trail{"relay.failopen:passthrough_dial", "relay.close"}));
  EXPECT_EQ(h.context->ofKind("relay.close")[0]["dest_port"], GetParam().port == "-1"      ? -1
                                                              : GetParam().port == "70000" ? 70000
                                                                                           : 0);
  EXPECT_EQ(h.connectionCount(), 1u);
  EXPECT_EQ(h.context->retainedCount(), 0u);
  EXPECT_EQ(h.context->circuitFailures(), 1);
}

INSTANTIATE_TEST_SUITE_P(Ports, FailoverBadPortTest,
                         ::testing::Values(BadPortCase{"Name", "abc"},
                                           BadPortCase{"Negative", "-1"},
                                           BadPortCase{"TooLarge", "70000"},
                                           BadPortCase{"Zero", "0"}),
                         CaseName());

}  // namespace
}  // namespace tarnwick
