// Getting a flow into the front door: the redial, the budget, the acknowledgement, and the single
// settlement of every relay.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "RelayHarness.h"

namespace tarnwick {
namespace {

using namespace std::chrono_literals;

struct HandshakeFailureCase {
  const char* name;
  // Drives the front door after relay() has made its first attempt.
  std::function<void(RelayHarness&)> script;
  std::string reason;
  std::vector<std::string> logLines;
  std::size_t frontDoorAttempts;
};

class HandshakeFailureTest : public ::testing::TestWithParam<HandshakeFailureCase> {};

TEST_P(HandshakeFailureTest, FailsOpenOnceWithItsReason) {
  const auto& c = GetParam();
  RelayHarness h;
  auto flow = h.relay();
  c.script(h);
  h.env->advance(10s);

  EXPECT_EQ(h.log->messages(), c.logLines);
  EXPECT_EQ(h.context->eventTrail(), std::vector<std::string>{"relay.failopen:" + c.reason});
  EXPECT_EQ(h.context->circuitFailures(), 1);
  EXPECT_EQ(h.context->retains(), 0);
  ASSERT_EQ(h.connectionCount(), c.frontDoorAttempts + 1);
  for (std::size_t i = 0; i < c.frontDoorAttempts; ++i) {
    EXPECT_TRUE(h.isFrontDoor(*h.connection(i)));
    EXPECT_TRUE(h.connection(i)->cancelled()) << "front-door attempt " << i;
  }
  const auto direct = h.connection(c.frontDoorAttempts);
  EXPECT_EQ(direct->endpoint().host, "198.18.0.10");
  EXPECT_EQ(direct->endpoint().port.rawValue(), 443);
  EXPECT_TRUE(direct->started());
  direct->fail(ECONNREFUSED);  // ends the direct leg so nothing is left running
  h.env->runUntilIdle();
}

std::string directLine(const std::string& reason) {
  return "relay leg unavailable (" + reason +
         ") — failing OPEN: dialing 198.18.0.10:443 direct (uninspected)";
}

const std::string kRedialRefused =
    "relay: loopback front-door failed (Connection refused) — RE-DIALING once (daemon may be "
    "mid-restart)";
const std::string kRedialWaiting =
    "relay: loopback front-door waiting (Network is unreachable) — RE-DIALING once (daemon may be "
    "mid-restart)";
const std::string kNoAck = "relay: front-door ack not received — failing open";
const std::string kTimeout =
    "relay: front-door handshake exceeded 2.500000s — failing OPEN (direct, uninspected)";

void readyThen(RelayHarness& h, std::size_t i, const std::function<void(ScriptedConnection&)>& f) {
  auto conn = h.connection(i);
  conn->becomeReady();
  h.env->runUntilIdle();
  f(*conn);
  h.env->runUntilIdle();
}

void failAttempt(RelayHarness& h, std::size_t i, bool waiting, int error) {
  auto conn = h.connection(i);
  if (waiting) {
    conn->wait(error);
  } else {
    conn->fail(error);
  }
  h.env->runUntilIdle();
}

INSTANTIATE_TEST_SUITE_P(
    Failures, HandshakeFailureTest,
    ::testing::Values(
        HandshakeFailureCase{
            "RefusedTwice",
            [](RelayHarness& h) {
              failAttempt(h, 0, false, ECONNREFUSED);
              failAttempt(h, 1, false, ECONNREFUSED);
            },
            "relay-failed",
            {kRedialRefused,
             "relay: loopback front-door failed (Connection refused) on re-dial — failing OPEN",
             directLine("relay-failed")},
            2},
        HandshakeFailureCase{"WaitingTwice",
                             [](RelayHarness& h) {
                               failAttempt(h, 0, true, ENETUNREACH);
                               failAttempt(h, 1, true, ENETUNREACH);
                             },
                             "relay-waiting",
                             {kRedialWaiting,
                              "relay: loopback front-door waiting (Network is unreachable) on "
                              "re-dial — failing OPEN",
                              directLine("relay-waiting")},
                             2},
        HandshakeFailureCase{
            "WaitingThenRefused",
            [](RelayHarness& h) {
              failAttempt(h, 0, true, ENETUNREACH);
              failAttempt(h, 1, false, ECONNREFUSED);
            },
            "relay-failed",
            {kRedialWaiting,
             "relay: loopback front-door failed (Connection refused) on re-dial — failing OPEN",
             directLine("relay-failed")},
            2},
        HandshakeFailureCase{"PreambleSendFails",
                             [](RelayHarness& h) {
                               auto conn = h.connection(0);
                               conn->setAutoCompleteSends(false);
                               conn->becomeReady();
                               conn->completeSend(NWError::fromErrno(EPIPE));
                               h.env->runUntilIdle();
                             },
                             "preamble-send-failed",
                             {"relay: preamble send failed: Broken pipe — failing open",
                              directLine("preamble-send-failed")},
                             1},
        HandshakeFailureCase{"ProxyAuthenticationRequired",
                             [](RelayHarness& h) {
                               readyThen(h, 0, [](ScriptedConnection& c) {
                                 c.deliver(
                                     bytesOf("HTTP/1.1 407 Proxy Authentication Required\r\n\r\n"));
                               });
                             },
                             "no-ack",
                             {kNoAck, directLine("no-ack")},
                             1},
        HandshakeFailureCase{
            "ClosedRightAfterThePreamble",
            [](RelayHarness& h) { readyThen(h, 0, [](ScriptedConnection& c) { c.deliverEnd(); }); },
            "no-ack",
            {kNoAck, directLine("no-ack")},
            1},
        HandshakeFailureCase{"ResetBeforeTheTerminator",
                             [](RelayHarness& h) {
                               readyThen(h, 0, [](ScriptedConnection& c) {
                                 c.deliver(bytesOf("HTTP/1.1 200"), false,
                                           NWError::fromErrno(ECONNRESET));
                               });
                             },
                             "no-ack",
                             {kNoAck, directLine("no-ack")},
                             1},
        HandshakeFailureCase{"HeadThatIsNotUTF8",
                             [](RelayHarness& h) {
                               readyThen(h, 0, [](ScriptedConnection& c) {
                                 c.deliver(bytesOf("HTTP/1.1 200 \xc0\xaf\r\n\r\n"));
                               });
                             },
                             "no-ack",
                             {kNoAck, directLine("no-ack")},
                             1},
        HandshakeFailureCase{"HeadOfMoreThan8192BytesWithoutTerminator",
                             [](RelayHarness& h) {
                               readyThen(h, 0, [](ScriptedConnection& c) {
                                 c.deliver(Bytes(8193, 'h'));
                               });
                             },
                             "no-ack",
                             {kNoAck, directLine("no-ack")},
                             1},
        HandshakeFailureCase{"NeverReady",
                             [](RelayHarness&) {},
                             "handshake-timeout",
                             {kTimeout, directLine("handshake-timeout")},
                             1},
        // The cancelled connection completes the pending acknowledgement read with an error: its
        // line is still logged, but the relay is already settled.
        HandshakeFailureCase{"ReadyButSilent",
                             [](RelayHarness& h) { readyThen(h, 0, [](ScriptedConnection&) {}); },
                             "handshake-timeout",
                             {kTimeout, directLine("handshake-timeout"), kNoAck},
                             1},
        HandshakeFailureCase{"RedialThatStallsRunsOutTheSameBudget",
                             [](RelayHarness& h) { failAttempt(h, 0, true, ENETUNREACH); },
                             "handshake-timeout",
                             {kRedialWaiting, kTimeout, directLine("handshake-timeout")},
                             2}),
    CaseName());

class RelayHandshakeTest : public ::testing::Test {
 protected:
  RelayHarness h_;
};

TEST_F(RelayHandshakeTest, GoodAcknowledgementHandsTheFlowToASessionWithoutTouchingTheCircuit) {
  auto flow = h_.relayToSession();
  EXPECT_EQ(h_.context->retains(), 1);
  EXPECT_EQ(h_.context->retainedCount(), 1u);
  EXPECT_TRUE(h_.context->events().empty());
  EXPECT_EQ(h_.context->circuitFailures(), 0);
  EXPECT_EQ(h_.context->circuitSuccesses(), 0);
  EXPECT_TRUE(h_.log->messages().empty());
  EXPECT_EQ(textOf(h_.connection(0)->sent()),
            "CONNECT 198.18.0.10:443 HTTP/1.1\r\nX-Brask-Pid: 4242\r\n"
            "X-Brask-Signing-Id: /usr/bin/agent\r\nX-Brask-Trace: 9f3c0a1b2c3d4e5f\r\n\r\n");
  // The budget runs out later with nothing left to do.
  h_.env->advance(3s);
  EXPECT_TRUE(h_.context->events().empty());
  EXPECT_EQ(h_.connectionCount(), 1u);
  flow->agentEnds();
  h_.env->runUntilIdle();
}

// Records the queues the engine asks for.
class RecordingRuntime : public Runtime {
 public:
  explicit RecordingRuntime(std::shared_ptr<Runtime> inner) : inner_(std::move(inner)) {}
  std::shared_ptr<DispatchQueue> makeQueue(std::string label, QualityOfService qos,
                                           QueueKind kind) override {
    made.push_back({label, qos, kind});
    return inner_->makeQueue(std::move(label), qos, kind);
  }
  MonotonicTime monotonicNow() const override { return inner_->monotonicNow(); }
  WallTime wallNow() const override { return inner_->wallNow(); }

  struct Made {
    std::string label;
    QualityOfService qos;
    QueueKind kind;
  };
  std::vector<Made> made;

 private:
  std::shared_ptr<Runtime> inner_;
};

TEST_F(RelayHandshakeTest, EachRelayGetsItsOwnUserInitiatedSerialQueue) {
  auto runtime = std::make_shared<RecordingRuntime>(h_.env);
  RelayEngine engine(runtime, h_.connections, h_.context);
  engine.setFrontDoor("127.0.0.1", 0);  // the queue is made even for the refused-port path
  for (int i = 0; i < 2; ++i) {
    engine.relay(h_.makeFlow(), RelayHarness::defaultTarget(), 1, "", "");
  }
  ASSERT_EQ(runtime->made.size(), 2u);
  for (const auto& m : runtime->made) {
    EXPECT_EQ(m.label, "dev.fernquill.tarnwick.proxyex.relay.flow");
    EXPECT_EQ(m.qos, QualityOfService::UserInitiated);
    EXPECT_EQ(m.kind, QueueKind::Serial);
  }
  h_.env->runUntilIdle();
  for (const auto& c : h_.connections->made()) c->fail(ECONNREFUSED);
  h_.env->runUntilIdle();
}

TEST_F(RelayHandshakeTest, AbandonedFirstAttemptCostsOneRedialAndOneCircuitFailure) {
  auto flow = h_.relay();
  auto first = h_.connection(0);
  EXPECT_EQ(first->pendingSends(), 1u);  // the preamble waits for ready
  first->wait(ENETUNREACH);
  h_.env->runUntilIdle();
  EXPECT_TRUE(first->cancelled());
  EXPECT_EQ(first->pendingSends(), 0u);  // dropped without its completion
  h_.connection(1)->fail(ECONNREFUSED);
  h_.env->advance(5s);
  EXPECT_EQ(h_.log->count(kRedialWaiting), 1u);
  EXPECT_EQ(h_.log->countContaining("preamble send failed"), 0u);
  EXPECT_EQ(h_.context->circuitFailures(), 1);
  EXPECT_EQ(h_.context->eventTrail(), std::vector<std::string>{"relay.failopen:relay-failed"});
  EXPECT_EQ(h_.connectionCount(), 3u);  // two front-door attempts, one direct dial
  h_.connection(2)->fail(ECONNREFUSED);
  h_.env->runUntilIdle();
}

TEST_F(RelayHandshakeTest, BudgetCoversBothAttemptsFromTheStartOfTheRelay) {
  auto flow = h_.relay();
  h_.env->advance(2s);
  h_.connection(0)->wait(ENETUNREACH);  // t=2s: the redial gets only what is left
  h_.env->advance(499ms);
  EXPECT_TRUE(h_.context->events().empty());
  EXPECT_EQ(h_.connectionCount(), 2u);
  h_.env->advance(1ms);  // t=2.5s
  EXPECT_EQ(h_.context->eventTrail(), std::vector<std::string>{"relay.failopen:handshake-timeout"});
  EXPECT_TRUE(h_.connection(1)->cancelled());
  h_.connection(2)->fail(ECONNREFUSED);
  h_.env->runUntilIdle();
}

TEST_F(RelayHandshakeTest, GoodAcknowledgementAfterTheBudgetIsIgnored) {
  auto flow = h_.relay();
  h_.connection(0)->becomeReady();
  h_.env->advance(2600ms);
  h_.connection(0)->deliver(bytesOf(RelayHarness::kAck));
  h_.env->advance(10s);
  EXPECT_EQ(h_.context->retains(), 0);
  EXPECT_EQ(h_.context->eventTrail(), std::vector<std::string>{"relay.failopen:handshake-timeout"});
  EXPECT_EQ(h_.context->circuitFailures(), 1);
  h_.connection(1)->fail(ECONNREFUSED);
  h_.env->runUntilIdle();
}

// The acknowledgement's completion is already queued behind the budget's firing when the budget
// settles the relay; the seeds decide which of the two queues runs first at t=2.5s.
TEST(RelayHandshakeRaceTest, GoodAcknowledgementQueuedBehindTheBudgetIsIgnored) {
  int raced = 0;
  for (std::uint64_t seed = 1; seed <= 20; ++seed) {
    RelayHarness h(seed);
    auto flow = h.relay();
    auto frontDoor = h.connection(0);
    frontDoor->becomeReady();
    auto other = h.env->makeQueue("front door", QualityOfService::Default);
    other->asyncAfter(2500ms, [&] {
      if (!frontDoor->cancelled()) ++raced;
      frontDoor->deliver(bytesOf(RelayHarness::kAck));
    });
    h.env->advance(5s);
    EXPECT_EQ(h.context->retains(), 0) << "seed " << seed;
    EXPECT_EQ(h.context->eventTrail(), std::vector<std::string>{"relay.failopen:handshake-timeout"})
        << "seed " << seed;
    h.connection(1)->fail(ECONNREFUSED);
    h.env->runUntilIdle();
  }
  EXPECT_GT(raced, 0) << "no seed queued the acknowledgement behind the budget";
}

TEST_F(RelayHandshakeTest, AcknowledgementJustInsideTheBudgetWins) {
  auto flow = h_.relay();
  h_.connection(0)->becomeReady();
  h_.env->advance(2499ms);
  h_.connection(0)->deliver(bytesOf(RelayHarness::kAck));
  h_.env->advance(10s);
  EXPECT_EQ(h_.context->retains(), 1);
  EXPECT_TRUE(h_.context->events().empty());
  flow->agentEnds();
  h_.env->runUntilIdle();
}

TEST_F(RelayHandshakeTest, RefusedFrontDoorPortFailsOpenWithoutTheCircuit) {
  h_.engine.setFrontDoor("127.0.0.1", 0);
  auto flow = h_.relay();
  EXPECT_EQ(h_.log->messages(),
            (std::vector<std::string>{"relay: invalid front-door port 0 — failing open",
                                      directLine("invalid-front-port")}));
  EXPECT_EQ(h_.context->eventTrail(),
            std::vector<std::string>{"relay.failopen:invalid-front-port"});
  EXPECT_EQ(h_.context->circuitFailures(), 0);
  ASSERT_EQ(h_.connectionCount(), 1u);
  EXPECT_FALSE(h_.isFrontDoor(*h_.connection(0)));
  h_.env->advance(5s);  // no budget is running
  EXPECT_EQ(h_.context->events().size(), 1u);
  h_.connection(0)->fail(ECONNREFUSED);
  h_.env->runUntilIdle();
}

TEST_F(RelayHandshakeTest, FailOpenEventCarriesTheSixKeysAndTheReason) {
  auto flow = h_.relay({"2001:db8::1", "+8443"});
  h_.env->advance(3s);
  const auto events = h_.context->ofKind("relay.failopen");
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0], (Json{{"kind", "relay.failopen"},
                             {"pid", 4242},
                             {"signing_id", "/usr/bin/agent"},
                             {"dest_host", "2001:db8::1"},
                             {"dest_port", 8443},
                             {"ts", FakeRelayContext::kTimestampNs},
                             {"reason", "handshake-timeout"}}));
  EXPECT_EQ(textOf(h_.connection(0)->sent()), "");  // never ready, the preamble never left
  h_.connection(1)->fail(ECONNREFUSED);
  h_.env->runUntilIdle();
}

TEST_F(RelayHandshakeTest, ProviderGoneBeforeTheBudgetRunsOutLeavesTheFlowAlone) {
  auto flow = h_.relay();
  h_.context.reset();
  h_.env->advance(5s);
  EXPECT_EQ(h_.connectionCount(), 1u);  // no direct dial
  EXPECT_TRUE(h_.connection(0)->cancelled());
  EXPECT_FALSE(flow->readClosed());
}

}  // namespace
}  // namespace tarnwick
