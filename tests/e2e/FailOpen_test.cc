// Whatever the front door does wrong, the watched program still gets its bytes, and the daemon
// hears why the flow went around the front door.

#include <chrono>
#include <regex>
#include <thread>

#include "EndToEndTest.h"

namespace tarnwick::e2e {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;

std::vector<std::string> reasonsOf(const std::vector<Json>& events) {
  std::vector<std::string> reasons;
  for (const auto& event : events) reasons.push_back(event.value("reason", ""));
  return reasons;
}

struct FrontDoorFault {
  const char* name;
  const char* mode;
  // One pattern per "relay.failopen" event, in order. A front door that acknowledges and closes
  // may be noticed by the read or by the next write, whichever comes first.
  std::vector<std::string> reasons;
};

void PrintTo(const FrontDoorFault& fault, std::ostream* out) { *out << fault.name; }

class FrontDoorFaultTest : public EndToEndTest,
                           public ::testing::WithParamInterface<FrontDoorFault> {};

TEST_P(FrontDoorFaultTest, FailsOpenWithTheReasonAndTheBytes) {
  const auto& fault = GetParam();
  ASSERT_NO_FATAL_FAILURE(startFrontDoor(fault.mode));
  ASSERT_NO_FATAL_FAILURE(startInterceptor({{"watchedSigningIDs", {watchedClient()}}}));
  TW_REQUIRE_RELAYING();
  const auto started = std::chrono::steady_clock::now();
  const auto run = runClient({.bytes = 100'000});
  const auto took = std::chrono::steady_clock::now() - started;
  ASSERT_EQ(run.status, 0) << run.output;
  EXPECT_LT(took, 6s) << "fail-open should cost at most the 2.5 s handshake budget";

  ASSERT_TRUE(sink_->waitFor("relay.close"));
  const auto failOpens = sink_->eventsOfKind("relay.failopen");
  const auto reasons = reasonsOf(failOpens);
  ASSERT_EQ(reasons.size(), fault.reasons.size()) << ::testing::PrintToString(reasons);
  for (std::size_t i = 0; i < reasons.size(); ++i) {
    EXPECT_TRUE(std::regex_match(reasons[i], std::regex(fault.reasons[i]))) << reasons[i];
    EXPECT_EQ(failOpens[i]["pid"], run.pid);
    EXPECT_EQ(failOpens[i]["dest_port"], echo_->port());
  }
}

INSTANTIATE_TEST_SUITE_P(Modes, FrontDoorFaultTest,
                         ::testing::Values(FrontDoorFault{"Refused", "refuse", {"relay-failed"}},
                                           FrontDoorFault{
                                               "Silent", "silent", {"handshake-timeout"}},
                                           FrontDoorFault{"Rejected", "reject", {"no-ack"}},
                                           FrontDoorFault{"Garbage", "garbage", {"no-ack"}},
                                           FrontDoorFault{"AckThenClose",
                                                          "ack-then-close",
                                                          {"passthrough_dial|relay-write-failed",
                                                           "passthrough_dial_spliced"}}),
                         [](const auto& param) { return param.param.name; });

TEST_F(EndToEndTest, CircuitOpensAfterThreeFailures) {
  ASSERT_NO_FATAL_FAILURE(startInterceptor({{"watchedSigningIDs", {watchedClient()}}}));
  TW_REQUIRE_RELAYING();
  for (int i = 0; i < 4; ++i) {
    const auto run = runClient({});
    ASSERT_EQ(run.status, 0) << run.output;
    ASSERT_TRUE(sink_->waitForCount("relay.failopen", i + 1));
  }
  EXPECT_EQ(
      reasonsOf(sink_->eventsOfKind("relay.failopen")),
      (std::vector<std::string>{"relay-failed", "relay-failed", "relay-failed", "circuit-open"}));
}

// A committed relay cut while the daemon is away is counted, and the count is the first thing the
// daemon hears when it comes back.
TEST_F(EndToEndTest, DaemonRestartReportsSeveredRelays) {
  ASSERT_NO_FATAL_FAILURE(startFrontDoor());
  ASSERT_NO_FATAL_FAILURE(startInterceptor({{"watchedSigningIDs", {watchedClient()}}}));
  TW_REQUIRE_RELAYING();
  auto holder = spawnClient({.mode = "hold"});
  ASSERT_TRUE(holder);
  ASSERT_TRUE(eventually([&] { return holder->output().find("ready") != std::string::npos; }))
      << holder->output();
  ASSERT_TRUE(sink_->waitFor("relay.open"));

  sink_->stop();
  // Another relay's events meet the closed socket, so the interceptor knows the daemon is gone.
  ASSERT_EQ(runClient({}).status, 0);
  std::this_thread::sleep_for(300ms);
  echo_->severAll();
  const auto held = finishClient(*holder);
  ASSERT_EQ(held.status, 0) << held.output;
  EXPECT_NE(held.output.find("closed"), std::string::npos);

  const std::size_t heardBefore = sink_->events().size();
  std::string error;
  ASSERT_TRUE(sink_->start(error)) << error;
  const auto dead = sink_->waitFor("proxy.env.dead", 8s);
  ASSERT_TRUE(dead);
  EXPECT_EQ((*dead)["count"], 1);
  EXPECT_EQ(sink_->events().at(heardBefore)["kind"], "proxy.env.dead");
}

}  // namespace
}  // namespace tarnwick::e2e
