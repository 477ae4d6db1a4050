// The whole relay on real loopback sockets: an agent whose flow is one end of a socket pair, the
// provider on the real runtime and real connections, the front door in each of its modes, an echo
// destination, and a real daemon socket receiving the events. Whatever the front door does, the
// agent gets back exactly what it sent.

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "DaemonServer.h"
#include "FrontDoorHarness.h"
#include "bridge/DaemonBridge.h"
#include "host/HostLoop.h"
#include "host/SocketFlow.h"
#include "identity/AuditToken.h"
#include "platform/testing/AcceptingTunnelHost.h"
#include "provider/TransparentProxyProvider.h"

namespace tarnwick {
namespace {

using namespace std::chrono_literals;
using frontdoor::FrontDoorMode;

constexpr const char* kAgent = "/usr/bin/agent";

// A daemon on a real Unix socket in a fresh directory, serving on its own thread; keeps every
// event line it receives.
class RunningDaemon {
 public:
  RunningDaemon() {
    char dir[] = "/tmp/twi-XXXXXX";
    directory_ = ::mkdtemp(dir);
    std::string error;
    server_ = daemon::DaemonServer::create(
        directory_ + "/ne.sock", std::nullopt,
        {[this](std::string_view line) { add(line); }, [](std::string_view) {}}, error);
    EXPECT_TRUE(server_) << error;
    if (server_) thread_ = std::thread([this] { server_->run(); });
  }
  ~RunningDaemon() {
    if (server_) server_->stop();
    if (thread_.joinable()) thread_.join();
    server_.reset();
    ::rmdir(directory_.c_str());
  }
  std::string path() const { return directory_ + "/ne.sock"; }

  // The "reason" of every "relay.failopen" once a "relay.close" has arrived, or what had come
  // when patience ran out.
  std::vector<std::string> failOpenReasonsOnceClosed() {
    std::unique_lock<std::mutex> lock(mutex_);
    arrived_.wait_for(lock, 10s, [&] { return closed_; });
    return reasons_;
  }

 private:
  void add(std::string_view line) {
    auto event = parseJsonDocument(line);
    if (!event) return;
    std::lock_guard<std::mutex> lock(mutex_);
    const std::string kind = event->value("kind", "");
    if (kind == "relay.failopen") reasons_.push_back(event->value("reason", ""));
    if (kind == "relay.close") closed_ = true;
    arrived_.notify_all();
  }

  std::string directory_;
  std::unique_ptr<daemon::DaemonServer> server_;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<std::string> reasons_;
  bool closed_ = false;
};

struct LoopbackCase {
  std::string name;
  FrontDoorMode mode;
  std::size_t size;
  std::vector<std::string> reasons;
};

class RelayLoopbackTest : public ::testing::TestWithParam<LoopbackCase> {
 protected:
  void SetUp() override {
    frontdoor::FrontDoorConfig config;
    config.listen = {"127.0.0.1", 0};
    config.mode = GetParam().mode;
    config.ackDelaySeconds = 1.0;
    frontDoor_ = std::make_unique<frontdoor::RunningFrontDoor>(config);

    TransparentProxyProvider::Services services;
    services.runtime = realRuntime();
    services.connections = realConnectionFactory();
    services.bridge = DaemonBridge::create(services.runtime, daemon_.path());
    // Short limits, so that the silent modes fail over in well under a second.
    services.relayTiming.handshakeTimeout = Seconds(0.5);
    services.relayTiming.preCommitSilence = Seconds(0.5);
    provider_ = TransparentProxyProvider::create(std::move(services));
    provider_->attachTunnelHost(tunnelHost_);
    provider_->startProxy(Json{{"frontDoorPort", portOf(frontDoor_->address())},
                               {"socketPath", daemon_.path()},
                               {"watchedSigningIDs", {kAgent}}},
                          nullptr);
  }
  void TearDown() override {
    provider_->stopProxy(NEProviderStopReason::UserInitiated, nullptr);
    loop_->stop();
  }

  // The agent's end of a new flow to the echo destination, taken over by the provider.
  UniqueFd agentFlow() {
    int pair[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    NEFlowMetaData meta;
    meta.sourceAppSigningIdentifier = kAgent;
    meta.sourceAppAuditToken = auditTokenForPID(::getpid());
    auto flow = host::SocketFlow::create(
        loop_, UniqueFd(pair[1]),
        NWHostEndpoint{"127.0.0.1", std::to_string(echo_.port())}, meta, framework_);
    EXPECT_TRUE(provider_->handleNewFlow(flow));
    return UniqueFd(pair[0]);
  }

  RunningDaemon daemon_;
  frontdoor::EchoServer echo_;
  std::unique_ptr<frontdoor::RunningFrontDoor> frontDoor_;
  std::shared_ptr<host::HostLoop> loop_ = std::make_shared<host::HostLoop>();
  std::shared_ptr<DispatchQueue> framework_ =
      realRuntime()->makeQueue("framework", QualityOfService::Default);
  std::shared_ptr<AcceptingTunnelHost> tunnelHost_ = std::make_shared<AcceptingTunnelHost>();
  std::shared_ptr<TransparentProxyProvider> provider_;
};

std::string patterned(std::size_t size) {
  std::string out(size, '\0');
  for (std::size_t i = 0; i < size; ++i) out[i] = static_cast<char>((i * 31 + i / 251) & 0xff);
  return out;
}

// Sends the payload while reading the echo back, and stops once all of it has come back (or the
// stream ended, or nothing moved for a while). The agent keeps its side open meanwhile: a relay
// ends as soon as the agent ends its stream, reply in flight or not.
std::string echoRoundTrip(int fd, std::string_view payload) {
  std::string received;
  std::vector<char> buffer(64 * 1024);
  std::size_t sent = 0;
  while (received.size() < payload.size()) {
    const short events = static_cast<short>(POLLIN | (sent < payload.size() ? POLLOUT : 0));
    pollfd ready{fd, events, 0};
    if (::poll(&ready, 1, 5000) <= 0) break;
    if ((ready.revents & POLLOUT) != 0) {
      const ssize_t n = ::send(fd, payload.data() + sent, payload.size() - sent,
                               MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n > 0) sent += static_cast<std::size_t>(n);
    }
    if ((ready.revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
      const ssize_t n = ::recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
      if (n == 0 || (n < 0 && errno != EAGAIN)) break;
      if (n > 0) received.append(buffer.data(), static_cast<std::size_t>(n));
    }
  }
  return received;
}

TEST_P(RelayLoopbackTest, EchoesEveryByteAndReportsWhy) {
  const std::string payload = patterned(GetParam().size);
  auto agent = agentFlow();
  const std::string received = echoRoundTrip(agent.get(), payload);
  agent.reset();
  EXPECT_EQ(received.size(), payload.size());
  EXPECT_TRUE(received == payload) << "the echo differs from what the agent sent";
  EXPECT_EQ(daemon_.failOpenReasonsOnceClosed(), GetParam().reasons);
}

std::vector<LoopbackCase> loopbackCases() {
  struct Mode {
    const char* name;
    FrontDoorMode mode;
    std::vector<std::string> reasons;
    // Failing over after the session started replays what the agent sent, up to 128 KiB.
    bool afterCommit;
  };
  const std::vector<Mode> modes = {
      {"Normal", FrontDoorMode::Normal, {}, false},
      {"Refuse", FrontDoorMode::Refuse, {"relay-failed"}, false},
      {"Silent", FrontDoorMode::Silent, {"handshake-timeout"}, false},
      {"Reject", FrontDoorMode::Reject, {"no-ack"}, false},
      {"Garbage", FrontDoorMode::Garbage, {"no-ack"}, false},
      {"SlowAck", FrontDoorMode::SlowAck, {"handshake-timeout"}, false},
      {"AckThenClose", FrontDoorMode::AckThenClose,
       {"passthrough_dial", "passthrough_dial_spliced"}, true},
      {"AckThenSilence", FrontDoorMode::AckThenSilence,
       {"ack-then-silence", "passthrough_dial_spliced"}, true},
  };
  const std::vector<std::pair<const char*, std::size_t>> sizes = {
      {"0B", 0}, {"1B", 1}, {"100KiB", 100 * 1024}, {"128KiB", 128 * 1024},
      {"128KiBPlus1", 128 * 1024 + 1}, {"10MiB", 10 * 1024 * 1024}};
  std::vector<LoopbackCase> out;
  for (const auto& mode : modes) {
    for (const auto& [sizeName, size] : sizes) {
      // An agent that sent nothing has nothing to replay; past 128 KiB there is no replay.
      if (mode.afterCommit && (size == 0 || size > 128 * 1024)) continue;
      out.push_back({std::string(mode.name) + "_" + sizeName, mode.mode, size, mode.reasons});
    }
  }
  return out;
}

INSTANTIATE_TEST_SUITE_P(Modes, RelayLoopbackTest, ::testing::ValuesIn(loopbackCases()),
                         CaseName());

}  // namespace
}  // namespace tarnwick
