// Whatever the front door or the daemon does wrong, the watched program still gets its bytes, and
// the daemon hears what went wrong.

#include <regex>

#include "EndToEnd.h"

namespace tarnwick::e2e {
namespace {

struct FrontDoorFault {
  const char* name;
  const char* mode;
  int runs;
  // One pattern per "relay.failopen" event, in order. A front door that acknowledges and closes
  // may be noticed by the read or by the next write, whichever comes first.
  std::vector<std::string> reasons;
};

void PrintTo(const FrontDoorFault& fault, std::ostream* out) { *out << fault.name; }

class FailOpenTest : public EndToEndTest, public ::testing::WithParamInterface<FrontDoorFault> {};

TEST_P(FailOpenTest, DeliversTheBytesAndReportsTheReason) {
  const auto& fault = GetParam();
  ASSERT_NO_FATAL_FAILURE(startFrontDoor(fault.mode));
  ASSERT_NO_FATAL_FAILURE(startInterceptor());
  std::set<pid_t> pids;
  const auto started = std::chrono::steady_clock::now();
  for (int i = 0; i < fault.runs; ++i) {
    const auto run = runClient({.bytes = 100'000});
    ASSERT_EQ(run.status, 0) << run.output;
    pids.insert(run.pid);
    ASSERT_TRUE(awaitEvents("relay.failopen", i + 1));
  }
  EXPECT_LT(std::chrono::steady_clock::now() - started, 6s)
      << "failing open costs at most the 2.5 s handshake budget, and only once";
  ASSERT_TRUE(awaitEvents("relay.failopen", fault.reasons.size()));
  const auto failOpens = events("relay.failopen");
  ASSERT_EQ(failOpens.size(), fault.reasons.size()) << Json(failOpens).dump();
  for (std::size_t i = 0; i < failOpens.size(); ++i) {
    const auto reason = failOpens[i].value("reason", "");
    EXPECT_TRUE(std::regex_match(reason, std::regex(fault.reasons[i]))) << reason;
    EXPECT_TRUE(pids.count(failOpens[i].value("pid", pid_t{0}))) << failOpens[i].dump();
    EXPECT_EQ(failOpens[i]["dest_port"], echo_->port());
  }
}

const FrontDoorFault kFaults[] = {
    // A refusing front door fails three relays; then the circuit opens and flows go around it.
    {"RefusedUntilTheCircuitOpens",
     "refuse",
     4,
     {"relay-failed", "relay-failed", "relay-failed", "circuit-open"}},
    {"Silent", "silent", 1, {"handshake-timeout"}},
    {"Rejected", "reject", 1, {"no-ack"}},
    {"Garbage", "garbage", 1, {"no-ack"}},
    {"AckThenClose",
     "ack-then-close",
     1,
     {"passthrough_dial|relay-write-failed", "passthrough_dial_spliced"}},
};

INSTANTIATE_TEST_SUITE_P(Modes, FailOpenTest, ::testing::ValuesIn(kFaults),
                         [](const auto& param) { return param.param.name; });

// A committed relay cut while the daemon is away is counted, and the count is the first thing the
// daemon hears when it comes back (the new daemon writes a log of its own).
TEST_F(EndToEndTest, DaemonRestartHearsOfRelaysCutMeanwhile) {
  ASSERT_NO_FATAL_FAILURE(startFrontDoor());
  ASSERT_NO_FATAL_FAILURE(startInterceptor());
  auto holder = spawn({.mode = "hold"});
  ASSERT_TRUE(eventually([&] { return holder->output().find("all back") != std::string::npos; }))
      << holder->output();

  daemon_->signal(SIGKILL);
  ASSERT_TRUE(daemon_->wait(5s));
  // Another relay's events meet the closed socket, so the interceptor knows the daemon is gone.
  ASSERT_EQ(runClient({}).status, 0);
  std::this_thread::sleep_for(300ms);
  echo_->sever();
  const auto held = finish(*holder);
  ASSERT_EQ(held.status, 0) << held.output;

  ASSERT_NO_FATAL_FAILURE(startDaemon());
  ASSERT_TRUE(awaitEvents("proxy.env.dead", 1, 8s));
  const auto first = events("").at(0);
  EXPECT_EQ(first["kind"], "proxy.env.dead");
  EXPECT_EQ(first["count"], 1);
}

}  // namespace
}  // namespace tarnwick::e2e
