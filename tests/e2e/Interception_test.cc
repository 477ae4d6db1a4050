// Which programs are relayed through the front door and which are handed back, and that the bytes
// arrive unchanged either way.

#include <unistd.h>

#include <chrono>
#include <regex>
#include <thread>

#include "EndToEndTest.h"

namespace tarnwick::e2e {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;

class InterceptionTest : public EndToEndTest {
 protected:
  void startWatching(const Json& options) {
    startFrontDoor();
    startInterceptor(options);
  }
  Json watchingClient() { return {{"watchedSigningIDs", {watchedClient()}}}; }
};

TEST_F(InterceptionTest, WatchedProgramIsRelayedWithItsIdentity) {
  ASSERT_NO_FATAL_FAILURE(startWatching(watchingClient()));
  TW_REQUIRE_RELAYING();
  const auto run = runClient({.bytes = 100'000});
  ASSERT_EQ(run.status, 0) << run.output;

  const auto lines = frontDoorLines(1);
  ASSERT_EQ(lines.size(), 1u);
  const auto& line = lines[0];
  EXPECT_EQ(line.at("pid"), std::to_string(run.pid));
  EXPECT_EQ(line.at("signing"), watchedClient());
  EXPECT_TRUE(std::regex_match(line.at("trace"), std::regex("[0-9a-f]{16}"))) << line.at("trace");
  EXPECT_EQ(line.at("dest"),
            std::string(NetworkLab::kWorldIPv4) + ":" + std::to_string(echo_->port()));
  EXPECT_EQ(line.at("up"), "100000");
  EXPECT_EQ(line.at("down"), "100000");

  const auto open = sink_->waitFor("relay.open");
  ASSERT_TRUE(open);
  EXPECT_EQ((*open)["pid"], run.pid);
  EXPECT_EQ((*open)["signing_id"], watchedClient());
  EXPECT_EQ((*open)["trace"], line.at("trace"));
  EXPECT_EQ((*open)["dest_host"], NetworkLab::kWorldIPv4);
  EXPECT_EQ((*open)["dest_port"], echo_->port());
  EXPECT_TRUE(sink_->waitFor("relay.close"));
  EXPECT_TRUE(sink_->eventsOfKind("relay.failopen").empty());
}

struct Transfer {
  const char* name;
  bool watched;
  const char* mode;
  std::size_t bytes;
};

void PrintTo(const Transfer& transfer, std::ostream* out) { *out << transfer.name; }

class TransferTest : public InterceptionTest, public ::testing::WithParamInterface<Transfer> {};

// Unwatched programs may end their write side and still get the whole reply; a relayed flow ends
// with the agent's end of stream, so watched programs read their echo before closing.
TEST_P(TransferTest, BytesArriveUnchanged) {
  const auto& transfer = GetParam();
  ASSERT_NO_FATAL_FAILURE(startWatching(watchingClient()));
  if (transfer.watched) {
    TW_REQUIRE_RELAYING();
  }
  const bool halfClose = std::string(transfer.mode) == "half-close";
  const auto run = runClient({.mode = transfer.mode,
                              .port = halfClose ? late_->port() : echo_->port(),
                              .bytes = transfer.bytes,
                              .watchedCopy = transfer.watched});
  ASSERT_EQ(run.status, 0) << run.output;
  EXPECT_NE(run.output.find("ok " + std::to_string(transfer.bytes)), std::string::npos);
  EXPECT_EQ(frontDoorLines(transfer.watched ? 1 : 0).size(), transfer.watched ? 1u : 0u);
  if (!transfer.watched) {
    std::this_thread::sleep_for(200ms);
    EXPECT_TRUE(sink_->eventsOfKind("relay.open").empty());
  }
}

INSTANTIATE_TEST_SUITE_P(
    HandBackAndRelay, TransferTest,
    ::testing::Values(Transfer{"UnwatchedEmpty", false, "half-close", 0},
                      Transfer{"UnwatchedHalfCloseOneByte", false, "half-close", 1},
                      Transfer{"UnwatchedHalfClose3MiB", false, "half-close", 3u << 20},
                      Transfer{"UnwatchedEcho3MiB", false, "echo", 3u << 20},
                      Transfer{"WatchedEchoOneByte", true, "echo", 1},
                      Transfer{"WatchedEcho3MiB", true, "echo", 3u << 20}),
    [](const auto& param) { return param.param.name; });

class DescendantTest : public InterceptionTest, public ::testing::WithParamInterface<int> {};

// The connecting process is an unwatched program whose parent (or grandparent) is watched.
TEST_P(DescendantTest, IsRelayedUnderItsOwnIdentity) {
  ASSERT_NO_FATAL_FAILURE(startWatching(watchingClient()));
  TW_REQUIRE_RELAYING();
  const auto run = runClient({.descend = GetParam()});
  ASSERT_EQ(run.status, 0) << run.output;
  const auto lines = frontDoorLines(1);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].at("pid"), std::to_string(run.pid));
  EXPECT_EQ(lines[0].at("signing"), unwatchedClient());
}

INSTANTIATE_TEST_SUITE_P(ChildAndGrandchild, DescendantTest, ::testing::Values(1, 2),
                         [](const auto& param) {
                           return param.param == 1 ? "Child" : "Grandchild";
                         });

TEST_F(InterceptionTest, LiveWatchChangeMovesWhoIsRelayed) {
  ASSERT_NO_FATAL_FAILURE(startWatching(watchingClient()));
  TW_REQUIRE_RELAYING();
  ASSERT_EQ(runClient({.watchedCopy = true}).status, 0);
  ASSERT_EQ(frontDoorLines(1).size(), 1u);

  const auto reply = watch({"--signing-id", unwatchedClient()});
  ASSERT_EQ(reply.status, 0) << reply.output;
  EXPECT_NE(reply.output.find(R"({"ok":true})"), std::string::npos) << reply.output;

  ASSERT_EQ(runClient({.watchedCopy = true}).status, 0);
  const auto twin = runClient({.watchedCopy = false});
  ASSERT_EQ(twin.status, 0) << twin.output;
  const auto lines = frontDoorLines(2);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[1].at("pid"), std::to_string(twin.pid));
}

// A PID watch holds for the process that had the PID when its first flow was seen. A later
// process given the same PID (made here with clone3's set_tid) is handed back.
TEST_F(InterceptionTest, PidWatchFollowsTheProcessNotTheNumber) {
  ASSERT_NO_FATAL_FAILURE(startWatching(Json::object()));
  TW_REQUIRE_RELAYING();
  auto first = spawnClient({.watchedCopy = false}, /*waitStdin=*/true);
  ASSERT_TRUE(first);
  const pid_t pid = first->pid();
  const auto reply = watch({"--pid", std::to_string(pid)});
  ASSERT_EQ(reply.status, 0) << reply.output;
  ASSERT_TRUE(first->writeStdin("go\n"));
  const auto run = finishClient(*first);
  ASSERT_EQ(run.status, 0) << run.output;
  ASSERT_EQ(frontDoorLines(1).size(), 1u);
  EXPECT_EQ(frontDoorLines(1)[0].at("pid"), std::to_string(pid));

  // The PID version comes from the start time, counted in clock ticks.
  std::this_thread::sleep_for(50ms);
  std::string error;
  auto second = ChildProcess::spawn(
      {{unwatchedClient(), "echo", NetworkLab::kWorldIPv4, std::to_string(echo_->port()), "4096"},
       lab_->agent(),
       file("reused.log"),
       false,
       pid},
      error);
  ASSERT_TRUE(second) << error;
  const auto reused = finishClient(*second);
  ASSERT_EQ(reused.status, 0) << reused.output;
  EXPECT_EQ(reused.pid, pid);
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(frontDoorLines().size(), 1u);
}

class IPv6Test : public InterceptionTest, public ::testing::WithParamInterface<bool> {};

TEST_P(IPv6Test, DestinationIsCarried) {
  const bool watched = GetParam();
  ASSERT_NO_FATAL_FAILURE(startWatching(watchingClient()));
  if (watched) {
    TW_REQUIRE_RELAYING();
  }
  const auto run =
      runClient({.host = NetworkLab::kWorldIPv6, .bytes = 200'000, .watchedCopy = watched});
  ASSERT_EQ(run.status, 0) << run.output;
  const auto lines = frontDoorLines(watched ? 1 : 0);
  ASSERT_EQ(lines.size(), watched ? 1u : 0u);
  if (watched) {
    EXPECT_EQ(lines[0].at("dest"),
              "[" + std::string(NetworkLab::kWorldIPv6) + "]:" + std::to_string(echo_->port()));
    const auto open = sink_->waitFor("relay.open");
    ASSERT_TRUE(open);
    EXPECT_EQ((*open)["dest_host"], NetworkLab::kWorldIPv6);
  }
}

INSTANTIATE_TEST_SUITE_P(RelayedAndHandedBack, IPv6Test, ::testing::Bool(),
                         [](const auto& param) { return param.param ? "Relayed" : "HandedBack"; });

}  // namespace
}  // namespace tarnwick::e2e
