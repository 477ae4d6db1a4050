// The run and watch commands as a user runs them. What cannot start exits with status 2 (a
// watch without a good reply with 1) and says why in one line. As root, `run` intercepts for
// real inside a network namespace of its own (test addresses in 198.18.0.0/15 and fd00:7477::/64
// only), and what it installed goes with it however it ends.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <thread>

#include "HostTesting.h"
#include "host/owner/FlowIdentifier.h"
#include "host/redirect/OriginalDestination.h"
#include "identity/AuditToken.h"
#include "platform/posix/Sockets.h"
#include "platform/testing/CaseName.h"

namespace tarnwick::host {
namespace {

using Json = nlohmann::json;

std::string shell(const std::string& command) {
  std::string output;
  FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
  for (int c; pipe && (c = std::fgetc(pipe)) != EOF;) output += static_cast<char>(c);
  if (pipe) ::pclose(pipe);
  return output;
}

// `tarnwick-proxyext ARGS` in the background (inside network namespace `ns` if one is named),
// its standard error kept in a file.
class Command {
 public:
  // `wrapper` runs the command (as `unshare ...` would).
  explicit Command(const std::string& args, const std::string& ns = "",
                   const std::string& wrapper = "")
      : errors_(::testing::TempDir() + "cmd-" + std::to_string(::getpid()) + "-" +
                std::to_string(reinterpret_cast<std::uintptr_t>(this)) + ".err") {
    const std::string line = (ns.empty() ? "exec " : "exec ip netns exec " + ns + " ") + wrapper +
                             " " + TARNWICK_PROXYEXT_BINARY + " " + args + " >/dev/null 2>" +
                             errors_;
    if ((pid_ = ::fork()) == 0) {
      ::execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
      ::_exit(127);
    }
  }
  ~Command() {
    exitStatus(SIGKILL);
    ::unlink(errors_.c_str());
  }
  // The exit status, after `signal` if it still runs (0: just waits); -1 if it did not exit.
  int exitStatus(int signal = 0) {
    if (pid_ > 0 && signal != 0) ::kill(pid_, signal);
    if (pid_ > 0) ::waitpid(pid_, &status_, 0);
    pid_ = 0;
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
  }
  std::string errors() const { return shell("cat " + errors_); }
  // The signals it ignores, from /proc (the shell and `ip netns exec` exec it in place).
  std::uint64_t ignoredSignals() const {
    const std::string status = shell("grep ^SigIgn: /proc/" + std::to_string(pid_) + "/status");
    return status.size() > 8 ? std::stoull(status.substr(8), nullptr, 16) : 0;
  }

 private:
  const std::string errors_;
  pid_t pid_ = 0;
  int status_ = 0;
};

struct Case {
  const char* name;
  std::string args;
  int status;
  const char* optionsFile = nullptr;  // when given, written to a file named as the options
};

void PrintTo(const Case& c, std::ostream* os) { *os << c.args; }

class CommandsTest : public ::testing::TestWithParam<Case> {};

// A bad options file is named in its error, before anything else is looked at.
TEST_P(CommandsTest, ExitsWithTheStatusAndAtMostOneLine) {
  const std::string path = ::testing::TempDir() + "options-" + std::to_string(::getpid());
  if (GetParam().optionsFile) std::ofstream(path) << GetParam().optionsFile;
  // Should the file be read as good, the run fails at once instead of intercepting this host.
  const std::string file = " --options " + path + " --control-socket /nonexistent/s --table tw_no";
  Command command(GetParam().args + (GetParam().optionsFile ? file : ""));
  const int status = command.exitStatus();
  const std::string errors = command.errors();
  ::unlink(path.c_str());
  EXPECT_EQ(status, GetParam().status) << errors;
  EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), status == 0 ? 0 : 1) << errors;
  EXPECT_TRUE(!GetParam().optionsFile || errors.find(path) != std::string::npos) << errors;
}

INSTANTIATE_TEST_SUITE_P(
    Arguments, CommandsTest,
    ::testing::Values(Case{"RunHelp", "run --help", 0}, Case{"RunWithoutOptions", "run", 2},
                      Case{"RunPortZero", "run --options x --listen-port 0", 2},
                      Case{"RunPortTooLarge", "run --options x --listen-port=65536", 2},
                      Case{"RunPortHex", "run --options x --listen-port 0x1f90", 2},
                      Case{"RunUnknownGroup", "run --options x --control-group tw-no-such", 2},
                      Case{"RunMarkNotANumber", "run --options x --mark 0xzz", 2},
                      Case{"RunTableWithBlank", "run --options x --table 'a b'", 2},
                      Case{"RunPrivateNotANetwork", "run --options x --private-ipv4 10.0.0.1/8", 2},
                      Case{"RunSelectionUnknown", "run --options x --selection bpf", 2},
                      Case{"RunMissingOptions", "run --options /nonexistent/options.json", 2},
                      Case{"RunMalformedOptions", "run", 2, R"({"frontDoorPort":1,})"},
                      Case{"RunOptionsNotAnObject", "run", 2, "[1]"},
                      Case{"RunFrontDoorPortAsText", "run", 2, R"({"frontDoorPort":"8443"})"},
                      Case{"RunFrontDoorPortZero", "run", 2, R"({"frontDoorPort":0})"},
                      Case{"RunMistypedKey", "run", 2, R"({"watchedSigningIds":["/bin/sh"]})"},
                      Case{"RunPidNotPositive", "run", 2, R"({"watchedPIDs":[1,-1]})"},
                      Case{"RunSigningIDNotText", "run", 2, R"({"watchedSigningIDs":[1]})"},
                      Case{"WatchHelp", "watch --help", 0},
                      Case{"WatchPidNotANumber", "watch --pid abc", 2},
                      Case{"WatchUnknownOption", "watch --signing /bin/sh", 2},
                      Case{"WatchWithoutHost", "watch --control-socket /nonexistent/s --pid 1", 1},
                      Case{"StatusHelp", "status --help", 0},
                      Case{"StatusUnknownOption", "status --pid 1", 2},
                      Case{"StatusWithoutHost", "status --control-socket /nonexistent/s", 1}),
    CaseName());

// A network namespace with loopback up and 198.18.0.1/24, fd00:7477::1/64 on a veth pair.
class RootInterceptionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root: network namespaces, nftables, socket marks";
    std::ofstream(base_ + ".json") << "{}";
    const std::string in = " && ip -n " + ns_ + " ";
    shell("ip netns add " + ns_ + in + "link set lo up" + in + "link add tw0 type veth peer tw1" +
          in + "addr add 198.18.0.1/24 dev tw0" + in + "addr add fd00:7477::1/64 dev tw0 nodad" +
          in + "link set tw0 up" + in + "link set tw1 up");
  }
  void TearDown() override { shell("ip netns del " + ns_ + "; rm -f " + base_ + ".[js]*"); }

  std::string tables() const { return shell("ip netns exec " + ns_ + " nft list tables"); }
  // Runs `body` on a thread of its own inside the namespace (setns moves only that thread).
  void inside(const std::function<void()>& body) const {
    std::thread([&] {
      UniqueFd handle(::open(("/run/netns/" + ns_).c_str(), O_RDONLY | O_CLOEXEC));
      ASSERT_TRUE(handle && ::setns(handle.get(), CLONE_NEWNET) == 0);
      body();
    }).join();
  }
  // True once `run` has its table in and, after it, its control socket at `base`.sock.
  bool ready(const std::string& base = "") const {
    return eventually([&] {
      return tables().find("tarnwick_proxyext") != std::string::npos &&
             ::access(((base.empty() ? base_ : base) + ".sock").c_str(), F_OK) == 0;
    });
  }
  // What `tarnwick-proxyext ARGS` prints on its standard output, run in the namespace.
  std::string output(const std::string& args) const {
    return shell("ip netns exec " + ns_ + " " + TARNWICK_PROXYEXT_BINARY + " " + args +
                 " 2>/dev/null");
  }
  // `run` in the namespace, with a control socket at `base`.sock, redirecting all outbound TCP
  // unless `extra` chooses another selection.
  std::unique_ptr<Command> run(const std::string& base, const std::string& extra = "",
                               const std::string& wrapper = "") {
    const std::string selection =
        extra.find("--selection") == std::string::npos ? " --selection all " : " ";
    return std::make_unique<Command>(
        "run --options " + base_ + ".json --control-socket " + base + ".sock" + selection + extra,
        ns_, wrapper);
  }

  const std::string ns_ = "twhost-" + std::to_string(::getpid());
  const std::string base_ = ::testing::TempDir() + ns_;
};

// A connection of a program that is not watched goes through the host (the server sees another
// peer than the client) to the destination it dialled, and is carried exactly: either side may
// end its stream first while the other still sends. A destination that refuses resets the
// client. The client's exact 4-tuple, as redirected, names its process.
void exchangeThroughTheHost(const char* address) {
  SCOPED_TRACE(address);
  std::string error;
  UniqueFd server = bindTcpSocket(loopbackAddress(address, 8080), error);
  ASSERT_TRUE(server && ::listen(server.get(), 4) == 0 && ::fcntl(server.get(), F_SETFL, 0) == 0);
  const auto accept = [&] {
    return TestClient(UniqueFd(::accept4(server.get(), nullptr, nullptr, SOCK_CLOEXEC)));
  };
  TestClient client(loopbackAddress(address, 8080)), accepted = accept();
  SocketAddress peer{.length = sizeof(sockaddr_storage)};
  ::getpeername(accepted.fd(), reinterpret_cast<sockaddr*>(&peer.storage), &peer.length);
  ASSERT_GE(client.fd(), 0);
  EXPECT_FALSE(sameSocketAddress(peer, *localAddress(client.fd())));
  const NEFlowMetaData metaData =
      FlowIdentifier().identify(*localAddress(client.fd()), loopbackAddress(address, 8080));
  EXPECT_EQ(pidFromAuditTokenData(metaData.sourceAppAuditToken), ::getpid());
  const std::string request = patterned(3 << 20), answer = patterned(2 << 20).substr(7);
  EXPECT_TRUE(passed(client, accepted, request) == request);
  EXPECT_TRUE(passed(accepted, client, answer) == answer);
  EXPECT_EQ(client.error(), 0);
  TestClient second(loopbackAddress(address, 8080)), other = accept();
  EXPECT_EQ(passed(other, second, "banner"), "banner");
  EXPECT_EQ(passed(second, other, "more"), "more");
  // Only reads: a send racing the reset would take the error and leave the read a plain end.
  TestClient refused(loopbackAddress(address, 8081));
  EXPECT_EQ(refused.readToEnd(), "");
  EXPECT_EQ(refused.error(), ECONNRESET);
}

TEST_F(RootInterceptionTest, RunCarriesUnwatchedTrafficAndCleansUpOnSigterm) {
  auto command = run(base_);
  ASSERT_TRUE(ready()) << command->errors();
  // A splice into a socket its peer has reset would otherwise kill it.
  EXPECT_TRUE(command->ignoredSignals() & (1u << (SIGPIPE - 1)));
  inside([] {
    exchangeThroughTheHost("198.18.0.1");
    exchangeThroughTheHost("fd00:7477::1");
  });
  Command watch("watch --control-socket " + base_ + ".sock --signing-id /usr/bin/curl --pid 1",
                ns_);
  EXPECT_EQ(watch.exitStatus(), 0) << watch.errors();
  EXPECT_EQ(command->exitStatus(SIGTERM), 0) << command->errors();
  EXPECT_EQ(command->errors().find("no process found"), std::string::npos) << command->errors();
  EXPECT_EQ(tables(), "");
}

// One source port reused towards one destination after another, while the earlier connections
// still sit in connection tracking: NAT gives the later ones other source ports on their way to
// the listener, and the host still finds each one's process (no line saying it could not) and
// carries it.
TEST_F(RootInterceptionTest, ASourcePortReusedTowardsOtherDestinationsIsStillPlaced) {
  auto command = run(base_);
  ASSERT_TRUE(ready()) << command->errors();
  inside([] {
    for (std::uint16_t port = 8080; port < 8084; ++port) {
      std::string error;
      UniqueFd server = bindTcpSocket(loopbackAddress("198.18.0.1", port), error);
      ASSERT_TRUE(server && ::listen(server.get(), 4) == 0 &&
                  ::fcntl(server.get(), F_SETFL, 0) == 0);
      UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
      const int on = 1;
      ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
      const SocketAddress source = loopbackAddress("198.18.0.1", 40123);
      ASSERT_EQ(::bind(socket.get(), source.get(), source.length), 0) << port;
      const SocketAddress destination = loopbackAddress("198.18.0.1", port);
      ASSERT_EQ(::connect(socket.get(), destination.get(), destination.length), 0) << port;
      TestClient client(std::move(socket));
      TestClient accepted(UniqueFd(::accept4(server.get(), nullptr, nullptr, SOCK_CLOEXEC)));
      EXPECT_EQ(passed(client, accepted, "hello"), "hello");
      EXPECT_EQ(passed(accepted, client, "bye"), "bye");
    }
  });
  EXPECT_EQ(command->exitStatus(SIGTERM), 0);
  EXPECT_EQ(command->errors().find("no process found"), std::string::npos) << command->errors();
}

// A destination that never answers (its SYNs are dropped) resets the client once the connect
// timeout has passed, not after the kernel's two minutes of retries.
TEST_F(RootInterceptionTest, AHandedBackDialToASilentDestinationGivesUpAtTheConnectTimeout) {
  shell("ip netns exec " + ns_ + " nft add table ip twsilent && ip netns exec " + ns_ +
        " nft 'add chain ip twsilent out { type filter hook output priority 0; }' && " +
        "ip netns exec " + ns_ + " nft add rule ip twsilent out ip daddr 198.18.0.99 drop");
  shell("ip -n " + ns_ + " route add 198.18.0.99/32 dev tw0");
  auto command = run(base_, "--connect-timeout 1");
  ASSERT_TRUE(ready()) << command->errors();
  inside([] {
    const auto started = std::chrono::steady_clock::now();
    TestClient client(loopbackAddress("198.18.0.99", 9));
    EXPECT_EQ(client.readToEnd(), "");
    EXPECT_EQ(client.error(), ECONNRESET);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(4));
  });
}

// A second interceptor never takes over the first one's port or control socket, and says which
// is in the way; one killed outright leaves no table, and its socket is taken over by the next.
TEST_F(RootInterceptionTest, ASecondRunFailsInOneLineAndAKilledOneLeavesNoTable) {
  auto first = run(base_, "--listen-port 15001");
  ASSERT_TRUE(ready()) << first->errors();
  const std::tuple<std::string, std::string, std::string> refused[] = {
      {base_ + "-2", "--listen-port 15001",
       "port 15001 is taken on 127.0.0.1:15001 by another program"},
      {base_, "", "control socket " + base_ + ".sock is in use by a running interceptor"}};
  for (const auto& [socket, port, says] : refused) {
    auto second = run(socket, port + " --table twhost_second");
    EXPECT_EQ(second->exitStatus(), 2);
    // The line saying why, after the warning that no front door is configured.
    const std::string errors = second->errors();
    EXPECT_NE(errors.find(says), std::string::npos) << errors;
    EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 2) << errors;
  }
  EXPECT_EQ(tables().find("twhost_second"), std::string::npos);
  EXPECT_NE(output("status --control-socket " + base_ + ".sock").find("\"listenPort\":15001"),
            std::string::npos);
  EXPECT_EQ(first->exitStatus(SIGKILL), -1);
  EXPECT_EQ(tables(), "");
  auto next = run(base_);
  EXPECT_TRUE(ready()) << next->errors();
  EXPECT_EQ(next->exitStatus(SIGTERM), 0) << next->errors();
}

// The port the kernel picks by default cannot be shared by another user, and the status shows
// which it is.
TEST_F(RootInterceptionTest, AnotherUserCannotListenWithTheInterceptor) {
  auto command = run(base_);
  ASSERT_TRUE(ready()) << command->errors();
  const auto status = Json::parse(output("status --control-socket " + base_ + ".sock"), nullptr,
                                  /*allow_exceptions=*/false);
  ASSERT_TRUE(status.is_object()) << command->errors();
  EXPECT_EQ(status.value("selection", ""), "all");
  EXPECT_EQ(status.value("watchedSigningIDs", -1), 0);
  EXPECT_EQ(status.value("circuit", ""), "closed");
  const int port = status.value("listenPort", 0);
  ASSERT_GT(port, 0);
  // Whether user nobody can listen on the port, sharing it as the interceptor's lanes do.
  const auto squats = [&](const std::string& host, int onPort) {
    const std::string family = host.find(':') != std::string::npos ? "AF_INET6" : "AF_INET";
    return shell("ip netns exec " + ns_ +
                 " setpriv --reuid=65534 --regid=65534 --clear-groups /usr/bin/python3 -c "
                 "\"import socket; s = socket.socket(socket." +
                 family +
                 "); "
                 "s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1); s.bind(('" +
                 host + "', " + std::to_string(onPort) + ")); s.listen(); print('bound')\"")
               .find("bound") != std::string::npos;
  };
  for (const char* host : {"127.0.0.1", "::1"}) {
    EXPECT_TRUE(squats(host, 0)) << host;
    EXPECT_FALSE(squats(host, port)) << host;
  }
  inside([] { exchangeThroughTheHost("198.18.0.1"); });
  EXPECT_EQ(command->exitStatus(SIGTERM), 0) << command->errors();
}

// Where the kernel cannot select (here: BPF sees only the initial PID namespace's PIDs), a run
// that asks for kernel selection stops, saying why; one that leaves it to the machine falls back
// to redirecting everything, saying why in one line, and carries traffic as before.
TEST_F(RootInterceptionTest, WithoutKernelSelectionKernelModeStopsAndAutoFallsBack) {
  const std::string elsewhere = "unshare --pid --fork --kill-child --mount-proc";
  auto kernel = run(base_, "--selection kernel", elsewhere);
  EXPECT_EQ(kernel->exitStatus(), 2);
  const std::string reason = "not in the initial PID namespace";
  EXPECT_NE(kernel->errors().find("kernel-side selection cannot load: " + reason),
            std::string::npos)
      << kernel->errors();
  EXPECT_EQ(tables(), "");
  auto fallback = run(base_, "--selection auto --block-quic", elsewhere);
  ASSERT_TRUE(ready()) << fallback->errors();
  inside([] { exchangeThroughTheHost("198.18.0.1"); });
  const std::string errors = fallback->errors();
  const auto warning = errors.find("redirect-all");
  EXPECT_NE(warning, std::string::npos) << errors;
  EXPECT_NE(errors.rfind(reason, warning), std::string::npos) << errors;
  EXPECT_EQ(errors.find("redirect-all", warning + 1), std::string::npos) << errors;
  EXPECT_NE(errors.find("--block-quic needs kernel-side selection"), std::string::npos) << errors;
}

// Where IPv6 is switched off, the interceptor starts on IPv4 alone and says so once.
TEST_F(RootInterceptionTest, RunsOnIPv4AloneWhereIPv6IsOff) {
  shell("ip netns exec " + ns_ + " sysctl -qw net.ipv6.conf.all.disable_ipv6=1");
  auto command = run(base_);
  ASSERT_TRUE(ready()) << command->errors();
  inside([] { exchangeThroughTheHost("198.18.0.1"); });
  EXPECT_EQ(command->exitStatus(SIGTERM), 0) << command->errors();
  const std::string errors = command->errors();
  const std::string warning = "IPv6 is not available here (::1 cannot be bound)";
  const auto at = errors.find(warning);
  EXPECT_NE(at, std::string::npos) << errors;
  EXPECT_EQ(errors.find(warning, at + 1), std::string::npos) << errors;
}

}  // namespace
}  // namespace tarnwick::host
