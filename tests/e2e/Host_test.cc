// The interceptor as a citizen of its host: a third-party front door, what it tells an operator,
// how it stops with connections open, and what it leaves behind when it is killed.

#include <filesystem>
#include <fstream>
#include <iostream>

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

// Killed outright, the interceptor removes nothing itself: its rules (or its BPF programs) must
// go with the process, and traffic flows directly again; a program left attached would still
// send the watched client to the dead listener.
TEST_F(EndToEndTest, KilledInterceptorLeavesNoRules) {
  ASSERT_NO_FATAL_FAILURE(startInterceptor());
  interceptor_->signal(SIGKILL);
  ASSERT_EQ(interceptor_->wait(5s), 128 + SIGKILL);
  EXPECT_TRUE(eventually([&] { return !tableExists(); }, 2s));
  const auto run = runClient({});
  EXPECT_EQ(run.status, 0) << run.output;
}

// The status command shows the watch set, the circuit and what was carried since the start.
TEST_F(EndToEndTest, StatusShowsWhatTheInterceptorDid) {
  ASSERT_NO_FATAL_FAILURE(startFrontDoor());
  ASSERT_NO_FATAL_FAILURE(startInterceptor());
  ASSERT_EQ(runClient({.bytes = 5000}).status, 0);
  // Redirecting all, two are handed back: this one, and the front door's own dial (it sets no
  // mark here). Selecting in the kernel, neither reaches the interceptor.
  ASSERT_EQ(runClient({.bytes = 700, .watched = false}).status, 0);
  ASSERT_TRUE(awaitEvents("relay.close", 1));
  Json now;
  ASSERT_TRUE(eventually([&] {
    now = status();
    return now.is_object() && now.value("relays", -1) == 0;
  })) << now.dump();
  std::cout << "status: " << now.dump() << "\n";
  const bool kernel = kernelSelection();
  const Json lost = kernel ? Json(0) : Json(nullptr);
  const Json expected = {{"selection", selectionMode()},
                         {"watchedSigningIDs", 2},
                         {"watchedPIDs", 0},
                         {"circuit", "closed"},
                         {"relayed", 1},
                         {"handedBack", kernel ? 0 : 2},
                         {"failedOpen", Json::object()},
                         {"udpFlowsReported", 0},
                         {"unplaced", 0},
                         {"bytesFromAgents", 5000},
                         {"bytesToAgents", 5000},
                         {"kernelEventsDropped", lost},
                         {"kernelRecordsFailed", lost},
                         {"kernelCandidatesLost", lost}};
  for (const auto& [key, value] : expected.items()) EXPECT_EQ(now[key], value) << key;
  // How many processes the kernel keeps as descendants of watched programs, at that moment.
  EXPECT_EQ(now["candidates"].is_number_unsigned(), kernel) << now.dump();
}

// Stopped while watched programs hold connections open, the interceptor ends them, so each
// program sees its connection reset instead of waiting on it, tells the daemon, and exits 0
// promptly.
TEST_F(EndToEndTest, StopWithLiveRelaysEndsThemAndExitsPromptly) {
  ASSERT_NO_FATAL_FAILURE(startFrontDoor());
  ASSERT_NO_FATAL_FAILURE(startInterceptor());
  std::vector<std::unique_ptr<Process>> clients;
  for (int i = 0; i < 3; ++i) clients.push_back(spawn({.mode = "hold", .bytes = 1000}));
  for (auto& client : clients) {
    ASSERT_TRUE(eventually([&] { return client->output().find("all back") != std::string::npos; }))
        << client->output();
  }
  const auto stopping = std::chrono::steady_clock::now();
  interceptor_->signal(SIGTERM);
  EXPECT_EQ(interceptor_->wait(5s), 0) << interceptor_->output();
  EXPECT_LT(std::chrono::steady_clock::now() - stopping, 5s);
  for (auto& client : clients) {
    EXPECT_EQ(client->wait(5s), 1) << client->output();
    EXPECT_NE(client->output().find("recv: Connection reset"), std::string::npos)
        << client->output();
  }
  EXPECT_TRUE(eventually([&] { return !tableExists(); }, 2s));
  // The daemon hears of every relay the stop ended, though the process ended right after.
  EXPECT_TRUE(awaitEvents("relay.close", clients.size(), 2s));
}

}  // namespace
}  // namespace tarnwick::e2e
