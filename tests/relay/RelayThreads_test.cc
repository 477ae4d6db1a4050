// The relay engine on the real runtime: its queues, the framework's flow thread and the test
// thread all run at once. Meant for the ThreadSanitizer build as much as for its own assertions.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "RelayHarness.h"
#include "relay/RelayGate.h"
#include "relay/RelayWatchdog.h"

namespace tarnwick {
namespace {

// Polls until `done` holds; false after five seconds without.
bool eventually(const std::function<bool()>& done) {
  for (int i = 0; i < 5000 && !done(); ++i) std::this_thread::sleep_for(1ms);
  return done();
}

// Runs `a` and `b` on two threads released at the same moment.
void race(const std::function<void()>& a, const std::function<void()>& b) {
  std::atomic<int> ready{0};
  const auto start = [&ready](const std::function<void()>& f) {
    return std::thread([&ready, &f] {
      ++ready;
      while (ready.load() < 2) {
      }
      f();
    });
  };
  std::thread ta = start(a), tb = start(b);
  ta.join();
  tb.join();
}

// One claim wins, and no reader sees the gate pending once a claim has returned.
TEST(RelayThreadsTest, GateIsClaimedOnceWhileReadersWatch) {
  for (int i = 0; i < 100; ++i) {
    RelayGate gate;
    std::atomic<int> wins{0};
    std::atomic<bool> claimed{false};
    std::atomic<int> pendingAfterClaim{0};
    const auto claimer = [&] {
      if (gate.claim()) ++wins;
      claimed = true;
    };
    const auto reader = [&] {
      for (int k = 0; k < 200; ++k) {
        const bool sawClaimed = claimed.load();
        if (gate.pending() && sawClaimed) ++pendingAfterClaim;
      }
    };
    race([&] { claimer(), reader(); }, [&] { reader(), claimer(); });
    EXPECT_EQ(wins.load(), 1);
    EXPECT_EQ(pendingAfterClaim.load(), 0);
  }
}

TEST(RelayThreadsTest, WatchdogKickedAndCancelledFromTwoThreadsFiresAtMostOnce) {
  for (int i = 0; i < 100; ++i) {
    auto env = SimulatedRuntime::create({.seed = static_cast<std::uint64_t>(i + 1)});
    auto queue = env->makeQueue("q", QualityOfService::Default);
    std::atomic<int> silences{0};
    auto dog = RelayWatchdog::create(queue, Seconds(1), [&] { ++silences; });
    dog->kick();
    race(
        [&] {
          for (int k = 0; k < 50; ++k) dog->kick();
          dog->cancel();
        },
        [&] { env->advance(5s); });
    env->advance(5s);
    EXPECT_LE(silences.load(), 1);
  }
}

// One relay on the real runtime; the flow's completions run on a thread of their own, as the
// framework's do. With no front door configured it goes straight to the direct leg.
struct RealRelay {
  explicit RealRelay(std::uint16_t frontDoorPort) {
    engine.setFrontDoor("127.0.0.1", frontDoorPort);
    flow->open(std::nullopt, [](std::optional<NEError>) {});
    engine.relay(flow, RelayHarness::kTarget, 1, "", "");
  }
  // The n-th connection once the engine has started it: a state set before then would be lost.
  std::shared_ptr<ScriptedConnection> started(std::size_t n) {
    const auto ready = [&] {
      return connections->made().size() == n &&
             connections->last()->state() == NWConnectionState::Kind::Preparing;
    };
    return eventually(ready) ? connections->last() : nullptr;
  }
  // The front door acknowledges and answers: the session has committed once this returns true.
  bool commit(const std::shared_ptr<ScriptedConnection>& frontDoor) {
    frontDoor->deliver(bytesOf(RelayHarness::kAck));
    frontDoor->deliver(bytesOf("H"));
    return eventually([&] { return context->count("circuit:success") == 1; });
  }

  ScopedLogCapture log;
  std::shared_ptr<ScriptedConnectionFactory> connections =
      std::make_shared<ScriptedConnectionFactory>();
  std::shared_ptr<FakeRelayContext> context = std::make_shared<FakeRelayContext>();
  RelayEngine engine{realRuntime(),
                     connections,
                     context,
                     {},
                     answeredProbes([] { return ProbeAnswer::Healthy; },
                                    realRuntime()->makeQueue("probe peer", {}))};
  std::shared_ptr<ScriptedTCPFlow> flow = std::make_shared<ScriptedTCPFlow>(
      realRuntime()->makeQueue("framework", QualityOfService::Default, QueueKind::Blocking),
      NEFlowMetaData{}, std::nullopt);
};

// The agent keeps sending from the test thread while the front door drops the session and the
// failover dials, replays and splices the destination on the relay queue.
TEST(RelayThreadsTest, FailoverKeepsTheAgentsByteOrderAcrossThreads) {
  for (int round = 0; round < 20; ++round) {
    RealRelay r(RelayHarness::kFrontDoorPort);
    Bytes sent;
    const auto send = [&] {
      for (int i = 0; i < 50; ++i) {
        const Bytes chunk = patternBytes(1 + (sent.size() * 11) % 500, sent.size());
        sent.insert(sent.end(), chunk.begin(), chunk.end());
        r.flow->agentSends(chunk);
      }
    };
    send();
    const auto frontDoor = r.started(1);
    ASSERT_TRUE(frontDoor) << round;
    frontDoor->becomeReady();
    frontDoor->deliver(bytesOf(RelayHarness::kAck));
    send();
    frontDoor->deliverEnd();
    send();
    const auto direct = r.started(2);
    ASSERT_TRUE(direct) << round;
    direct->becomeReady();
    send();
    ASSERT_TRUE(eventually([&] {
      return direct->sent() == sent && r.context->count("relay.failopen:passthrough_dial_spliced");
    })) << round;
    r.flow->agentEnds();
    ASSERT_TRUE(eventually([&] { return direct->writeShutDown(); })) << round;
    direct->deliverEnd();
    ASSERT_TRUE(eventually([&] { return r.context->count("release") == 1; })) << round;
    auto trail = r.context->trail();
    // The probe answers while the failover runs.
    std::erase(trail, "circuit:success");
    EXPECT_EQ(trail, (Trail{"retain", "relay.failopen:passthrough_dial",
                            "relay.failopen:passthrough_dial_spliced", "relay.close", "release"}));
    // The probe's answer comes on a queue of its own, possibly after the release.
    EXPECT_TRUE(eventually([&] { return r.context->count("circuit:success") == 1; })) << round;
  }
}

// The agent's end (on the flow's thread) and the peer's (on the relay queue) race to end a direct
// leg, or a session committed to the front door: one of them closes it.
TEST(RelayThreadsTest, EndedFromBothSidesAtOnceClosesOnce) {
  for (int round = 0; round < 200; ++round) {
    const bool session = round % 2 == 1;
    RealRelay r(session ? RelayHarness::kFrontDoorPort : 0);
    const auto peer = r.started(1);
    ASSERT_TRUE(peer) << round;
    peer->becomeReady();
    if (session) {
      ASSERT_TRUE(r.commit(peer)) << round;
    }
    std::thread agent([&] { r.flow->agentEnds(); });
    peer->deliverEnd();
    agent.join();
    ASSERT_TRUE(eventually([&] { return r.flow->readClosed(); }));
    std::this_thread::sleep_for(5ms);  // room for a second close, were there one
    EXPECT_EQ(r.context->count("relay.close"), 1u) << round;
  }
}

// Two threads finishing one session at once: one close, one release.
TEST(RelayThreadsTest, FinishedFromTwoThreadsAtOnceClosesOnce) {
  for (int round = 0; round < 100; ++round) {
    RealRelay r(RelayHarness::kFrontDoorPort);
    const auto frontDoor = r.started(1);
    ASSERT_TRUE(frontDoor) << round;
    frontDoor->becomeReady();
    ASSERT_TRUE(r.commit(frontDoor)) << round;
    const auto session = r.context->onlySession();
    race([&] { session->finish(); }, [&] { session->finish(); });
    ASSERT_TRUE(eventually([&] { return r.context->count("release") == 1; })) << round;
    EXPECT_EQ(r.context->count("relay.close"), 1u) << round;
    EXPECT_EQ(r.context->retainedCount(), 0u) << round;
  }
}

// The agent resets (on the flow's thread) while the front door drops the session before its first
// response byte (on the relay queue): whether the failover starts or not, "relay.close" comes
// after any "relay.failopen", and the failover's dial does not outlive the session.
TEST(RelayThreadsTest, CloseComesAfterTheFailoverEventsWhenTheAgentLeavesDuringIt) {
  for (int round = 0; round < 200; ++round) {
    RealRelay r(RelayHarness::kFrontDoorPort);
    const auto frontDoor = r.started(1);
    ASSERT_TRUE(frontDoor) << round;
    frontDoor->becomeReady();
    frontDoor->deliver(bytesOf(RelayHarness::kAck));
    ASSERT_TRUE(eventually([&] { return r.context->count("retain") == 1; })) << round;
    race([&] { frontDoor->deliverEnd(); }, [&] { r.flow->agentFails({ECONNRESET, "reset"}); });
    ASSERT_TRUE(eventually([&] { return r.context->count("release") == 1; })) << round;
    const auto events = eventTrail(r.context->events());
    EXPECT_EQ(events.back(), "relay.close") << round << ::testing::PrintToString(events);
    EXPECT_TRUE(eventually([&] {
      for (const auto& c : r.connections->made()) {
        if (!c->cancelled() && c->state() != NWConnectionState::Kind::Failed) return false;
      }
      return true;
    })) << round;
  }
}

}  // namespace
}  // namespace tarnwick
