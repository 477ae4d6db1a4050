#include "relay/RelayWatchdog.h"

#include <gtest/gtest.h>

#include "RelayHarness.h"

namespace tarnwick {
namespace {

using namespace std::chrono_literals;

class RelayWatchdogTest : public ::testing::TestWithParam<std::uint64_t> {
 protected:
  std::shared_ptr<SimulatedRuntime> env_ = SimulatedRuntime::create({.seed = GetParam()});
  std::shared_ptr<DispatchQueue> queue_ = env_->makeQueue("q", QualityOfService::Default);
  int silences_ = 0;
};

TEST_P(RelayWatchdogTest, NeverKickedNeverFires) {
  auto dog = RelayWatchdog::create(queue_, Seconds(20), [&] { ++silences_; });
  env_->advance(1h);
  EXPECT_EQ(silences_, 0);
}

TEST_P(RelayWatchdogTest, FiresOnceAfterLastKick) {
  auto dog = RelayWatchdog::create(queue_, Seconds(20), [&] { ++silences_; });
  dog->kick();
  env_->advance(10s);
  dog->kick();         // t=10s: deadline moves to t=30s
  env_->advance(19s);  // t=29s
  EXPECT_EQ(silences_, 0);
  env_->advance(2s);  // t=31s: past the deadline and its 1s leeway
  EXPECT_EQ(silences_, 1);
  dog->kick();
  env_->advance(60s);
  EXPECT_EQ(silences_, 1);  // spent: kicks do nothing
}

TEST_P(RelayWatchdogTest, KicksEveryTenSecondsHoldItOffIndefinitely) {
  auto dog = RelayWatchdog::create(queue_, Seconds(20), [&] { ++silences_; });
  for (int i = 0; i < 100; ++i) {  // 1000 s of kicks
    dog->kick();
    env_->advance(10s);
  }
  EXPECT_EQ(silences_, 0);
  env_->advance(9999ms);  // 19.999 s after the last kick
  EXPECT_EQ(silences_, 0);
  env_->advance(1001ms);  // 21 s: deadline plus the whole leeway
  EXPECT_EQ(silences_, 1);
}

TEST_P(RelayWatchdogTest, CancelBeforeTheDeadlineSpendsItForGood) {
  auto dog = RelayWatchdog::create(queue_, Seconds(20), [&] { ++silences_; });
  dog->kick();
  env_->advance(10s);
  dog->cancel();
  env_->advance(60s);
  dog->kick();
  env_->advance(60s);
  EXPECT_EQ(silences_, 0);
}

TEST_P(RelayWatchdogTest, CancelAfterFiringChangesNothing) {
  auto dog = RelayWatchdog::create(queue_, Seconds(20), [&] { ++silences_; });
  dog->kick();
  env_->advance(30s);
  dog->cancel();
  dog->cancel();
  env_->advance(60s);
  EXPECT_EQ(silences_, 1);
}

TEST_P(RelayWatchdogTest, ActionMayKickAndCancelItsOwnWatchdog) {
  std::shared_ptr<RelayWatchdog> dog;
  dog = RelayWatchdog::create(queue_, Seconds(5), [&] {
    ++silences_;
    dog->kick();
    dog->cancel();
  });
  dog->kick();
  env_->advance(10s);
  env_->advance(60s);
  EXPECT_EQ(silences_, 1);
}

TEST_P(RelayWatchdogTest, DroppedWithoutCancelItStaysSilent) {
  auto dog = RelayWatchdog::create(queue_, Seconds(5), [&] { ++silences_; });
  dog->kick();
  dog.reset();  // the timer's handler holds it only weakly
  env_->advance(60s);
  EXPECT_EQ(silences_, 0);
}

INSTANTIATE_TEST_SUITE_P(Seeds, RelayWatchdogTest, ::testing::Values(1, 2, 3, 17, 99));

// A queue whose timers the test can fire by hand, to see what the watchdog asks of them.
class HandTimer : public DispatchTimer {
 public:
  void setEventHandler(Work handler) override { handler_ = std::move(handler); }
  void schedule(Duration fromNow, std::optional<Duration> repeating, Duration leeway) override {
    schedules.push_back({fromNow, repeating, leeway});
  }
  void resume() override { ++resumes; }
  void cancel() override { ++cancels; }
  void runHandler() { handler_(); }

  struct Schedule {
    Duration fromNow;
    std::optional<Duration> repeating;
    Duration leeway;
  };
  std::vector<Schedule> schedules;
  int resumes = 0;
  int cancels = 0;

 private:
  Work handler_;
};

class HandTimerQueue : public DispatchQueue {
 public:
  const std::string& label() const override { return label_; }
  QualityOfService qos() const override { return QualityOfService::Default; }
  void async(Work work) override { work(); }
  void asyncAfter(Duration, Work) override {}
  std::shared_ptr<DispatchTimer> makeTimer() override {
    timers.push_back(std::make_shared<HandTimer>());
    return timers.back();
  }
  bool isCurrent() const override { return true; }

  std::vector<std::shared_ptr<HandTimer>> timers;

 private:
  std::string label_ = "hand";
};

TEST(RelayWatchdogTimerTest, OneSingleShotTimerWithOneSecondLeewayRescheduledByEachKick) {
  auto queue = std::make_shared<HandTimerQueue>();
  int silences = 0;
  auto dog = RelayWatchdog::create(queue, Seconds(20), [&] { ++silences; });
  EXPECT_TRUE(queue->timers.empty());  // no timer before the first kick
  dog->kick();
  dog->kick();
  ASSERT_EQ(queue->timers.size(), 1u);
  const auto& timer = *queue->timers[0];
  EXPECT_EQ(timer.resumes, 1);
  ASSERT_EQ(timer.schedules.size(), 2u);
  for (const auto& s : timer.schedules) {
    EXPECT_EQ(s.fromNow, std::chrono::seconds(20));
    EXPECT_FALSE(s.repeating.has_value());
    EXPECT_EQ(s.leeway, std::chrono::seconds(1));
  }
}

TEST(RelayWatchdogTimerTest, HandlerRunningTwiceCallsTheActionOnce) {
  auto queue = std::make_shared<HandTimerQueue>();
  int silences = 0;
  auto dog = RelayWatchdog::create(queue, Seconds(20), [&] { ++silences; });
  dog->kick();
  auto timer = queue->timers.at(0);
  timer->runHandler();
  timer->runHandler();
  EXPECT_EQ(silences, 1);
  EXPECT_EQ(timer->cancels, 1);
}

TEST(RelayWatchdogTimerTest, KickThatRacesTheDispatchedHandlerDoesNotStopIt) {
  auto queue = std::make_shared<HandTimerQueue>();
  int silences = 0;
  auto dog = RelayWatchdog::create(queue, Seconds(20), [&] { ++silences; });
  dog->kick();
  auto timer = queue->timers.at(0);
  dog->kick();  // lands after the handler was dispatched
  timer->runHandler();
  EXPECT_EQ(silences, 1);
}

}  // namespace
}  // namespace tarnwick
