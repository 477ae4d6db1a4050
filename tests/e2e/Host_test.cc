// The interceptor as a citizen of its host: a third-party front door, its own connections, and
// what it leaves behind when it ends.

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

#include "EndToEndTest.h"

namespace tarnwick::e2e {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;

TEST_F(EndToEndTest, TinyproxyServesAsFrontDoor) {
  if (!std::filesystem::exists("/usr/bin/tinyproxy")) GTEST_SKIP() << "tinyproxy is not installed";
  std::ofstream(file("tinyproxy.conf"))
      << "Port " << kFrontDoorPort << "\nListen 127.0.0.1\nTimeout 30\nAllow 127.0.0.1\n"
      << "ConnectPort " << echo_->port() << "\nMaxClients 50\nLogLevel Info\n"
      << "LogFile \"" << file("tinyproxy.log") << "\"\n";
  std::string error;
  auto tinyproxy = ChildProcess::spawn({{"/usr/bin/tinyproxy", "-d", "-c", file("tinyproxy.conf")},
                                        lab_->agent(),
                                        file("tinyproxy.out")},
                                       error);
  ASSERT_TRUE(tinyproxy) << error;
  ASSERT_TRUE(eventually([&] {
    return runCommand(
               {"bash", "-c", "exec 3<>/dev/tcp/127.0.0.1/" + std::to_string(kFrontDoorPort)},
               lab_->agent())
               .status == 0;
  }));
  ASSERT_NO_FATAL_FAILURE(startInterceptor({{"watchedSigningIDs", {watchedClient()}}}));
  TW_REQUIRE_RELAYING();

  const auto run = runClient({.bytes = 300'000});
  ASSERT_EQ(run.status, 0) << run.output << tinyproxy->output();
  ASSERT_TRUE(sink_->waitFor("relay.close"));
  EXPECT_EQ(sink_->eventsOfKind("relay.open").size(), 1u);
  EXPECT_TRUE(sink_->eventsOfKind("relay.failopen").empty());
}

// The interceptor watches its own executable here: a connection of its own that came back to it
// would show up as one more relay with its PID.
TEST_F(EndToEndTest, OwnConnectionsNeverComeBack) {
  ASSERT_NO_FATAL_FAILURE(startFrontDoor());
  ASSERT_NO_FATAL_FAILURE(startInterceptor(
      {{"watchedSigningIDs", {watchedClient(), std::filesystem::canonical(proxyext()).string()}}}));
  TW_REQUIRE_RELAYING();
  ASSERT_EQ(runClient({}).status, 0);  // relayed; the front door's own dial is handed back
  ASSERT_NO_FATAL_FAILURE(stopFrontDoor());
  ASSERT_EQ(runClient({}).status, 0);                      // dialled directly
  ASSERT_EQ(runClient({.watchedCopy = false}).status, 0);  // handed back
  ASSERT_TRUE(sink_->waitForCount("relay.close", 2));
  std::this_thread::sleep_for(300ms);

  EXPECT_EQ(echo_->connectionsAccepted(), 3);
  const auto opens = sink_->eventsOfKind("relay.open");
  EXPECT_EQ(opens.size(), 2u);
  for (const auto& open : opens) EXPECT_NE(open["pid"], interceptor_->pid());
}

// Clients and servers that vanish mid-transfer leave the carrier writing into reset sockets; the
// interceptor must shrug that off and keep carrying the next connection.
TEST_F(EndToEndTest, SurvivesPeersThatResetMidTransfer) {
  ASSERT_NO_FATAL_FAILURE(startInterceptor({{"watchedSigningIDs", {watchedClient()}}}));
  for (int i = 0; i < 5; ++i) {
    const auto aborted =
        runClient({.mode = "abort", .port = flood_->port(), .bytes = 1, .watchedCopy = false});
    ASSERT_EQ(aborted.status, 0) << aborted.output;
    // The server goes away while this client is still sending; the client's own error is expected.
    runClient({.port = reset_->port(), .bytes = 8u << 20, .watchedCopy = false});
  }
  std::this_thread::sleep_for(300ms);
  EXPECT_FALSE(interceptor_->waitFor(0ms)) << "the interceptor exited";
  const auto run = runClient({.bytes = 100'000, .watchedCopy = false});
  EXPECT_EQ(run.status, 0) << run.output;
}

class EndingTest : public EndToEndTest, public ::testing::WithParamInterface<int> {};

// The rules go with the process however it ends, and traffic flows directly again.
TEST_P(EndingTest, LeavesNoRulesBehind) {
  ASSERT_NO_FATAL_FAILURE(startInterceptor({{"watchedSigningIDs", {watchedClient()}}}));
  interceptor_->signal(GetParam());
  const auto status = interceptor_->waitFor(5s);
  ASSERT_TRUE(status);
  if (GetParam() == SIGTERM) {
    EXPECT_EQ(*status, 0);
  }
  EXPECT_TRUE(eventually([&] { return !tableExists(); }, 2s));
  const auto run = runClient({});
  EXPECT_EQ(run.status, 0) << run.output;
}

INSTANTIATE_TEST_SUITE_P(Signals, EndingTest, ::testing::Values(SIGKILL, SIGTERM),
                         [](const auto& param) {
                           return param.param == SIGKILL ? "Killed" : "Terminated";
                         });

}  // namespace
}  // namespace tarnwick::e2e
