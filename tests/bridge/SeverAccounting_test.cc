#include <functional>

#include "BridgeHarness.h"

namespace tarnwick::testing {
namespace {

// Passes records on to the test's capture and runs `hook` on the logging thread when a message
// starts with `prefix`: a way to act at an exact point inside a bridge operation.
class HookLogSink : public LogSink {
 public:
  HookLogSink(std::shared_ptr<LogSink> next, std::string prefix, std::function<void()> hook)
      : next_(std::move(next)), prefix_(std::move(prefix)), hook_(std::move(hook)) {}
  void write(const LogRecord& record) override {
    next_->write(record);
    if (record.message.rfind(prefix_, 0) == 0 && hook_) std::exchange(hook_, nullptr)();
  }

 private:
  std::shared_ptr<LogSink> next_;
  std::string prefix_;
  std::function<void()> hook_;
};

class SeverAccountingTest : public BridgeTest {
 protected:
  std::string pendingLine(int pending) const {
    return "bridge: committed relay sever during daemon-down (pending=" + std::to_string(pending) +
           ") — will flush proxy.env.dead on reconnect";
  }
  static std::string flushedLine(int count) {
    return "bridge: flushed proxy.env.dead count=" + std::to_string(count) + " → daemon";
  }
  // The daemon goes away; the bridge learns of it at its next write.
  void stopDaemon() {
    daemon_.reset();
    send(alive(0));
  }
  void expectEnvDead(TestDaemon& daemon, int count) {
    const auto line = daemon.readLine();
    ASSERT_TRUE(line);
    const Json event = Json::parse(*line);
    EXPECT_EQ(event.size(), 3u) << *line;
    EXPECT_EQ(event["kind"], "proxy.env.dead");
    EXPECT_EQ(event["count"], count);
    // 2026-01-01T00:00:00Z on the simulated wall clock, plus the time the test has advanced.
    EXPECT_GE(event["ts"].get<std::int64_t>(), 1767225600LL * 1'000'000'000);
  }
};

TEST_F(SeverAccountingTest, SeversDuringOutageAreReportedFirstOnTheNewConnection) {
  connectToDaemon();
  stopDaemon();
  for (int i = 0; i < 3; ++i) bridge().recordCommittedSeverIfUnhealthy();
  env_->runUntilIdle();
  for (int pending = 1; pending <= 3; ++pending) EXPECT_EQ(logged(pendingLine(pending)), 1u);
  EXPECT_EQ(env_->nextDeadline(), env_->monotonicNow() + 2s) << "one retry pending";

  daemon_ = std::make_unique<TestDaemon>(path_);  // the daemon restarts
  env_->advance(2s);
  ASSERT_TRUE(daemon_->accept());
  send(alive(5));
  expectEnvDead(*daemon_, 3);
  EXPECT_EQ(daemon_->readLine(), R"({"kind":"proxyext.alive","ts":5})");
  EXPECT_EQ(logged(flushedLine(3)), 1u);

  // The new connection has its own read loop: the old one ended when the daemon went away.
  daemon_->write(R"({"kind":"policy.push","version":1})"
                 "\n");
  ASSERT_TRUE(env_->runUntil([&] { return policy_.count() == 1; }));
}

TEST_F(SeverAccountingTest, SeverWhileConnectedCountsNothing) {
  connectToDaemon();
  logs_->clear();
  bridge().recordCommittedSeverIfUnhealthy();
  env_->runUntilIdle();
  EXPECT_TRUE(logs_->messages().empty());
  EXPECT_FALSE(env_->nextDeadline().has_value());

  bridge().reconnect(path_);
  env_->runUntilIdle();
  ASSERT_TRUE(daemon_->accept());
  send(alive(1));
  EXPECT_EQ(daemon_->readLine(), R"({"kind":"proxyext.alive","ts":1})") << "no proxy.env.dead";
}

TEST_F(SeverAccountingTest, FailedFlushKeepsTheWholeCountForTheNextConnection) {
  connectToDaemon();
  stopDaemon();
  bridge().recordCommittedSeverIfUnhealthy();
  bridge().recordCommittedSeverIfUnhealthy();
  env_->runUntilIdle();

  // The restarted daemon drops the first connection between its connect and the flush.
  daemon_ = std::make_unique<TestDaemon>(path_);
  auto capture = setLogSink(nullptr);
  setLogSink(std::make_shared<HookLogSink>(capture, connectedLine(), [this] {
    ASSERT_TRUE(daemon_->accept());
    daemon_->closeConnection();
  }));
  env_->advance(2s);
  setLogSink(capture);
  EXPECT_EQ(logged(flushedLine(2)), 0u);

  // Another outage adds to the kept count rather than replacing it.
  bridge().recordCommittedSeverIfUnhealthy();
  send(alive(1));
  env_->runUntilIdle();
  EXPECT_EQ(logged(pendingLine(3)), 1u);
  EXPECT_GE(logged(droppedLine()), 1u);
  env_->advance(2s);
  ASSERT_TRUE(daemon_->accept());
  expectEnvDead(*daemon_, 3);
  EXPECT_EQ(logged(flushedLine(3)), 1u);
}

}  // namespace
}  // namespace tarnwick::testing
