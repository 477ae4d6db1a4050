#include <condition_variable>
#include <thread>

#include "BridgeHarness.h"
#include "CommandLine.h"
#include "DaemonServer.h"
#include "EventFormat.h"

namespace tarnwick::testing {
namespace {

TEST(DaemonCommandLineTest, TakesBothOptionFormsAndNamesEachFault) {
  const std::vector<std::string_view> args = {"--socket", "/s", "--json", "--push=p.json"};
  const auto parsed = daemon::parseCommandLine(args);
  ASSERT_TRUE(std::holds_alternative<daemon::CommandLine>(parsed));
  const auto& config = std::get<daemon::CommandLine>(parsed).config;
  EXPECT_EQ(config.socketPath, "/s");
  EXPECT_TRUE(config.json);
  EXPECT_EQ(config.pushFile, "p.json");

  const std::vector<std::pair<std::vector<std::string_view>, std::string>> faults = {
      {{"--socket"}, "option '--socket' needs a value"},
      {{"--push="}, "option '--push' needs a value"},
      {{"--listen", "x"}, "unknown option '--listen'"}};
  for (const auto& [faultArgs, message] : faults) {
    const auto fault = daemon::parseCommandLine(faultArgs);
    ASSERT_TRUE(std::holds_alternative<daemon::UsageError>(fault)) << message;
    EXPECT_EQ(std::get<daemon::UsageError>(fault).message, message);
  }
}

TEST(DaemonEventFormatTest, ReadableLinesShowKindThenSortedKeys) {
  EXPECT_EQ(daemon::readableEvent(R"({"ts":5,"kind":"proxyext.alive"})"), "proxyext.alive ts=5");
  EXPECT_EQ(daemon::readableEvent(
                R"({"kind":"relay.failopen","reason":"no-ack","signing_id":"a b","dest_host":""})"),
            R"(relay.failopen dest_host="" reason=no-ack signing_id="a b")");
  EXPECT_EQ(daemon::readableEvent(R"({"count":3})"), "? count=3");
  EXPECT_EQ(daemon::readableEvent("[1]"), "unparsed: [1]");
  EXPECT_EQ(daemon::readableEvent("{bad"), "unparsed: {bad");
}

TEST(DaemonEventFormatTest, PushLineIsTheFileObjectWithItsKindSet) {
  std::string error;
  EXPECT_EQ(daemon::policyPushLine(R"({"version":1,"kind":"other"})", error),
            "{\"kind\":\"policy.push\",\"version\":1}\n");
  EXPECT_EQ(daemon::policyPushLine("[1]", error), std::nullopt);
  EXPECT_EQ(error, "the policy file must hold one JSON object");
}

TEST(DaemonEventFormatTest, CountsByKind) {
  daemon::KindCounts counts;
  for (const char* kind : {"relay.open", "proxyext.alive", "relay.open"}) counts.add(kind);
  EXPECT_EQ(counts.readableSummary(), "events 3\n  proxyext.alive 1\n  relay.open 2");
  EXPECT_EQ(counts.jsonSummary(), R"({"counts":{"proxyext.alive":1,"relay.open":2},"total":3})");
}

// The companion and the bridge, each on its own side of a real socket.
class DaemonServerTest : public BridgeTest {
 protected:
  void startServer(std::optional<std::string> pushLine) {
    std::string error;
    daemon::DaemonServer::Callbacks callbacks{[this](std::string_view line) {
                                                std::lock_guard<std::mutex> lock(mutex_);
                                                events_.emplace_back(line);
                                                arrived_.notify_all();
                                              },
                                              [this](std::string_view line) {
                                                std::lock_guard<std::mutex> lock(mutex_);
                                                statuses_.emplace_back(line);
                                              }};
    server_ = daemon::DaemonServer::create(dir_.file("sub/dir/ne.sock"), std::move(pushLine),
                                           std::move(callbacks), error);
    ASSERT_TRUE(server_) << error;
    thread_ = std::thread([this] { server_->run(); });
  }
  void TearDown() override {
    if (server_) server_->stop();
    if (thread_.joinable()) thread_.join();
  }
  // The server's thread reports to the test, not to the runtime, so this waits on its own.
  bool waitForEvents(std::size_t count, std::chrono::milliseconds timeout = 2s) {
    std::unique_lock<std::mutex> lock(mutex_);
    return arrived_.wait_for(lock, timeout, [&] { return events_.size() >= count; });
  }

  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<std::string> events_;
  std::vector<std::string> statuses_;
  std::unique_ptr<daemon::DaemonServer> server_;
  std::thread thread_;
};

TEST_F(DaemonServerTest, PushesOnEachConnectionAndReceivesEvents) {
  startServer(R"({"kind":"policy.push","version":1})"
              "\n");
  bridge().adoptPath(server_->path(), true);
  ASSERT_TRUE(env_->runUntil([&] { return policy_.count() == 1; }));
  send(alive(1));
  bridge().reconnect(server_->path());
  ASSERT_TRUE(env_->runUntil([&] { return policy_.count() == 2; }));
  send(alive(2));
  ASSERT_TRUE(waitForEvents(2));
  server_->stop();
  thread_.join();
  EXPECT_EQ(events_, (std::vector<std::string>{R"({"kind":"proxyext.alive","ts":1})",
                                               R"({"kind":"proxyext.alive","ts":2})"}));
  EXPECT_EQ(statuses_.front(), "connected");
  EXPECT_EQ(statuses_[1], "pushed policy (35 bytes)");
}

TEST_F(DaemonServerTest, ServesOneConnectionAtATime) {
  startServer(std::nullopt);
  bridge().adoptPath(server_->path(), true);
  env_->runUntilIdle();
  auto waiting = makeBridge(server_->path());
  waiting->adoptPath(server_->path(), true);
  env_->runUntilIdle();
  waiting->send(alive(2));  // sits in the backlog's connection
  bridge().send(alive(1));
  env_->runUntilIdle();
  EXPECT_FALSE(waitForEvents(2, 50ms));
  bridge_.reset();  // its connection ends, so the waiting one is served
  ASSERT_TRUE(waitForEvents(2));
  std::lock_guard<std::mutex> lock(mutex_);
  EXPECT_EQ(events_, (std::vector<std::string>{R"({"kind":"proxyext.alive","ts":1})",
                                               R"({"kind":"proxyext.alive","ts":2})"}));
}

}  // namespace
}  // namespace tarnwick::testing
