#include <chrono>
#include <cmath>
#include <limits>

#include "BridgeHarness.h"
#include "bridge/EventLine.h"

namespace tarnwick::testing {
namespace {

struct FrameCase {
  const char* name;
  Json event;
  std::optional<std::string> line;
};

class EventLineTest : public ::testing::TestWithParam<FrameCase> {};

TEST_P(EventLineTest, FramesCompactJsonAndOneLineFeed) {
  EXPECT_EQ(EventLine::frame(GetParam().event), GetParam().line);
}

INSTANTIATE_TEST_SUITE_P(
    Events, EventLineTest,
    ::testing::Values(
        FrameCase{"Alive",
                  {{"kind", "proxyext.alive"}, {"ts", 17}},
                  std::string(R"({"kind":"proxyext.alive","ts":17})"
                              "\n")},
        FrameCase{"RelayOpen",
                  {{"kind", "relay.open"},
                   {"pid", 42},
                   {"signing_id", "/usr/bin/curl"},
                   {"dest_host", "example.com"},
                   {"dest_port", 0},
                   {"trace", "0123456789abcdef"},
                   {"ts", -1}},
                  std::string(R"({"dest_host":"example.com","dest_port":0,"kind":"relay.open",)"
                              R"("pid":42,"signing_id":"/usr/bin/curl",)"
                              R"("trace":"0123456789abcdef","ts":-1})"
                              "\n")},
        FrameCase{"InvalidUtf8IsReplacedNotLost",
                  {{"kind", "quic.deny"}, {"signing_id", "a\xff"}},
                  std::string("{\"kind\":\"quic.deny\",\"signing_id\":\"a\xef\xbf\xbd\"}\n")},
        FrameCase{"TopLevelTextRefused", "proxyext.alive", std::nullopt},
        FrameCase{"TopLevelNumberRefused", 5, std::nullopt},
        FrameCase{"NonFiniteNumberRefused",
                  {{"kind", "x"}, {"v", {1.5, std::numeric_limits<double>::infinity()}}},
                  std::nullopt}),
    [](const auto& testCase) { return std::string(testCase.param.name); });

using OutboundTest = BridgeTest;

TEST_F(OutboundTest, EventsArriveInOrderAsSingleLines) {
  TestDaemon& daemon = connectToDaemon();
  for (int i = 0; i < 5; ++i) bridge().send(alive(i));
  bridge().send({{"kind", "relay.close"}, {"pid", 9}, {"dest_port", 443}});
  env_->runUntilIdle();
  for (int i = 0; i < 5; ++i) {
    const auto line = daemon.readLine();
    ASSERT_TRUE(line);
    const Json parsed = Json::parse(*line);
    EXPECT_EQ(parsed.size(), 2u) << *line;
    EXPECT_EQ(parsed["kind"], "proxyext.alive");
    EXPECT_TRUE(parsed["ts"].is_number_integer());
    EXPECT_EQ(parsed["ts"], i);
  }
  EXPECT_EQ(daemon.readLine(), R"({"dest_port":443,"kind":"relay.close","pid":9})");
  EXPECT_EQ(daemon.received().find('\r'), std::string::npos);
  EXPECT_EQ(daemon.received().back(), '\n');
}

TEST_F(OutboundTest, UnserialisableEventIsDroppedSilently) {
  TestDaemon& daemon = connectToDaemon();
  logs_->clear();
  send("not an object");
  send(alive(3));
  EXPECT_EQ(daemon.readLine(), R"({"kind":"proxyext.alive","ts":3})");
  EXPECT_EQ(logs_->messages(),
            std::vector<std::string>{
                "bridge: FIRST event delivered (33 bytes, kind=proxyext.alive) → daemon"});
}

TEST_F(OutboundTest, FirstDeliveryIsLoggedOncePerBridgeAcrossReconnections) {
  connectToDaemon();
  send({{"ts", 1}});
  bridge().reconnect(path_);
  env_->runUntilIdle();
  ASSERT_TRUE(daemon_->accept());
  send(alive(2));
  EXPECT_EQ(logs_->countContaining("FIRST event delivered"), 1u);
  EXPECT_EQ(logged("bridge: FIRST event delivered (9 bytes, kind=?) → daemon"), 1u);
}

TEST_F(OutboundTest, AbsentDaemonIsRetriedEveryTwoSecondsHoweverManyEventsAreSent) {
  bridge().adoptPath(path_, true);
  int sent = 0;
  for (int tick = 0; tick < 100; ++tick) {  // t=0s to t=9.9s, one event every 100 ms
    bridge().send(alive(tick));
    ++sent;
    env_->advance(100ms);
  }
  // Attempts at t=0 (the adoption), 2, 4, 6, 8 and 10 s.
  EXPECT_EQ(logged(connectFailedLine()), 6u);
  EXPECT_EQ(logged(droppedLine()), static_cast<std::size_t>(sent));

  TestDaemon daemon(path_);
  env_->advance(1999ms);
  EXPECT_FALSE(daemon.accept(20ms));
  env_->advance(1ms);
  EXPECT_TRUE(daemon.accept());
  EXPECT_EQ(logged(connectedLine()), 1u);
}

TEST_F(OutboundTest, PeerGoneFailsOneWriteThenDropsUntilTheRetryConnects) {
  connectToDaemon();
  daemon_->closeConnection();
  send(alive(1));
  send(alive(2));
  send(alive(3));
  EXPECT_EQ(logged(writeFailedLine()), 1u);
  EXPECT_EQ(logged(droppedLine()), 2u);
  env_->advance(2s);
  ASSERT_TRUE(daemon_->accept());
  send(alive(4));
  EXPECT_EQ(daemon_->readLine(), R"({"kind":"proxyext.alive","ts":4})");
}

TEST_F(OutboundTest, DaemonThatStopsReadingBlocksEachWriteAtMostTheSendTimeout) {
  connectToDaemon();  // accepted, never read
  const Json big = {{"kind", "relay.open"}, {"signing_id", std::string(64 * 1024, 's')}};
  std::chrono::steady_clock::duration longest{};
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 40; ++i) {
    const auto before = std::chrono::steady_clock::now();
    send(big);
    longest = std::max(longest, std::chrono::steady_clock::now() - before);
  }
  // The 250 ms timeout plus scheduling slack for loaded or sanitised runs.
  EXPECT_LT(longest, DaemonBridge::kSendTimeout + 200ms);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 4 * DaemonBridge::kSendTimeout);
  EXPECT_EQ(logged(writeFailedLine()), 1u);
  EXPECT_GT(logged(droppedLine()), 30u);
}

}  // namespace
}  // namespace tarnwick::testing
