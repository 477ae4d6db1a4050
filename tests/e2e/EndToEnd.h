#pragma once
// The end-to-end fixture. Every test gets a fresh pair of network namespaces joined by a veth
// pair: the agent host, where the real interceptor, front door, daemon and test client run, and
// the world host with the servers. Addresses come only from 198.18.0.0/15 and 2001:db8::/32. The
// world's servers run on threads of the test itself, so a test can cut their connections.
// Everything goes at the end of the test, failed or not. Without root the tests skip.
//
// The interceptor selects connections as TW_E2E_SELECTION says: "kernel" (kernel-side
// selection; the tests skip where this build or kernel has none) or "all" (the nftables
// redirect), the default. CTest runs the suite once in each mode.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/sched.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace tarnwick::e2e {

using Json = nlohmann::json;
using namespace std::chrono_literals;

inline constexpr const char* kWorldIPv4 = "198.18.0.2";
inline constexpr const char* kWorldIPv6 = "2001:db8:18::2";

// "kernel" or "all".
inline std::string selectionMode() {
  const char* mode = std::getenv("TW_E2E_SELECTION");
  return mode && std::string(mode) == "kernel" ? "kernel" : "all";
}
inline bool kernelSelection() { return selectionMode() == "kernel"; }

// Polls `ready` every 20 ms until it holds or `limit` passes.
template <typename Predicate>
bool eventually(Predicate ready, std::chrono::milliseconds limit = 5s) {
  for (const auto deadline = std::chrono::steady_clock::now() + limit; !ready();) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(20ms);
  }
  return true;
}

// Runs a shell command to its end; its exit status, with its output and errors in `output`.
inline int shell(const std::string& command, std::string* output = nullptr) {
  FILE* pipe = popen(("{ " + command + "; } 2>&1").c_str(), "r");
  std::string text;
  char chunk[4096];
  for (std::size_t n; (n = fread(chunk, 1, sizeof chunk, pipe)) > 0;) text.append(chunk, n);
  if (output) *output = text;
  return pclose(pipe);
}

// A program run in a network namespace through `ip netns exec` (which keeps the PID), under a
// chosen PID when `fixedPid` is set. Output and errors go to `log`. Killed and reaped when it goes.
class Process {
 public:
  Process(const std::string& netns, std::vector<std::string> argv, std::string log,
          pid_t fixedPid = 0)
      : log_(std::move(log)) {
    argv.insert(argv.begin(), {"ip", "netns", "exec", netns});
    std::vector<char*> args;
    for (auto& arg : argv) args.push_back(arg.data());
    args.push_back(nullptr);
    const int out = open(log_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    // clone3 rather than fork, so that a test can ask for a PID (set_tid) to reuse one.
    clone_args clone{};
    clone.exit_signal = SIGCHLD;
    clone.set_tid_size = fixedPid != 0;
    clone.set_tid = clone.set_tid_size ? reinterpret_cast<std::uintptr_t>(&fixedPid) : 0;
    pid_ = static_cast<pid_t>(syscall(SYS_clone3, &clone, sizeof clone));
    if (pid_ == 0) {
      // This process has threads: only async-signal-safe calls until exec.
      dup2(out, STDOUT_FILENO);
      dup2(out, STDERR_FILENO);
      execvp(args[0], args.data());
      _exit(127);
    }
    close(out);
    if (pid_ < 0) throw std::system_error(errno, std::generic_category(), "clone3 " + argv[4]);
  }
  ~Process() {
    signal(SIGKILL);
    wait(5s);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const { return pid_; }
  void signal(int number) {
    if (!status_) kill(pid_, number);
  }
  // The exit status (128 + signal when killed), or absent while it still runs after `limit`.
  std::optional<int> wait(std::chrono::milliseconds limit) {
    int status = 0;
    if (!status_ && eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, limit))
      status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return status_;
  }
  std::string output() const {
    std::stringstream text;
    text << std::ifstream(log_).rdbuf();
    return text.str();
  }

 private:
  pid_t pid_;
  std::string log_;
  std::optional<int> status_;
};

// A server on the world host, run on threads of the test, one per connection: it sends every byte
// back as it arrives or, when `holdUntilEnd`, all of them once the client has ended its side, or
// it serves each connection as `serve` says (the server closes the connection afterwards).
// Listens on both address families; its port is 0 when that failed. Going away cuts every
// connection.
class WorldServer {
 public:
  using Serve = std::function<void(int connection)>;

  WorldServer(const std::string& netns, bool holdUntilEnd)
      : WorldServer(netns, [holdUntilEnd](int connection) { serve(connection, holdUntilEnd); }) {}
  WorldServer(const std::string& netns, Serve serve) : serve_(std::move(serve)) {
    std::thread([&] {
      const int space = open(("/run/netns/" + netns).c_str(), O_RDONLY | O_CLOEXEC);
      sockaddr_in6 address{};
      address.sin6_family = AF_INET6;
      socklen_t length = sizeof address;
      if (setns(space, CLONE_NEWNET) == 0) fd_ = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
      if (bind(fd_, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
          listen(fd_, SOMAXCONN) == 0 &&
          getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) == 0)
        port_ = ntohs(address.sin6_port);
      close(space);
    }).join();
    acceptor_ = std::thread([this] {
      for (int connection; (connection = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
        std::lock_guard lock(mutex_);
        open_.insert(connection);
        workers_.emplace_back([this, connection] {
          serve_(connection);
          std::lock_guard done(mutex_);
          open_.erase(connection);
          close(connection);
        });
      }
    });
  }
  ~WorldServer() {
    shutdown(fd_, SHUT_RDWR);  // ends the blocked accept
    acceptor_.join();
    sever();
    for (auto& worker : workers_) worker.join();
    close(fd_);
  }

  std::uint16_t port() const { return port_; }
  int accepted() const {
    std::lock_guard lock(mutex_);
    return static_cast<int>(workers_.size());
  }
  // Cuts every open connection both ways, as a destination that goes away would.
  void sever() {
    std::lock_guard lock(mutex_);
    for (int connection : open_) shutdown(connection, SHUT_RDWR);
  }

 private:
  static void serve(int connection, bool holdUntilEnd) {
    std::string held;
    char chunk[65536];
    for (ssize_t n; (n = recv(connection, chunk, sizeof chunk, 0)) > 0;) {
      if (holdUntilEnd) {
        held.append(chunk, static_cast<std::size_t>(n));
      } else if (!sendAll(connection, chunk, static_cast<std::size_t>(n))) {
        return;
      }
    }
    sendAll(connection, held.data(), held.size());
  }
  static bool sendAll(int fd, const char* data, std::size_t size) {
    for (ssize_t n = 0; size > 0; data += n, size -= static_cast<std::size_t>(n)) {
      if ((n = send(fd, data, size, MSG_NOSIGNAL)) <= 0) return false;
    }
    return true;
  }

  const Serve serve_;
  int fd_ = -1;
  std::uint16_t port_ = 0;
  mutable std::mutex mutex_;
  std::set<int> open_;
  std::vector<std::thread> workers_;
  std::thread acceptor_;
};

struct Client {
  // echo: read the echo while sending, close once it all came back. half-close: send it all, end
  // the write side, read until the server closes. hold: like echo, then wait for the server's end.
  std::string mode = "echo";
  std::string host = kWorldIPv4;
  std::uint16_t port = 0;  // 0: the echo server
  std::size_t bytes = 4096;
  bool watched = true;  // the watched client, or its byte-identical twin at a path nobody watches
  int descend = 0;      // levels of twins started below it; the deepest one connects
  std::string ports{};  // for the modes that take a list of ports, instead of `port`
};

struct ClientRun {
  int status = -1;
  pid_t pid = 0;  // of the process that connected, as it printed itself
  std::string output;
};

class EndToEndTest : public ::testing::Test {
 protected:
  static constexpr int kFrontDoorPort = 8443;

  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "end-to-end tests need root for network namespaces and nftables; "
                      "run them with sudo (make test does)";
    }
    if (kernelSelection() &&
        (!TW_E2E_KERNEL_SELECTION_BUILT || !std::filesystem::exists("/sys/kernel/btf/vmlinux"))) {
      GTEST_SKIP() << "kernel-side selection is not built here, or the kernel has no BTF";
    }
    // What a test process killed outright (at a CTest timeout) left behind goes first.
    shell(
        "for f in /run/netns/tw-e2e-*; do p=${f#*e2e-*-}; kill -0 ${p%-*} || "
        "{ ip netns pids ${f##*/} | xargs -r kill -9; ip netns del ${f##*/}; }; done");
    static int labs = 0;
    const std::string suffix = std::to_string(getpid()) + "-" + std::to_string(labs++);
    char directory[] = "/tmp/tw-e2e.XXXXXX";
    ASSERT_TRUE(mkdtemp(directory));
    lab_.directory = directory;
    lab_.agent = "tw-e2e-agent-" + suffix;
    lab_.world = "tw-e2e-world-" + suffix;
    // Host 1 is the agent, host 2 the world. Fixed neighbour entries keep discovery out of play:
    // on a link that has just come up it loses the first IPv6 SYN, which then waits a second.
    std::string script = "set -e; ip netns add " + lab_.agent + "; ip netns add " + lab_.world +
                         "; ip link add tw0 netns " + lab_.agent +
                         " address 02:00:00:00:00:01 type veth peer name tw0 netns " + lab_.world +
                         " address 02:00:00:00:00:02";
    for (const auto& [netns, me, peer] :
         {std::tuple{lab_.agent, "1", "2"}, std::tuple{lab_.world, "2", "1"}}) {
      const std::string ip = "; ip -n " + netns + " ";
      script += ip + "link set lo up" + ip + "link set tw0 up" + ip + "addr add 198.18.0." + me +
                "/30 dev tw0" + ip + "addr add 2001:db8:18::" + me + "/64 dev tw0 nodad" + ip +
                "neigh replace 2001:db8:18::" + peer + " lladdr 02:00:00:00:00:0" + peer +
                " dev tw0 nud permanent";
    }
    std::string output;
    ASSERT_EQ(shell(script, &output), 0) << output;
    echo_ = std::make_unique<WorldServer>(lab_.world, false);
    late_ = std::make_unique<WorldServer>(lab_.world, true);
    ASSERT_TRUE(echo_->port() != 0 && late_->port() != 0);
    std::filesystem::copy_file(watchedClient(), twin_ = file("tw-e2e-client"));
    ASSERT_NO_FATAL_FAILURE(startDaemon());
  }

  void TearDown() override {
    // Every test that leaves the interceptor running also checks that it stops cleanly on
    // SIGTERM and takes its rules with it.
    if (interceptor_ && !interceptor_->wait(0ms)) {
      interceptor_->signal(SIGTERM);
      EXPECT_EQ(interceptor_->wait(5s), 0);
      EXPECT_TRUE(eventually([&] { return !tableExists(); }, 2s));
    }
    for (const auto* process : {interceptor_.get(), frontDoor_.get(), daemon_.get()}) {
      if (HasFailure() && process) std::cerr << "--- " << process->output();
    }
  }

  static std::string watchedClient() { return std::filesystem::canonical(TW_E2E_CLIENT); }
  static std::string proxyext() { return std::filesystem::canonical(TW_E2E_PROXYEXT); }
  std::string file(const std::string& name) const { return lab_.directory + "/" + name; }
  // Runs a shell command in the agent namespace; its exit status, with its output in `output`.
  int inAgent(const std::string& command, std::string* output = nullptr) const {
    return shell("ip netns exec " + lab_.agent + " " + command, output);
  }
  bool tableExists() const { return inAgent("nft list table inet tw_e2e") == 0; }

  // Starts a companion that prints "listening" once it takes connections.
  void startListener(std::unique_ptr<Process>& process, std::vector<std::string> argv) {
    process = std::make_unique<Process>(lab_.agent, std::move(argv),
                                        file("companion-" + std::to_string(spawned_++) + ".log"));
    ASSERT_TRUE(eventually([&] {
      return process->output().find("listening") != std::string::npos;
    })) << process->output();
  }
  // `tarnwick-daemon` prints the events it hears as they came, one per line.
  void startDaemon() {
    startListener(daemon_, {TW_E2E_DAEMON, "--json", "--socket", file("daemon.sock")});
  }
  void startFrontDoor(const std::string& mode = "normal") {
    startListener(frontDoor_, {TW_E2E_FRONTDOOR, "--listen",
                               "127.0.0.1:" + std::to_string(kFrontDoorPort), "--mode", mode});
  }
  // Starts `tarnwick-proxyext run` watching the client and the interceptor's own executable (a
  // connection of its own that came back to it would be relayed), in the suite's selection mode
  // with `extra` options, once its control socket is there (it comes once the rules are in).
  void startInterceptor(const std::vector<std::string>& extra = {}) {
    std::ofstream(file("options.json")) << Json{
        {"frontDoorHost", "127.0.0.1"},
        {"frontDoorPort", kFrontDoorPort},
        {"socketPath", file("daemon.sock")},
        {"watchedSigningIDs",
         {watchedClient(), proxyext()}}}.dump();
    std::vector<std::string> argv{
        proxyext(),           "run",     "--options", file("options.json"), "--control-socket",
        file("control.sock"), "--table", "tw_e2e",    "--selection",        selectionMode()};
    argv.insert(argv.end(), extra.begin(), extra.end());
    interceptor_ = std::make_unique<Process>(lab_.agent, std::move(argv), file("interceptor.log"));
    ASSERT_TRUE(eventually([&] { return std::filesystem::exists(file("control.sock")); }))
        << interceptor_->output();
    EXPECT_EQ(tableExists(), !kernelSelection());
  }
  // Runs `tarnwick-proxyext ARGS` against the interceptor's control socket; its output.
  std::string control(const std::string& args) const {
    std::string output;
    inAgent(proxyext() + " " + args + " --control-socket " + file("control.sock"), &output);
    return output;
  }
  Json status() const {
    return Json::parse(control("status"), nullptr, /*allow_exceptions=*/false);
  }

  std::unique_ptr<Process> spawn(const Client& client, pid_t fixedPid = 0) {
    const std::uint16_t port = client.port != 0 ? client.port : echo_->port();
    return std::make_unique<Process>(
        lab_.agent,
        std::vector<std::string>{client.watched ? watchedClient() : twin_, client.mode, client.host,
                                 client.ports.empty() ? std::to_string(port) : client.ports,
                                 std::to_string(client.bytes), std::to_string(client.descend),
                                 twin_},
        file("client-" + std::to_string(spawned_++) + ".log"), fixedPid);
  }
  static ClientRun finish(Process& client) {
    ClientRun run{client.wait(20s).value_or(-1), 0, client.output()};
    const auto at = run.output.find("pid=");
    if (at != std::string::npos) run.pid = std::atoi(run.output.c_str() + at + 4);
    return run;
  }
  ClientRun runClient(const Client& client) { return finish(*spawn(client)); }

  // The front door's per-connection lines as key=value maps, once `atLeast` of them are there.
  std::vector<std::map<std::string, std::string>> frontDoorLines(std::size_t atLeast = 0) const {
    std::vector<std::map<std::string, std::string>> lines;
    eventually([&] {
      lines.clear();
      std::istringstream text(frontDoor_->output());
      for (std::string word; text >> word;) {
        if (word == "conn") lines.emplace_back();
        const auto equals = word.find('=');
        if (!lines.empty() && equals != std::string::npos)
          lines.back()[word.substr(0, equals)] = word.substr(equals + 1);
      }
      return lines.size() >= atLeast;
    });
    return lines;
  }
  // The daemon's events of `kind` (every event when it is empty), in the order they came.
  std::vector<Json> events(const std::string& kind) const {
    std::vector<Json> found;
    std::istringstream text(daemon_->output());
    for (std::string line; std::getline(text, line);) {
      auto event = Json::parse(line, nullptr, /*allow_exceptions=*/false);
      if (event.is_object() && (kind.empty() || event.value("kind", "") == kind))
        found.push_back(std::move(event));
    }
    return found;
  }
  bool awaitEvents(const std::string& kind, std::size_t count,
                   std::chrono::milliseconds limit = 5s) const {
    return eventually([&] { return events(kind).size() >= count; }, limit);
  }

  // The namespaces and the test's directory. Declared first, so they go after everything that
  // runs in them.
  struct Lab {
    std::string agent, world, directory;
    ~Lab() {
      if (agent.empty()) return;
      shell("ip netns del " + agent + "; ip netns del " + world);
      std::error_code ignored;
      std::filesystem::remove_all(directory, ignored);
    }
  } lab_;
  std::string twin_;
  std::unique_ptr<WorldServer> echo_;
  std::unique_ptr<WorldServer> late_;  // answers only after the client's end, with all it got
  std::unique_ptr<Process> daemon_;
  std::unique_ptr<Process> frontDoor_;
  std::unique_ptr<Process> interceptor_;
  int spawned_ = 0;
};

}  // namespace tarnwick::e2e
