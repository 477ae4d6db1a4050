// A relay session after the front door's acknowledgement: commitment, watchdogs, the replay cap
// and how each kind of failure ends it.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "RelayHarness.h"

namespace tarnwick {
namespace {

using namespace std::chrono_literals;

using Trail = std::vector<std::string>;

struct SessionEndCase {
  const char* name;
  std::function<void(SessionFixture&)> script;
  Trail trail;
  int severs;
  int circuitFailures;
  int circuitSuccesses;
};

class SessionEndTest : public ::testing::TestWithParam<SessionEndCase>, public SessionFixture {};

TEST_P(SessionEndTest, EndsAsItShould) {
  const auto& c = GetParam();
  c.script(*this);
  settle();
  EXPECT_EQ(h.context->eventTrail(), c.trail);
  EXPECT_EQ(h.context->severs(), c.severs);
  EXPECT_EQ(h.context->circuitFailures(), c.circuitFailures);
  EXPECT_EQ(h.context->circuitSuccesses(), c.circuitSuccesses);
  EXPECT_EQ(h.context->retainedCount(), 0u);
  EXPECT_EQ(h.context->releases(), 1);
  EXPECT_TRUE(flow->readClosed());
  EXPECT_TRUE(flow->writeClosed());
  EXPECT_TRUE(frontDoor->cancelled());
}

void commit(SessionFixture& s) {
  s.frontDoor->deliver(bytesOf("HTTP/1.1 200 OK\r\n\r\n"));
  s.h.env->runUntilIdle();
}

const Trail kFailedOver(const std::string& reason) {
  return {"relay.failopen:" + reason, "relay.failopen:passthrough_dial_spliced", "relay.close"};
}

INSTANTIATE_TEST_SUITE_P(
    Ends, SessionEndTest,
    ::testing::Values(SessionEndCase{"AgentEndsItsStream",
                                     [](SessionFixture& s) { s.agentSends(bytesOf("GET /")); },
                                     {"relay.close"},
                                     0,
                                     0,
                                     0},
                      SessionEndCase{"AgentReadFails",
                                     [](SessionFixture& s) {
                                       s.flow->agentFails({5, "gone"});
                                       s.h.env->runUntilIdle();
                                     },
                                     {"relay.close"},
                                     0,
                                     0,
                                     0},
                      SessionEndCase{"FrontDoorClosesBeforeAnyResponse",
                                     [](SessionFixture& s) {
                                       s.agentSends(bytesOf("GET /"));
                                       s.frontDoor->deliverEnd();
                                       s.h.env->runUntilIdle();
                                     },
                                     kFailedOver("passthrough_dial"), 0, 1, 0},
                      SessionEndCase{"FrontDoorResetsBeforeAnyResponse",
                                     [](SessionFixture& s) {
                                       s.frontDoor->deliver(std::nullopt, false,
                                                            NWError::fromErrno(ECONNRESET));
                                       s.h.env->runUntilIdle();
                                     },
                                     kFailedOver("passthrough_dial"), 0, 1, 0},
                      SessionEndCase{"SendToFrontDoorFailsBeforeAnyResponse",
                                     [](SessionFixture& s) {
                                       s.frontDoor->setAutoCompleteSends(false);
                                       s.agentSends(bytesOf("GET /"));
                                       s.frontDoor->completeSend(NWError::fromErrno(EPIPE));
                                       s.h.env->runUntilIdle();
                                     },
                                     kFailedOver("relay-write-failed"), 0, 1, 0},
                      SessionEndCase{"FrontDoorClosesAfterCommitment",
                                     [](SessionFixture& s) {
                                       commit(s);
                                       s.frontDoor->deliverEnd();
                                       s.h.env->runUntilIdle();
                                     },
                                     {"relay.close"},
                                     1,
                                     0,
                                     1},
                      SessionEndCase{"SendToFrontDoorFailsAfterCommitment",
                                     [](SessionFixture& s) {
                                       commit(s);
                                       s.frontDoor->setAutoCompleteSends(false);
                                       s.agentSends(bytesOf("more"));
                                       s.frontDoor->completeSend(NWError::fromErrno(EPIPE));
                                       s.h.env->runUntilIdle();
                                     },
                                     {"relay.close"},
                                     1,
                                     0,
                                     1},
                      SessionEndCase{"LastResponseBytesComeWithTheEnd",
                                     [](SessionFixture& s) {
                                       s.frontDoor->deliver(bytesOf("HTTP/1.1 204\r\n\r\n"), true);
                                       s.h.env->runUntilIdle();
                                       EXPECT_EQ(textOf(s.flow->written()), "HTTP/1.1 204\r\n\r\n");
                                     },
                                     {"relay.close"},
                                     0,
                                     0,
                                     1},
                      SessionEndCase{"WriteToAgentFails",
                                     [](SessionFixture& s) {
                                       s.flow->failWrites(NEError{32, "broken"});
                                       commit(s);
                                     },
                                     {"relay.close"},
                                     0,
                                     0,
                                     1}),
    CaseName());

class RelaySessionTest : public ::testing::Test, public SessionFixture {};

TEST_F(RelaySessionTest, SilentFrontDoorFailsOverTwentySecondsAfterStartWhateverTheAgentSends) {
  Bytes sent;
  for (int second : {5, 10, 15, 19}) {
    advanceTo(std::chrono::seconds(second));
    const Bytes chunk = patternBytes(1000, sent.size());
    sent.insert(sent.end(), chunk.begin(), chunk.end());
    agentSends(chunk);
  }
  advanceTo(19999ms);
  EXPECT_TRUE(h.context->events().empty());
  advanceTo(21s);  // past the deadline and its leeway
  EXPECT_EQ(h.context->eventTrail(), Trail{"relay.failopen:ack-then-silence"});
  EXPECT_TRUE(frontDoor->cancelled());
  ASSERT_TRUE(direct());
  direct()->becomeReady();
  h.env->runUntilIdle();
  EXPECT_EQ(direct()->sent(), sent);
  settle();
}

TEST_F(RelaySessionTest, FirstResponseByteCommitsAndReplacesTheSilenceWatchdog) {
  agentSends(bytesOf("GET /"));
  frontDoor->deliver(bytesOf("H"));
  h.env->runUntilIdle();
  EXPECT_EQ(textOf(flow->written()), "H");
  EXPECT_EQ(h.context->circuitSuccesses(), 1);
  h.env->advance(60s);
  EXPECT_TRUE(h.context->events().empty());
  EXPECT_EQ(h.connectionCount(), 1u);  // no failover
  settle();
}

struct IdleCase {
  const char* name;
  bool agentIsTheActiveSide;
};

class SessionIdleTest : public ::testing::TestWithParam<IdleCase>, public SessionFixture {};

TEST_P(SessionIdleTest, TrafficAt299SecondsKeepsItOpenAndFullSilenceEndsIt) {
  commit(*this);
  h.env->advance(299s);
  if (GetParam().agentIsTheActiveSide) {
    agentSends(bytesOf("ping"));
  } else {
    frontDoor->deliver(bytesOf("pong"));
    h.env->runUntilIdle();
  }
  h.env->advance(299s);
  EXPECT_TRUE(h.context->events().empty());
  h.env->advance(2s);  // 301 s without traffic: the deadline and its leeway have passed
  EXPECT_EQ(h.context->eventTrail(), (Trail{"relay.midstream_idle", "relay.close"}));
  EXPECT_EQ(h.context->retainedCount(), 0u);
  EXPECT_TRUE(flow->readClosed());
  EXPECT_TRUE(frontDoor->cancelled());
  const auto idle = h.context->ofKind("relay.midstream_idle");
  EXPECT_EQ(idle[0], (Json{{"kind", "relay.midstream_idle"},
                           {"pid", 4242},
                           {"signing_id", "/usr/bin/agent"},
                           {"dest_host", "198.18.0.10"},
                           {"dest_port", 443},
                           {"ts", FakeRelayContext::kTimestampNs}}));
}

INSTANTIATE_TEST_SUITE_P(Sides, SessionIdleTest,
                         ::testing::Values(IdleCase{"AgentSends", true},
                                           IdleCase{"FrontDoorSends", false}),
                         CaseName());

struct ReplayCapCase {
  const char* name;
  std::size_t agentBytes;
  bool frontDoorDrops;  // otherwise it stays silent
  Trail trail;
};

class ReplayCapTest : public ::testing::TestWithParam<ReplayCapCase>, public SessionFixture {};

TEST_P(ReplayCapTest, FailsOverOnlyWithinTheCap) {
  const auto& c = GetParam();
  Bytes sent;
  for (std::size_t offset = 0; offset < c.agentBytes; offset += 4096) {
    const Bytes chunk = patternBytes(std::min<std::size_t>(4096, c.agentBytes - offset), offset);
    sent.insert(sent.end(), chunk.begin(), chunk.end());
    agentSends(chunk);
  }
  EXPECT_EQ(RelayHarness::afterPreamble(*frontDoor), sent);
  if (c.frontDoorDrops) {
    frontDoor->deliverEnd();
    h.env->runUntilIdle();
  } else {
    h.env->advance(25s);
  }
  if (auto d = direct()) {
    d->becomeReady();
    h.env->runUntilIdle();
    EXPECT_EQ(d->sent(), sent);
  }
  settle();
  EXPECT_EQ(h.context->eventTrail(), c.trail);
  EXPECT_EQ(h.context->circuitFailures(), c.trail.size() > 1 ? 1 : 0);
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, ReplayCapTest,
    ::testing::Values(
        ReplayCapCase{"ExactlyTheCapThenDrop", 131072, true, kFailedOver("passthrough_dial")},
        ReplayCapCase{"ExactlyTheCapThenSilence", 131072, false, kFailedOver("ack-then-silence")},
        ReplayCapCase{"OneByteOverThenDrop", 131073, true, {"relay.close"}},
        ReplayCapCase{"OneByteOverThenSilence", 131073, false, {"relay.close"}}),
    CaseName());

TEST_F(RelaySessionTest, FinishTwiceClosesAndReleasesOnce) {
  auto session = h.context->onlySession();
  ASSERT_TRUE(session);
  session->finish();
  session->finish();
  h.env->runUntilIdle();
  EXPECT_EQ(h.context->eventTrail(), Trail{"relay.close"});
  EXPECT_EQ(h.context->releases(), 1);
  EXPECT_EQ(h.context->retainedCount(), 0u);
  settle();
  EXPECT_EQ(h.context->eventTrail(), Trail{"relay.close"});
}

TEST_F(RelaySessionTest, ProviderGoneLeavesNothingRunning) {
  std::weak_ptr<RelaySession> session = h.context->onlySession();
  h.context.reset();  // drops the table and with it the session
  EXPECT_TRUE(session.expired());
  flow->agentSends(bytesOf("x"));
  frontDoor->deliver(bytesOf("y"));
  h.env->advance(600s);
  EXPECT_TRUE(flow->written().empty());
  EXPECT_EQ(h.connectionCount(), 1u);
}

// A connection that ignores cancel(), like a connection layer that delivers one completion after
// the cancel.
class StubbornConnection : public NWConnection {
 public:
  explicit StubbornConnection(std::shared_ptr<ScriptedConnection> inner)
      : inner_(std::move(inner)) {}
  void setStateUpdateHandler(StateHandler handler) override {
    inner_->setStateUpdateHandler(std::move(handler));
  }
  void start(std::shared_ptr<DispatchQueue> queue) override { inner_->start(std::move(queue)); }
  void send(std::optional<Bytes> content, bool isComplete, SendCompletion completion) override {
    inner_->send(std::move(content), isComplete, std::move(completion));
  }
  void receive(std::size_t minimum, std::size_t maximum, ReceiveCompletion completion) override {
    inner_->receive(minimum, maximum, std::move(completion));
  }
  void cancel() override {}

 private:
  std::shared_ptr<ScriptedConnection> inner_;
};

class StubbornFrontDoorFactory : public NWConnectionFactory {
 public:
  std::shared_ptr<NWConnection> makeConnection(const NWEndpoint& endpoint,
                                               const NWParameters& parameters) override {
    auto made = scripted.makeConnection(endpoint, parameters);
    if (scripted.made().size() > 1) return made;
    // Kept here too, as a connection layer keeps a connection with operations pending.
    stubborn = std::make_shared<StubbornConnection>(scripted.last());
    return stubborn;
  }
  ScriptedConnectionFactory scripted;
  std::shared_ptr<NWConnection> stubborn;
};

TEST(RelaySessionLateCompletionTest, CompletionFromTheReplacedFrontDoorIsIgnored) {
  ScopedLogCapture log;
  auto env = SimulatedRuntime::create();
  auto factory = std::make_shared<StubbornFrontDoorFactory>();
  auto context = std::make_shared<FakeRelayContext>();
  RelayEngine engine(env, factory, context);
  engine.setFrontDoor("127.0.0.1", RelayHarness::kFrontDoorPort);
  auto framework = env->makeQueue("framework", QualityOfService::Default);
  auto flow = std::make_shared<ScriptedTCPFlow>(framework, NEFlowMetaData{}, std::nullopt);
  engine.relay(flow, RelayHarness::defaultTarget(), 1, "", "");
  env->runUntilIdle();
  auto frontDoor = factory->scripted.made().at(0);
  frontDoor->becomeReady();
  frontDoor->deliver(bytesOf(RelayHarness::kAck));
  env->runUntilIdle();
  flow->agentSends(bytesOf("abc"));
  env->advance(25s);  // silence: failover, and the front door ignores its cancel
  auto direct = factory->scripted.made().at(1);
  direct->becomeReady();
  env->runUntilIdle();
  ASSERT_EQ(context->eventTrail(),
            (Trail{"relay.failopen:ack-then-silence", "relay.failopen:passthrough_dial_spliced"}));

  frontDoor->deliver(bytesOf("stale"));
  frontDoor->deliverEnd();
  env->runUntilIdle();
  EXPECT_TRUE(flow->written().empty());
  EXPECT_EQ(context->retainedCount(), 1u);
  direct->deliver(bytesOf("fresh"));
  env->runUntilIdle();
  EXPECT_EQ(textOf(flow->written()), "fresh");
  EXPECT_EQ(textOf(direct->sent()), "abc");
  flow->agentEnds();
  env->runUntilIdle();
  EXPECT_EQ(context->ofKind("relay.close").size(), 1u);
}

}  // namespace
}  // namespace tarnwick
