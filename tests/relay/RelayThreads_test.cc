// The relay engine's locks under real concurrency: flow completions on a thread of their own
// against connection callbacks on the relay queue, and racing settlements. Meant for the
// ThreadSanitizer build as much as for their own assertions.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "RelayHarness.h"
#include "relay/RelayGate.h"
#include "relay/RelayWatchdog.h"

namespace tarnwick {
namespace {

using namespace std::chrono_literals;

// Runs `a` and `b` on two threads released at the same moment.
void race(const std::function<void()>& a, const std::function<void()>& b) {
  std::atomic<int> ready{0};
  auto start = [&](const std::function<void()>& f) {
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

TEST(RelayThreadsTest, GateIsClaimedExactlyOnceByTwoThreads) {
  for (int i = 0; i < 500; ++i) {
    RelayGate gate;
    std::atomic<int> wins{0};
    auto claimer = [&] {
      if (gate.claim()) ++wins;
      EXPECT_FALSE(gate.pending());
    };
    race(claimer, claimer);
    EXPECT_EQ(wins.load(), 1);
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

// Runs the simulated queues until `done` holds. Work finished on the framework's thread hands
// nothing back to the simulated runtime, so its result is polled in short real-time slices.
bool runUntil(SimulatedRuntime& env, const std::function<bool()>& done) {
  for (int i = 0; i < 2000; ++i) {
    if (env.runUntil(done, 5ms)) return true;
  }
  return false;
}

class ThreadedSessionTest : public ::testing::Test {
 protected:
  ThreadedSessionTest() : h_(7, {}, QueueKind::Blocking) {
    flow_ = h_.relay();
    frontDoor_ = h_.connection(0);
    frontDoor_->becomeReady();
    frontDoor_->deliver(bytesOf(RelayHarness::kAck));
    EXPECT_TRUE(runUntil(*h_.env, [&] { return h_.context->retains() == 1; }));
  }

  bool ended() { return h_.context->ofKind("relay.close").size() == 1 && flow_->readClosed(); }

  RelayHarness h_;
  std::shared_ptr<ScriptedTCPFlow> flow_;
  std::shared_ptr<ScriptedConnection> frontDoor_;
};

TEST_F(ThreadedSessionTest, BothDirectionsFlowWhileTheAgentRunsOnItsOwnThread) {
  Bytes up, down;
  for (std::size_t i = 0; i < 200; ++i) {
    const Bytes a = patternBytes(1 + i * 13 % 900, up.size());
    const Bytes b = patternBytes(1 + i * 7 % 700, down.size());
    up.insert(up.end(), a.begin(), a.end());
    down.insert(down.end(), b.begin(), b.end());
    flow_->agentSends(a);
    frontDoor_->deliver(b);
    if (i % 16 == 0) h_.env->runUntilIdle();
  }
  ASSERT_TRUE(runUntil(*h_.env, [&] {
    return RelayHarness::afterPreamble(*frontDoor_).size() == up.size() &&
           flow_->written().size() == down.size();
  }));
  EXPECT_EQ(RelayHarness::afterPreamble(*frontDoor_), up);
  EXPECT_EQ(flow_->written(), down);
  flow_->agentEnds();
  ASSERT_TRUE(runUntil(*h_.env, [&] { return ended(); }));
  EXPECT_EQ(h_.context->retainedCount(), 0u);
  EXPECT_EQ(h_.context->circuitSuccesses(), 1);
}

TEST_F(ThreadedSessionTest, FailoverKeepsTheAgentsByteOrderAcrossThreads) {
  Bytes up;
  auto send = [&](std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      const Bytes a = patternBytes(1 + (up.size() * 11) % 500, up.size());
      up.insert(up.end(), a.begin(), a.end());
      flow_->agentSends(a);
    }
  };
  send(50);
  frontDoor_->deliverEnd();  // the failover starts while the agent is still being read
  send(50);
  ASSERT_TRUE(runUntil(*h_.env, [&] { return h_.connectionCount() == 2; }));
  auto direct = h_.connection(1);
  direct->becomeReady();
  send(50);
  ASSERT_TRUE(runUntil(*h_.env, [&] { return direct->sent().size() == up.size(); }));
  EXPECT_EQ(direct->sent(), up);
  flow_->agentEnds();
  ASSERT_TRUE(runUntil(*h_.env, [&] { return ended(); }));
  EXPECT_EQ(h_.context->eventTrail(),
            (std::vector<std::string>{"relay.failopen:passthrough_dial",
                                      "relay.failopen:passthrough_dial_spliced", "relay.close"}));
}

TEST(ThreadedDirectLegTest, BothSidesEndingTogetherCloseOnce) {
  for (std::uint64_t seed = 1; seed <= 50; ++seed) {
    RelayHarness h(seed, {}, QueueKind::Blocking);
    auto queue = h.env->makeQueue(RelayEngine::kRelayQueueLabel, QualityOfService::UserInitiated);
    auto flow = h.makeFlow();
    h.engine.dialDirect(flow, RelayHarness::defaultTarget(), 1, "", FailOpenReason::NoAck, queue);
    h.env->runUntilIdle();
    auto conn = h.connection(0);
    conn->becomeReady();
    h.env->runUntilIdle();
    race([&] { flow->agentEnds(); }, [&] { conn->deliverEnd(); });
    ASSERT_TRUE(runUntil(*h.env, [&] { return !h.context->ofKind("relay.close").empty(); }));
    h.drainFramework();
    h.env->runUntilIdle();
    EXPECT_EQ(h.context->ofKind("relay.close").size(), 1u) << "seed " << seed;
  }
}

}  // namespace
}  // namespace tarnwick
