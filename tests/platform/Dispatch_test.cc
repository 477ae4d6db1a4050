// Queues and timers under both runtimes, where their contracts coincide; then what only one of
// them promises: seeded replay (simulated) and coalesced periods on a busy queue (real).

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "ConnectionEvents.h"
#include "platform/testing/SimulatedRuntime.h"

namespace tarnwick {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;

// Lets time pass on one of the runtimes: virtual time on the simulated one, a few real
// milliseconds on the real one.
class RuntimeHarness {
 public:
  virtual ~RuntimeHarness() = default;
  virtual std::shared_ptr<Runtime> runtime() = 0;
  // Lets `span` pass with nothing else to wait for (for "nothing happens" checks).
  virtual void pass(Duration span) = 0;
  // Runs queues and lets time pass until `done` holds.
  virtual bool settle(const std::function<bool()>& done) = 0;
};

class SimulatedHarness : public RuntimeHarness {
 public:
  std::shared_ptr<Runtime> runtime() override { return env_; }
  void pass(Duration span) override { env_->advance(span); }
  bool settle(const std::function<bool()>& done) override {
    for (int step = 0; step < 10000; ++step) {
      env_->runUntilIdle();
      if (done()) return true;
      const auto next = env_->nextDeadline();
      if (!next) return env_->runUntil(done);
      env_->advance(*next - env_->monotonicNow());
    }
    return false;
  }

 private:
  std::shared_ptr<SimulatedRuntime> env_ = SimulatedRuntime::create();
};

class RealHarness : public RuntimeHarness {
 public:
  std::shared_ptr<Runtime> runtime() override { return realRuntime(); }
  void pass(Duration span) override { std::this_thread::sleep_for(span); }
  bool settle(const std::function<bool()>& done) override { return eventually(done); }
};

// A list that queue work appends to from any thread.
class Trace {
 public:
  void add(std::string entry) {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.push_back(std::move(entry));
  }
  std::vector<std::string> entries() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_;
  }
  std::size_t size() const { return entries().size(); }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> entries_;
};

class DispatchTest : public ::testing::TestWithParam<bool> {
 protected:
  DispatchTest() {
    if (GetParam()) {
      harness_ = std::make_unique<RealHarness>();
    } else {
      harness_ = std::make_unique<SimulatedHarness>();
    }
  }
  std::shared_ptr<DispatchQueue> makeQueue(std::string label, QueueKind kind = QueueKind::Serial) {
    return harness_->runtime()->makeQueue(std::move(label), QualityOfService::Default, kind);
  }
  // Runs `work` on `queue` and waits until it has run.
  void runOn(const std::shared_ptr<DispatchQueue>& queue, Work work) {
    auto done = std::make_shared<std::atomic<bool>>(false);
    queue->async([work = std::move(work), done] {
      work();
      *done = true;
    });
    ASSERT_TRUE(harness_->settle([&] { return done->load(); }));
  }

  std::unique_ptr<RuntimeHarness> harness_;
  Trace trace_;
};

TEST_P(DispatchTest, SerialQueuesRunTheirWorkInOrderOneItemAtATime) {
  constexpr int kItems = 300;
  std::vector<std::shared_ptr<DispatchQueue>> queues = {makeQueue("a"), makeQueue("b")};
  std::vector<std::vector<int>> order(2);
  std::atomic<int> inside[2] = {0, 0};
  std::atomic<int> overlaps{0}, misplaced{0}, finished{0};
  for (int i = 0; i < kItems; ++i) {
    for (int q = 0; q < 2; ++q) {
      queues[q]->async([&, q, i] {
        if (inside[q].fetch_add(1) != 0) ++overlaps;
        if (!queues[q]->isCurrent() || queues[1 - q]->isCurrent()) ++misplaced;
        order[q].push_back(i);
        inside[q].fetch_sub(1);
        ++finished;
      });
    }
  }
  ASSERT_TRUE(harness_->settle([&] { return finished.load() == 2 * kItems; }));
  EXPECT_EQ(overlaps.load(), 0);
  EXPECT_EQ(misplaced.load(), 0);
  for (const auto& ran : order) {
    ASSERT_EQ(ran.size(), static_cast<std::size_t>(kItems));
    EXPECT_TRUE(std::is_sorted(ran.begin(), ran.end()));
  }
  EXPECT_FALSE(queues[0]->isCurrent());
}

TEST_P(DispatchTest, BlockedBlockingQueueDoesNotStallOtherQueues) {
  auto reader = makeQueue("reader", QueueKind::Blocking);
  auto queue = makeQueue("bridge");
  std::promise<void> release;
  auto released = release.get_future().share();
  reader->async([&, released] {
    // Blocks like a read until work on another queue releases it.
    released.wait_for(5s);
    queue->async([&] { trace_.add("reader handed back"); });
  });
  queue->async([&] {
    trace_.add("queue ran while reader blocked");
    release.set_value();
  });
  ASSERT_TRUE(harness_->settle([&] { return trace_.size() == 2; }));
  EXPECT_THAT(trace_.entries(),
              ElementsAre("queue ran while reader blocked", "reader handed back"));
}

TEST_P(DispatchTest, DelayedWorkRunsOnItsQueueInDeadlineOrder) {
  auto queue = makeQueue("q");
  queue->asyncAfter(8ms, [&] { trace_.add(queue->isCurrent() ? "late" : "late, off queue"); });
  queue->asyncAfter(1ms, [&] { trace_.add(queue->isCurrent() ? "early" : "early, off queue"); });
  ASSERT_TRUE(harness_->settle([&] { return trace_.size() == 2; }));
  EXPECT_THAT(trace_.entries(), ElementsAre("early", "late"));
}

TEST_P(DispatchTest, TimerWaitsForResumeAndFiresOnItsQueue) {
  auto queue = makeQueue("q");
  auto timer = queue->makeTimer();
  timer->setEventHandler([&] { trace_.add(queue->isCurrent() ? "fired" : "fired off queue"); });
  timer->schedule(0ms, std::nullopt, 0ms);
  harness_->pass(5ms);
  EXPECT_EQ(trace_.size(), 0u);
  timer->resume();
  ASSERT_TRUE(harness_->settle([&] { return trace_.size() == 1; }));
  harness_->pass(5ms);
  EXPECT_THAT(trace_.entries(), ElementsAre("fired"));
}

TEST_P(DispatchTest, RescheduleReplacesTheDeadline) {
  auto queue = makeQueue("q");
  auto sooner = queue->makeTimer();
  auto later = queue->makeTimer();
  sooner->setEventHandler([&] { trace_.add("sooner"); });
  later->setEventHandler([&] { trace_.add("later"); });
  // On the timers' own queue, so neither can fire between the two schedules.
  runOn(queue, [&] {
    sooner->schedule(1h, std::nullopt, 0ms);
    sooner->resume();
    sooner->schedule(1ms, std::nullopt, 0ms);
    later->schedule(1ms, std::nullopt, 0ms);
    later->resume();
    later->schedule(1h, std::nullopt, 0ms);
  });
  ASSERT_TRUE(harness_->settle([&] { return trace_.size() == 1; }));
  harness_->pass(10ms);
  EXPECT_THAT(trace_.entries(), ElementsAre("sooner"));
  later->cancel();
}

TEST_P(DispatchTest, CancelStopsARepeatingTimerAndReleasesItsHandler) {
  auto queue = makeQueue("q");
  auto timer = queue->makeTimer();
  auto token = std::make_shared<int>(0);
  std::atomic<int> fired{0};
  timer->setEventHandler([&, token] { ++fired; });
  timer->schedule(1ms, 1ms, 0ms);
  timer->resume();
  ASSERT_TRUE(harness_->settle([&] { return fired.load() >= 3; }));
  int firedAtCancel = 0;
  runOn(queue, [&] {
    timer->cancel();
    firedAtCancel = fired.load();
  });
  harness_->pass(10ms);
  EXPECT_EQ(fired.load(), firedAtCancel);
  EXPECT_EQ(token.use_count(), 1);
}

TEST_P(DispatchTest, CancelFromInsideTheHandlerEndsTheFirings) {
  auto queue = makeQueue("q");
  auto timer = queue->makeTimer();
  std::atomic<int> fired{0};
  // The handler reaches its timer weakly, as owners' handlers do.
  timer->setEventHandler([&, weak = std::weak_ptr<DispatchTimer>(timer)] {
    ++fired;
    if (auto self = weak.lock()) self->cancel();
  });
  timer->schedule(1ms, 1ms, 0ms);
  timer->resume();
  ASSERT_TRUE(harness_->settle([&] { return fired.load() == 1; }));
  harness_->pass(10ms);
  EXPECT_EQ(fired.load(), 1);
}

TEST_P(DispatchTest, CancelWinsOverAnExpiryAlreadyDue) {
  auto queue = makeQueue("q");
  auto timer = queue->makeTimer();
  std::atomic<int> fired{0};
  timer->setEventHandler([&] { ++fired; });
  runOn(queue, [&] {
    timer->schedule(0ms, std::nullopt, 0ms);
    timer->resume();
    // The deadline passes while the queue is busy; the expiry waits behind this work.
    std::this_thread::sleep_for(2ms);
    timer->cancel();
  });
  harness_->pass(10ms);
  EXPECT_EQ(fired.load(), 0);
}

INSTANTIATE_TEST_SUITE_P(BothRuntimes, DispatchTest, ::testing::Bool(),
                         [](const auto& p) { return p.param ? "Real" : "Simulated"; });

std::vector<Duration> leewayFirings(std::uint64_t seed) {
  auto env = SimulatedRuntime::create({.seed = seed});
  auto queue = env->makeQueue("beacon", QualityOfService::Default);
  auto timer = queue->makeTimer();
  const MonotonicTime start = env->monotonicNow();
  std::vector<Duration> at;
  timer->setEventHandler([&] { at.push_back(env->monotonicNow() - start); });
  timer->schedule(5s, 5s, 1s);
  timer->resume();
  env->advance(60s);
  timer->cancel();
  return at;
}

TEST(SimulatedDispatchTest, SameSeedFiresTimersAtTheSameMoments) {
  EXPECT_EQ(leewayFirings(3), leewayFirings(3));
  EXPECT_NE(leewayFirings(3), leewayFirings(4));
}

// Periods missed while the queue was busy collapse into one firing; later firings keep the
// original grid. A timer that queued every missed period would fire them back to back.
TEST(RealDispatchTest, RepeatingTimerCoalescesPeriodsMissedWhileItsQueueWasBusy) {
  auto queue = realRuntime()->makeQueue("busy", QualityOfService::Default);
  auto timer = queue->makeTimer();
  std::mutex mutex;
  std::vector<MonotonicTime> firings;
  timer->setEventHandler([&] {
    std::size_t count;
    {
      std::lock_guard<std::mutex> lock(mutex);
      firings.push_back(std::chrono::steady_clock::now());
      count = firings.size();
    }
    if (count == 1) std::this_thread::sleep_for(20ms);  // ten periods
  });
  timer->schedule(2ms, 2ms, 0ms);
  timer->resume();
  ASSERT_TRUE(eventually([&] {
    std::lock_guard<std::mutex> lock(mutex);
    return firings.size() >= 5;
  }));
  auto cancelled = std::make_shared<std::promise<void>>();
  queue->async([&, cancelled] {
    timer->cancel();
    cancelled->set_value();
  });
  cancelled->get_future().wait();
  std::lock_guard<std::mutex> lock(mutex);
  const auto burst = std::count_if(firings.begin() + 1, firings.end(),
                                   [&](MonotonicTime t) { return t - firings[1] < 1ms; });
  EXPECT_LE(burst, 2) << "firings right after the busy spell";
}

}  // namespace
}  // namespace tarnwick
