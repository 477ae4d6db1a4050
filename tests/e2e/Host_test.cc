// The interceptor as a citizen of its host: a third-party front door, and what it leaves behind
// when it is killed.

#include <filesystem>
#include <fstream>

#include "EndToEnd.h"

namespace tarnwick::e2e {
namespace {

TEST_F(EndToEndTest, TinyproxyServesAsFrontDoor) {
  if (!std::filesystem::exists("/usr/bin/tinyproxy")) GTEST_SKIP() << "tinyproxy is not installed";
  std::ofstream(file("tinyproxy.conf"))
      << "Port " << kFrontDoorPort << "\nListen 127.0.0.1\nTimeout 30\nAllow 127.0.0.1\n"
      << "ConnectPort " << echo_->port() << "\nMaxClients 50\nLogLevel Info\n"
      << "LogFile \"" << file("tinyproxy.log") << "\"\n";
  Process tinyproxy(lab_.agent, {"/usr/bin/tinyproxy", "-d", "-c", file("tinyproxy.conf")},
                    file("tinyproxy.out"));
  ASSERT_TRUE(eventually([&] {
    return inAgent("bash -c 'exec 3<>/dev/tcp/127.0.0.1/" + std::to_string(kFrontDoorPort) + "'") ==
           0;
  })) << tinyproxy.output();
  ASSERT_NO_FATAL_FAILURE(startInterceptor());

  const auto run = runClient({.bytes = 300'000});
  ASSERT_EQ(run.status, 0) << run.output << tinyproxy.output();
  ASSERT_TRUE(awaitEvents("relay.close", 1));
  EXPECT_EQ(events("relay.open").size(), 1u);
  EXPECT_TRUE(events("relay.failopen").empty());
}

// Killed outright, the interceptor removes nothing itself: its rules must go with the process,
// and traffic flows directly again.
TEST_F(EndToEndTest, KilledInterceptorLeavesNoRules) {
  ASSERT_NO_FATAL_FAILURE(startInterceptor());
  interceptor_->signal(SIGKILL);
  ASSERT_EQ(interceptor_->wait(5s), 128 + SIGKILL);
  EXPECT_TRUE(eventually([&] { return !tableExists(); }, 2s));
  const auto run = runClient({});
  EXPECT_EQ(run.status, 0) << run.output;
}

}  // namespace
}  // namespace tarnwick::e2e
