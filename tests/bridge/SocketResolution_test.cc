#include <thread>

#include "BridgeHarness.h"
#include "platform/HomeDirectory.h"

namespace tarnwick::testing {
namespace {

struct ResolveCase {
  const char* name;
  std::optional<Json> options;
  const char* path;  // nullptr: the default path
};

class ResolveSocketTest : public ::testing::TestWithParam<ResolveCase> {};

TEST_P(ResolveSocketTest, FirstNonEmptyTextWins) {
  const ResolveCase& c = GetParam();
  const DaemonBridge::ResolvedSocket resolved = DaemonBridge::resolveSocket(c.options);
  const std::string expected = c.path ? c.path : homeDirectory() + "/.tarnwick/ne.sock";
  EXPECT_EQ(resolved.path, expected);
  EXPECT_EQ(resolved.real, c.path != nullptr);
  EXPECT_EQ(DaemonBridge::resolveSocketPath(c.options), expected);
}

const Json kNested = {{"socketPath", "/nested.sock"}};

INSTANTIATE_TEST_SUITE_P(
    StartOptions, ResolveSocketTest,
    ::testing::Values(
        ResolveCase{"TopLevel", Json{{"socketPath", "/top.sock"}}, "/top.sock"},
        ResolveCase{"NestedOnly", Json{{"providerConfiguration", kNested}}, "/nested.sock"},
        ResolveCase{"TopLevelOverridesNested",
                    Json{{"socketPath", "/top.sock"}, {"providerConfiguration", kNested}},
                    "/top.sock"},
        ResolveCase{"EmptyTopLevelFallsToNested",
                    Json{{"socketPath", ""}, {"providerConfiguration", kNested}}, "/nested.sock"},
        ResolveCase{"NumberCountsAsAbsent",
                    Json{{"socketPath", 7}, {"providerConfiguration", kNested}}, "/nested.sock"},
        ResolveCase{"EmptyBothFallToDefault",
                    Json{{"socketPath", ""}, {"providerConfiguration", {{"socketPath", ""}}}},
                    nullptr},
        ResolveCase{"NestedNotAnObject", Json{{"providerConfiguration", Json::array({"/x.sock"})}},
                    nullptr},
        ResolveCase{"EmptyOptions", Json::object(), nullptr},
        ResolveCase{"AbsentOptions", std::nullopt, nullptr}),
    [](const auto& testCase) { return std::string(testCase.param.name); });

using AdoptPathTest = BridgeTest;

TEST_F(AdoptPathTest, ConstructingOpensNothing) {
  TestDaemon daemon(path_);
  bridge();
  env_->advance(10s);
  EXPECT_FALSE(daemon.accept(50ms));
  EXPECT_TRUE(logs_->messages().empty());
}

TEST_F(AdoptPathTest, DefaultPathNeverReplacesConfiguredOne) {
  connectToDaemon();
  logs_->clear();
  bridge().adoptPath(dir_.file("default.sock"), false);
  env_->advance(10s);
  EXPECT_TRUE(logs_->messages().empty());
  send(alive(1));
  EXPECT_EQ(daemon_->readLine(), R"({"kind":"proxyext.alive","ts":1})");
}

TEST_F(AdoptPathTest, SamePathWithOpenStreamIsKeptSilently) {
  connectToDaemon();
  logs_->clear();
  bridge().adoptPath(path_, true);
  bridge().connect();
  env_->runUntilIdle();
  EXPECT_TRUE(logs_->messages().empty());
  EXPECT_FALSE(daemon_->accept(50ms));
}

TEST_F(AdoptPathTest, SamePathWithoutStreamLogsAndOpens) {
  bridge().adoptPath(path_, false);  // no daemon yet: the open fails
  env_->runUntilIdle();
  TestDaemon daemon(path_);
  bridge().adoptPath(path_, false);
  env_->runUntilIdle();
  EXPECT_EQ(logged("bridge: adopt " + path_ + " (real=false)"), 2u);
  EXPECT_EQ(logged(connectedLine()), 1u);
  EXPECT_TRUE(daemon.accept());
}

TEST_F(AdoptPathTest, SwitchingPathsEndsTheOldConnection) {
  TestDaemon& first = connectToDaemon();
  const std::string otherPath = dir_.file("other.sock");
  TestDaemon second(otherPath);
  bridge().adoptPath(otherPath, true);
  env_->runUntilIdle();
  EXPECT_TRUE(first.waitForEnd());
  ASSERT_TRUE(second.accept());
  send(alive(2));
  EXPECT_EQ(second.readLine(), R"({"kind":"proxyext.alive","ts":2})");
  EXPECT_EQ(logged("bridge: adopt " + otherPath + " (real=true)"), 1u);
}

TEST_F(AdoptPathTest, ReconnectReopensEvenOnTheSamePath) {
  TestDaemon& daemon = connectToDaemon();
  bridge().reconnect(path_);
  env_->runUntilIdle();
  EXPECT_TRUE(daemon.waitForEnd());
  EXPECT_TRUE(daemon.accept());
  EXPECT_EQ(logged("bridge: reconnect to " + path_), 1u);
  EXPECT_EQ(logged(connectedLine()), 2u);
}

TEST_F(AdoptPathTest, OverlongPathIsCutToTheAddressSize) {
  // /tmp/twb-XXXXXX/ is 16 bytes; the cut keeps 108.
  const std::string fitting = dir_.path() + "/" + std::string(108 - 16, 'p');
  const std::string overlong = fitting + "-and-more-that-does-not-fit";
  TestDaemon daemon(overlong);
  bridge().adoptPath(overlong, true);
  env_->runUntilIdle();
  EXPECT_TRUE(daemon.accept());
  EXPECT_EQ(logged("bridge: connected to " + overlong), 1u);
}

TEST(SharedBridgeTest, IsOneBridgeHoweverManyThreadsAskFirst) {
  std::vector<std::shared_ptr<DaemonBridge>> seen(8);
  std::vector<std::thread> threads;
  for (auto& slot : seen) threads.emplace_back([&slot] { slot = DaemonBridge::shared(); });
  for (auto& thread : threads) thread.join();
  for (const auto& bridge : seen) EXPECT_EQ(bridge, seen.front());
}

}  // namespace
}  // namespace tarnwick::testing
