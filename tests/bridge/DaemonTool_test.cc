#include <condition_variable>
#include <thread>

#include "BridgeHarness.h"
#include "CommandLine.h"
#include "DaemonServer.h"
#include "EventFormat.h"

namespace tarnwick::testing {
namespace {

using daemon::CommandLine;
using daemon::UsageError;

struct CommandLineCase {
  const char* name;
  std::vector<std::string_view> args;
  const char* error;  // nullptr: parses
  std::string socketPath = "";
  bool json = false;
  std::optional<std::string> pushFile = std::nullopt;
};

class DaemonCommandLineTest : public ::testing::TestWithParam<CommandLineCase> {};

TEST_P(DaemonCommandLineTest, Parses) {
  const CommandLineCase& c = GetParam();
  const auto parsed = daemon::parseCommandLine(c.args);
  if (c.error) {
    ASSERT_TRUE(std::holds_alternative<UsageError>(parsed));
    EXPECT_EQ(std::get<UsageError>(parsed).message, c.error);
    return;
  }
  ASSERT_TRUE(std::holds_alternative<CommandLine>(parsed));
  const auto& config = std::get<CommandLine>(parsed).config;
  EXPECT_EQ(config.socketPath, c.socketPath);
  EXPECT_EQ(config.json, c.json);
  EXPECT_EQ(config.pushFile, c.pushFile);
}

INSTANTIATE_TEST_SUITE_P(
    Options, DaemonCommandLineTest,
    ::testing::Values(
        CommandLineCase{"Defaults", {}, nullptr},
        CommandLineCase{"All", {"--socket", "/s", "--json", "--push", "p.json"}, nullptr, "/s", true,
                        "p.json"},
        CommandLineCase{"EqualsForm", {"--socket=/s", "--push=p"}, nullptr, "/s", false, "p"},
        CommandLineCase{"MissingValue", {"--socket"}, "option '--socket' needs a value"},
        CommandLineCase{"EmptyValue", {"--push="}, "option '--push' needs a value"},
        CommandLineCase{"Unknown", {"--listen", "x"}, "unknown option '--listen'"}),
    [](const auto& testCase) { return std::string(testCase.param.name); });

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
    daemon::DaemonServer::Callbacks callbacks{
        [this](std::string_view line) {
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
