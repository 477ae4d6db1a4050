// Which connections reach the interceptor, whatever a watched program does with its socket after
// connect(), and which never do: what kernel-side selection promises, and what the redirect of
// everything still manages in its place.

#include <fstream>

#include "EndToEnd.h"

namespace tarnwick::e2e {
namespace {

// A UDP server on the world host that counts the datagrams it gets.
class WorldDatagrams {
 public:
  WorldDatagrams(const std::string& netns, std::uint16_t port) {
    std::thread([&] {
      const int space = open(("/run/netns/" + netns).c_str(), O_RDONLY | O_CLOEXEC);
      if (setns(space, CLONE_NEWNET) == 0) fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
      sockaddr_in address{};
      address.sin_family = AF_INET;
      address.sin_port = htons(port);
      bound_ = bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
      close(space);
    }).join();
    // A UDP socket's receive cannot be cut short; it gives up now and then to look at stop_.
    const timeval patience{0, 50'000};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    receiver_ = std::thread([this] {
      char datagram[2048];
      while (!stop_) {
        if (recv(fd_, datagram, sizeof datagram, 0) >= 0) ++count_;
      }
    });
  }
  ~WorldDatagrams() {
    stop_ = true;
    receiver_.join();
    close(fd_);
  }
  bool bound() const { return bound_; }
  int count() const { return count_; }

 private:
  int fd_ = -1;
  bool bound_ = false;
  std::atomic<int> count_{0};
  std::atomic<bool> stop_{false};
  std::thread receiver_;
};

class SelectionTest : public EndToEndTest {
 protected:
  // The front door's lines for connections of `pid`.
  std::size_t relayedFor(pid_t pid) const {
    std::size_t count = 0;
    for (const auto& line : frontDoorLines()) count += line.at("pid") == std::to_string(pid);
    return count;
  }
  // Waits until the front door has logged `lines` connections, then says whether it holds.
  bool relayedInAll(std::size_t lines) const {
    return eventually([&] { return frontDoorLines().size() >= lines; }, 5s) &&
           frontDoorLines().size() == lines;
  }
  void watch(const std::string& args) {
    EXPECT_NE(control("watch " + args).find(R"({"ok":true})"), std::string::npos);
  }
};

struct Escape {
  const char* name;
  const char* mode;
  int runs;
  // Redirecting all, the host learns a connection's process only after accepting it; it can
  // then say so for the connections whose process is gone, not for those handed to another.
  bool fallbackAccounts;
};

void PrintTo(const Escape& escape, std::ostream* out) { *out << escape.name; }

class EscapeTest : public SelectionTest, public ::testing::WithParamInterface<Escape> {};

// Whatever the program does right after connect(), the connection is relayed under the PID that
// connected. Redirecting all, each connection it cannot place is at least logged and counted.
TEST_P(EscapeTest, EveryConnectionIsRelayedOrAccountedFor) {
  const Escape& escape = GetParam();
  ASSERT_NO_FATAL_FAILURE(startFrontDoor());
  ASSERT_NO_FATAL_FAILURE(startInterceptor());
  std::set<pid_t> pids;
  for (int i = 0; i < escape.runs; ++i) {
    auto client = spawn({.mode = escape.mode, .bytes = 1000});
    const auto run = finish(*client);
    ASSERT_EQ(run.status, 0) << run.output;
    pids.insert(run.pid);
    // A program that handed its socket on has ended; what it handed it to goes on.
    if (std::string(escape.mode) != "send-close" && std::string(escape.mode) != "send-exit") {
      ASSERT_TRUE(eventually([&] { return client->output().find("ok 1000") != std::string::npos; }))
          << client->output();
    }
  }
  std::size_t relayed = 0;
  eventually(
      [&] {
        relayed = 0;
        for (pid_t pid : pids) relayed += relayedFor(pid);
        return relayed == pids.size();
      },
      kernelSelection() ? 5s : 1s);
  if (kernelSelection()) {
    EXPECT_EQ(relayed, pids.size());
    EXPECT_EQ(frontDoorLines().size(), relayed);
  } else if (escape.fallbackAccounts) {
    EXPECT_TRUE(eventually([&] { return relayed + status().value("unplaced", 0) == pids.size(); }))
        << status().dump();
  }
}

const Escape kEscapes[] = {
    {"ConnectSendClose", "send-close", 50, true},      {"ConnectSendExit", "send-exit", 50, true},
    {"ExecOfAnUnwatchedProgram", "exec", 5, false},    {"SocketHandedToAChild", "child", 5, false},
    {"SocketPassedOverAUnixSocket", "unix", 5, false},
};

INSTANTIATE_TEST_SUITE_P(Ways, EscapeTest, ::testing::ValuesIn(kEscapes),
                         [](const auto& param) { return param.param.name; });

// One source port, one destination after another, while the earlier connections still linger:
// each is relayed, and none goes unaccounted for. (Selecting in the kernel, every connection
// goes to the one listener address, so connect() refuses a tuple whose last connection is in
// TIME_WAIT until the kernel may reuse it, about a second later; the client retries meanwhile.)
TEST_F(SelectionTest, ASourcePortReusedTowardsSeveralDestinationsIsRelayedEachTime) {
  ASSERT_NO_FATAL_FAILURE(startFrontDoor());
  ASSERT_NO_FATAL_FAILURE(startInterceptor());
  std::vector<std::unique_ptr<WorldServer>> servers;
  std::string ports;
  for (int i = 0; i < 4; ++i) {
    servers.push_back(std::make_unique<WorldServer>(lab_.world, false));
    ports += (ports.empty() ? "" : ",") + std::to_string(servers.back()->port());
  }
  const auto run = runClient({.mode = "reuse", .bytes = 2000, .ports = ports});
  ASSERT_EQ(run.status, 0) << run.output;
  EXPECT_TRUE(relayedInAll(4));
  EXPECT_EQ(relayedFor(run.pid), 4u);
  EXPECT_EQ(status().value("unplaced", -1), 0);
}

// A program bound to a device is relayed all the same. One that is not watched keeps its device,
// its mark, its TOS and its source address: the packets leave as it made them, which only
// selecting in the kernel allows (the redirect of everything dials it again from the host).
TEST_F(SelectionTest, ProgramsBoundToADeviceAreRelayedOrLeftAsTheyAre) {
  if (!kernelSelection()) GTEST_SKIP() << "redirecting all, the host dials unwatched programs";
  ASSERT_NO_FATAL_FAILURE(startFrontDoor());
  ASSERT_NO_FATAL_FAILURE(startInterceptor());
  const auto watched = runClient({.mode = "device", .bytes = 3000});
  ASSERT_EQ(watched.status, 0) << watched.output;
  EXPECT_TRUE(relayedInAll(1));
  EXPECT_EQ(relayedFor(watched.pid), 1u);

  const std::string rule =
      "oifname tw0 meta mark 0x100 ip dscp cs4 ip saddr 198.18.0.1 tcp dport " +
      std::to_string(echo_->port()) + " counter";
  std::string output;
  ASSERT_EQ(inAgent("nft 'add table ip tw_e2e_seen; add chain ip tw_e2e_seen out { type filter "
                    "hook output priority 0; }; add rule ip tw_e2e_seen out " +
                        rule + "'",
                    &output),
            0)
      << output;
  const auto unwatched = runClient({.mode = "device", .bytes = 3000, .watched = false});
  ASSERT_EQ(unwatched.status, 0) << unwatched.output;
  inAgent("nft list table ip tw_e2e_seen", &output);
  EXPECT_EQ(output.find("packets 0 "), std::string::npos) << output;
  EXPECT_NE(output.find("packets "), std::string::npos) << output;
  EXPECT_EQ(status().value("handedBack", -1), 0);
}

// Who is selected: a watched program started before the interceptor; the child of a watched
// program running an unwatched one; not the child of a process watched by its PID alone, nor a
// program beside a watched one.
TEST_F(SelectionTest, DescendantsOfWatchedProgramsAreRelayedOthersAreNot) {
  auto early = spawn({.mode = "await"});
  ASSERT_TRUE(eventually([&] { return early->output().find("waiting") != std::string::npos; }));
  ASSERT_NO_FATAL_FAILURE(startFrontDoor());
  ASSERT_NO_FATAL_FAILURE(startInterceptor());
  early->signal(SIGUSR1);
  const auto before = finish(*early);
  ASSERT_EQ(before.status, 0) << before.output;
  const auto child = runClient({.descend = 1});
  ASSERT_EQ(child.status, 0) << child.output;

  Process gone(lab_.agent, {"true"}, file("true.log"));
  ASSERT_EQ(gone.wait(5s), 0);
  watch("--signing-id " + watchedClient() + " --pid " + std::to_string(gone.pid()));
  const auto ofWatchedPid = finish(*spawn({.watched = false, .descend = 1}, gone.pid()));
  ASSERT_EQ(ofWatchedPid.status, 0) << ofWatchedPid.output;
  const auto sibling = runClient({.watched = false});
  ASSERT_EQ(sibling.status, 0) << sibling.output;

  EXPECT_TRUE(relayedInAll(2));
  EXPECT_EQ(relayedFor(before.pid), 1u);
  EXPECT_EQ(relayedFor(child.pid), 1u);
  // Selecting in the kernel, what is not selected never reaches the interceptor.
  if (kernelSelection()) {
    EXPECT_EQ(status().value("handedBack", -1), 0);
  }
}

// A watched executable replaced on disk (a new file renamed over it, as a package upgrade does)
// is still watched; once unwatched, its connections are no longer relayed.
TEST_F(SelectionTest, AReplacedExecutableStaysWatchedUntilUnwatched) {
  ASSERT_NO_FATAL_FAILURE(startFrontDoor());
  ASSERT_NO_FATAL_FAILURE(startInterceptor());
  const std::string agent = file("agent");
  std::filesystem::copy_file(watchedClient(), agent);
  watch("--signing-id " + agent);
  const auto runAgent = [&] {
    return finish(*std::make_unique<Process>(
        lab_.agent,
        std::vector<std::string>{agent, "echo", kWorldIPv4, std::to_string(echo_->port()), "500",
                                 "0", twin_},
        file("agent-" + std::to_string(spawned_++) + ".log")));
  };
  const auto first = runAgent();
  ASSERT_EQ(first.status, 0) << first.output;
  std::filesystem::copy_file(watchedClient(), agent + ".new");
  std::filesystem::rename(agent + ".new", agent);
  // The interceptor hears of the rename from inotify, on its own loop.
  std::this_thread::sleep_for(200ms);
  const auto replaced = runAgent();
  ASSERT_EQ(replaced.status, 0) << replaced.output;
  EXPECT_TRUE(relayedInAll(2));
  EXPECT_EQ(relayedFor(replaced.pid), 1u);
  EXPECT_EQ(frontDoorLines().back().at("signing"), agent);

  watch("");
  const auto unwatched = runAgent();
  ASSERT_EQ(unwatched.status, 0) << unwatched.output;
  EXPECT_TRUE(relayedInAll(2));
  if (kernelSelection()) {
    EXPECT_EQ(status().value("handedBack", -1), 0);
  }
}

// A watched program's UDP sockets are reported once each (one quic.deny), and every datagram
// arrives; an unwatched program's are not reported. The kernel reports them: redirecting all,
// the interceptor sees no UDP.
TEST_F(SelectionTest, EachUdpSocketOfAWatchedProgramIsReportedOnceAndDelivered) {
  if (!kernelSelection()) GTEST_SKIP() << "redirecting all, no UDP reaches the interceptor";
  WorldDatagrams quic(lab_.world, 443), other(lab_.world, 5353);
  ASSERT_TRUE(quic.bound() && other.bound());
  ASSERT_NO_FATAL_FAILURE(startInterceptor());
  const auto watched = runClient({.mode = "udp", .bytes = 20, .ports = "443,5353"});
  ASSERT_EQ(watched.status, 0) << watched.output;
  const auto unwatched =
      runClient({.mode = "udp", .bytes = 20, .watched = false, .ports = "443,5353"});
  ASSERT_EQ(unwatched.status, 0) << unwatched.output;
  EXPECT_TRUE(eventually([&] { return quic.count() == 40 && other.count() == 40; }))
      << quic.count() << " " << other.count();
  ASSERT_TRUE(awaitEvents("quic.deny", 2));
  std::this_thread::sleep_for(100ms);
  const auto reports = events("quic.deny");
  ASSERT_EQ(reports.size(), 2u);
  for (const Json& report : reports) {
    EXPECT_EQ(report["pid"], watched.pid);
    EXPECT_EQ(report["signing_id"], watchedClient());
  }
  EXPECT_EQ(status().value("udpFlowsReported", -1), 2);
}

// With --block-quic a watched program's UDP to port 443 is refused, and nothing else is.
TEST_F(SelectionTest, BlockingQuicRefusesOnlyWatchedProgramsUdpToPort443) {
  if (!kernelSelection()) GTEST_SKIP() << "refusing QUIC needs kernel-side selection";
  WorldDatagrams quic(lab_.world, 443), other(lab_.world, 5353);
  ASSERT_TRUE(quic.bound() && other.bound());
  ASSERT_NO_FATAL_FAILURE(startInterceptor({"--block-quic"}));
  const auto refused = runClient({.mode = "udp", .bytes = 5, .ports = "443"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.output.find("send to port 443: Operation not permitted"), std::string::npos)
      << refused.output;
  const auto allowed = runClient({.mode = "udp", .bytes = 5, .ports = "5353"});
  EXPECT_EQ(allowed.status, 0) << allowed.output;
  const auto unwatched = runClient({.mode = "udp", .bytes = 5, .watched = false, .ports = "443"});
  EXPECT_EQ(unwatched.status, 0) << unwatched.output;
  EXPECT_TRUE(eventually([&] { return quic.count() == 5 && other.count() == 5; }))
      << quic.count() << " " << other.count();
}

}  // namespace
}  // namespace tarnwick::e2e
