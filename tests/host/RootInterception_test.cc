// Interception for real: nftables tables, redirects and the run command, each inside a network
// namespace of its own (test addresses in 198.18.0.0/15 only). Needs root; skipped otherwise.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <thread>

#include "HostTesting.h"
#include "host/FlowIdentifier.h"
#include "host/NftRuleset.h"
#include "host/NftTable.h"
#include "host/OriginalDestination.h"
#include "identity/AuditToken.h"
#include "platform/posix/Sockets.h"

namespace tarnwick::host {
namespace {

using namespace std::chrono_literals;

#define SKIP_UNLESS_ROOT()                                                                      \
  if (::geteuid() != 0) {                                                                       \
    GTEST_SKIP() << "needs root: creates network namespaces, nftables tables and socket marks"; \
  }

std::string shell(const std::string& command) {
  std::string output;
  if (FILE* pipe = ::popen((command + " 2>&1").c_str(), "r")) {
    char chunk[4096];
    while (const std::size_t got = std::fread(chunk, 1, sizeof chunk, pipe))
      output.append(chunk, got);
    ::pclose(pipe);
  }
  return output;
}

// A network namespace with loopback up and 198.18.0.1/24 on one end of a veth pair.
class TestNamespace {
 public:
  TestNamespace() : name_("twhost-" + std::to_string(::getpid()) + "-" + std::to_string(next_++)) {
    shell("ip netns add " + name_);
    shell("ip -n " + name_ + " link set lo up");
    shell("ip -n " + name_ + " link add tw0 type veth peer name tw1");
    shell("ip -n " + name_ + " addr add 198.18.0.1/24 dev tw0");
    shell("ip -n " + name_ + " link set tw0 up");
    shell("ip -n " + name_ + " link set tw1 up");
  }
  ~TestNamespace() { shell("ip netns del " + name_); }

  const std::string& name() const { return name_; }
  std::string tables() const { return shell("ip netns exec " + name_ + " nft list tables"); }

  // Runs `body` in a child process that has entered the namespace; its result is the exit code.
  int runInside(const std::function<int()>& body) const {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(enter() ? body() : 100);
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 200;
  }

  bool enter() const {
    UniqueFd handle(::open(("/run/netns/" + name_).c_str(), O_RDONLY | O_CLOEXEC));
    return handle && ::setns(handle.get(), CLONE_NEWNET) == 0;
  }

 private:
  static inline int next_ = 0;
  std::string name_;
};

// `tarnwick-proxyext run` inside a namespace, its stderr kept in a file.
class RunCommand {
 public:
  RunCommand(const TestNamespace& ns, std::vector<std::string> extra = {})
      : ns_(ns),
        dir_(::testing::TempDir() + "run-" + ns.name() + "-" + std::to_string(next_++)),
        control_(dir_ + ".sock"),
        options_(dir_ + ".json"),
        stderr_(dir_ + ".err") {
    std::ofstream(options_) << R"({"frontDoorPort":0})";
    std::vector<std::string> args{TARNWICK_PROXYEXT_BINARY, "run",   "--options", options_,
                                  "--control-socket",       control_};
    args.insert(args.end(), extra.begin(), extra.end());
    pid_ = ::fork();
    if (pid_ == 0) {
      const int err = ::open(stderr_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
      ::dup2(err, STDERR_FILENO);
      std::vector<char*> argv;
      for (auto& arg : args) argv.push_back(arg.data());
      argv.push_back(nullptr);
      if (ns_.enter()) ::execv(argv[0], argv.data());
      ::_exit(127);
    }
  }
  ~RunCommand() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      wait();
    }
    for (const auto& path : {control_, options_, stderr_}) ::unlink(path.c_str());
  }

  // True once the control socket is there (the rules are in by then), or false once the
  // command has exited.
  bool ready() {
    for (auto waited = 0ms; waited < kPatience; waited += 10ms) {
      if (::access(control_.c_str(), F_OK) == 0) return true;
      if (::waitpid(pid_, &status_, WNOHANG) == pid_) {
        pid_ = 0;
        return false;
      }
      std::this_thread::sleep_for(10ms);
    }
    return false;
  }

  // The exit status after `signal` (0 to just wait), or -1 when it did not exit normally.
  int stop(int signal) {
    if (pid_ > 0 && signal != 0) ::kill(pid_, signal);
    wait();
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
  }

  std::string errors() const {
    std::ifstream file(stderr_);
    return std::string(std::istreambuf_iterator<char>(file), {});
  }
  const std::string& controlPath() const { return control_; }

 private:
  void wait() {
    if (pid_ > 0) ::waitpid(pid_, &status_, 0);
    pid_ = 0;
  }

  static inline int next_ = 0;
  const TestNamespace& ns_;
  const std::string dir_;
  const std::string control_;
  const std::string options_;
  const std::string stderr_;
  pid_t pid_ = 0;
  int status_ = 0;
};

TEST(RootInterceptionTest, AnOwnedTableDiesWithItsProcess) {
  SKIP_UNLESS_ROOT();
  TestNamespace ns;
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t owner = ::fork();
  if (owner == 0) {
    // Entered first: the table's netlink socket belongs to the namespace it is opened in.
    const bool entered = ns.enter();
    NftTable table;
    std::string error;
    const bool made = entered && table.run("table inet twhost_owner { flags owner; }", error);
    [[maybe_unused]] auto written = ::write(ready[1], made ? "y" : "n", 1);
    ::pause();
    ::_exit(0);
  }
  char made = 0;
  ASSERT_EQ(::read(ready[0], &made, 1), 1);
  ::close(ready[0]);
  ::close(ready[1]);
  EXPECT_EQ(made, 'y');
  EXPECT_NE(ns.tables().find("table inet twhost_owner"), std::string::npos);
  ::kill(owner, SIGKILL);
  ::waitpid(owner, nullptr, 0);
  EXPECT_EQ(ns.tables().find("twhost_owner"), std::string::npos) << ns.tables();
}

// Through a real redirect: the accepted socket names the address the client dialled, and the
// client's exact 4-tuple names its process.
TEST(RootInterceptionTest, RedirectedConnectionsKeepTheirDestinationAndProcess) {
  SKIP_UNLESS_ROOT();
  TestNamespace ns;
  const int outcome = ns.runInside([] {
    std::string error;
    UniqueFd listener = bindTcpSocket(loopbackAddress("127.0.0.1", 0), error);
    if (!listener || ::listen(listener.get(), 4) != 0) return 1;
    NETransparentProxyNetworkSettings settings;
    settings.includedNetworkRules.resize(1);
    settings.includedNetworkRules[0].protocol = NENetworkRuleProtocol::TCP;
    const auto script =
        nftScriptFor(settings, {"twhost_redirect", 0x7477, portOf(*localAddress(listener.get()))});
    NftTable table;
    if (!script.script || !table.run(*script.script, error)) return 2;
    TestClient client(loopbackAddress("198.18.0.1", 9));
    UniqueFd accepted(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!client.connected() || !accepted) return 3;
    const auto destination = originalDestination(accepted.get());
    if (!destination || hostEndpointOf(*destination) != NWHostEndpoint{"198.18.0.1", "9"}) {
      return 4;
    }
    FlowIdentifier identifier;
    const auto metaData = identifier.identify(*localAddress(client.fd()), *destination);
    return pidFromAuditTokenData(metaData.sourceAppAuditToken) == ::getpid() ? 0 : 5;
  });
  EXPECT_EQ(outcome, 0);
}

// An unwatched program's connection goes through the host (the server sees a connection other
// than the client's own) and is carried exactly, half-close included.
int exchangeThroughTheHost() {
  std::string error;
  UniqueFd server = bindTcpSocket(loopbackAddress("198.18.0.1", 8080), error);
  if (!server || ::listen(server.get(), 4) != 0) return 10;
  TestClient client(loopbackAddress("198.18.0.1", 8080));
  ::fcntl(server.get(), F_SETFL, 0);
  UniqueFd accepted(::accept4(server.get(), nullptr, nullptr, SOCK_CLOEXEC));
  if (!client.connected() || !accepted) return 11;
  SocketAddress peer;
  peer.length = sizeof peer.storage;
  ::getpeername(accepted.get(), reinterpret_cast<sockaddr*>(&peer.storage), &peer.length);
  if (sameSocketAddress(peer, *localAddress(client.fd()))) return 12;  // not intercepted
  const std::string request = patterned(64 << 10);
  client.send(request);
  client.shutdownWrite();
  std::string received;
  char chunk[65536];
  while (const ssize_t got = ::recv(accepted.get(), chunk, sizeof chunk, 0)) {
    if (got < 0) return 13;
    received.append(chunk, static_cast<std::size_t>(got));
  }
  if (received != request) return 14;
  ::send(accepted.get(), "done", 4, MSG_NOSIGNAL);
  accepted.reset();
  return client.readToEnd() == "done" && client.error() == 0 ? 0 : 15;
}

TEST(RootInterceptionTest, RunCarriesUnwatchedTrafficAndCleansUpOnSigterm) {
  SKIP_UNLESS_ROOT();
  TestNamespace ns;
  RunCommand run(ns);
  ASSERT_TRUE(run.ready()) << run.errors();
  EXPECT_NE(ns.tables().find("table inet tarnwick_proxyext"), std::string::npos);
  EXPECT_EQ(ns.runInside(exchangeThroughTheHost), 0);

  const std::string reply = shell("ip netns exec " + ns.name() + " " + TARNWICK_PROXYEXT_BINARY +
                                  " watch --control-socket " + run.controlPath() +
                                  " --signing-id /usr/bin/curl --pid 1; echo \" exit=$?\"");
  const bool ok = reply.starts_with("{\"ok\":true}\n");
  EXPECT_TRUE(ok || reply.starts_with("{\"ok\":false}\n")) << reply;
  EXPECT_NE(reply.find(ok ? " exit=0" : " exit=1"), std::string::npos) << reply;

  EXPECT_EQ(run.stop(SIGTERM), 0) << run.errors();
  EXPECT_EQ(ns.tables(), "");
  EXPECT_NE(::access(run.controlPath().c_str(), F_OK), 0);
}

TEST(RootInterceptionTest, AKilledRunLeavesNoTableAndABusyPortFailsInOneLine) {
  SKIP_UNLESS_ROOT();
  TestNamespace ns;
  RunCommand first(ns);
  ASSERT_TRUE(first.ready()) << first.errors();
  RunCommand second(ns, {"--table", "twhost_second"});
  EXPECT_FALSE(second.ready());
  EXPECT_EQ(second.stop(0), 2);
  const std::string errors = second.errors();
  EXPECT_NE(errors.find("127.0.0.1:15001"), std::string::npos) << errors;
  EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 1) << errors;
  EXPECT_EQ(ns.tables().find("twhost_second"), std::string::npos);

  EXPECT_NE(ns.tables().find("tarnwick_proxyext"), std::string::npos);
  EXPECT_EQ(first.stop(SIGKILL), -1);
  EXPECT_EQ(ns.tables(), "");
}

}  // namespace
}  // namespace tarnwick::host
