// The whole relay on real loopback sockets: an agent whose flow is one end of a socket pair, the
// provider on the real runtime and real connections, the front door in each of its modes, an echo
// destination, and a real daemon socket receiving the events. Whatever the front door does, the
// agent's bytes reach the destination and come back exactly.

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "DaemonServer.h"
#include "FrontDoorHarness.h"
#include "bridge/DaemonBridge.h"
#include "host/HostLoop.h"
#include "host/intake/SocketFlow.h"
#include "identity/AuditToken.h"
#include "platform/testing/AcceptingTunnelHost.h"
#include "provider/TransparentProxyProvider.h"

namespace tarnwick {
namespace {

using namespace std::chrono_literals;
using frontdoor::FrontDoorMode;

constexpr const char* kAgent = "/usr/bin/agent";

// A daemon on a real Unix socket in a fresh directory, serving on its own thread. Keeps the
// reason of every "relay.failopen", space-separated, until a "relay.close" comes.
class RunningDaemon {
 public:
  RunningDaemon() {
    std::string error;
    server_ = daemon::DaemonServer::create(path(), std::nullopt,
                                           {[this](auto line) { add(line); }, [](auto) {}}, error);
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

  // The fail-open reasons once the relay has closed, or what had come when patience ran out.
  std::string failOpenReasonsOnceClosed() {
    std::unique_lock<std::mutex> lock(mutex_);
    arrived_.wait_for(lock, 10s, [&] { return closed_; });
    return reasons_;
  }

 private:
  void add(std::string_view line) {
    const Json event = parseJsonDocument(line).value_or(Json::object());
    std::lock_guard<std::mutex> lock(mutex_);
    if (event.value("kind", "") == "relay.failopen") reasons_ += " " + event.value("reason", "");
    closed_ = closed_ || event.value("kind", "") == "relay.close";
    arrived_.notify_all();
  }

  char template_[16] = "/tmp/twi-XXXXXX";
  const std::string directory_ = ::mkdtemp(template_);
  std::unique_ptr<daemon::DaemonServer> server_;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::string reasons_;
  bool closed_ = false;
};

struct LoopbackCase {
  std::string name;
  FrontDoorMode mode;
  std::size_t size;
  std::string reasons;  // each preceded by a space
};
void PrintTo(const LoopbackCase& c, std::ostream* os) { *os << c.name; }

// Sends the payload while reading the echo back, until all of it has come back, the stream ends
// or nothing moves for five seconds. The agent keeps its side open meanwhile: a relay ends as soon
// as the agent ends its stream, reply in flight or not.
std::string echoRoundTrip(int fd, std::string_view payload) {
  std::string received;
  std::vector<char> buffer(64 * 1024);
  for (std::size_t sent = 0; received.size() < payload.size();) {
    pollfd ready{fd, static_cast<short>(POLLIN | (sent < payload.size() ? POLLOUT : 0)), 0};
    if (::poll(&ready, 1, 5000) <= 0) break;
    if ((ready.revents & POLLOUT) != 0) {
      const ssize_t n =
          ::send(fd, payload.data() + sent, payload.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
      sent += static_cast<std::size_t>(std::max<ssize_t>(n, 0));
    }
    if ((ready.revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
    const ssize_t n = ::recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (n == 0 || (n < 0 && errno != EAGAIN)) break;
    received.append(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
  }
  return received;
}

class RelayLoopbackTest : public ::testing::TestWithParam<LoopbackCase> {
 protected:
  ~RelayLoopbackTest() override {
    if (provider_) provider_->stopProxy(NEProviderStopReason::UserInitiated, nullptr);
    loop_->stop();
  }

  RunningDaemon daemon_;
  frontdoor::EchoServer echo_;
  frontdoor::RunningFrontDoor frontDoor_{
      {.listen = {"127.0.0.1", 0}, .mode = GetParam().mode, .ackDelaySeconds = 1.0}};
  std::shared_ptr<host::HostLoop> loop_ = std::make_shared<host::HostLoop>();
  std::shared_ptr<AcceptingTunnelHost> tunnelHost_ = std::make_shared<AcceptingTunnelHost>();
  std::shared_ptr<TransparentProxyProvider> provider_;
};

TEST_P(RelayLoopbackTest, EchoesEveryByteAndReportsWhy) {
  TransparentProxyProvider::Services services;
  services.runtime = realRuntime();
  services.connections = realConnectionFactory();
  services.bridge = DaemonBridge::create(services.runtime, daemon_.path());
  // Short limits, so that the silent modes fail over in well under a second.
  services.relayTiming = {.handshakeTimeout = Seconds(0.5), .preCommitSilence = Seconds(0.5)};
  provider_ = TransparentProxyProvider::create(std::move(services));
  provider_->attachTunnelHost(tunnelHost_);
  provider_->startProxy(Json{{"frontDoorPort", portOf(frontDoor_.address())},
                             {"socketPath", daemon_.path()},
                             {"watchedSigningIDs", {kAgent}}},
                        nullptr);
  // The agent's end of a socket pair; the other end is the flow the provider takes over.
  int pair[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
  auto flow = host::SocketFlow::create(
      loop_, UniqueFd(pair[1]), NWHostEndpoint{"127.0.0.1", std::to_string(echo_.port())},
      NEFlowMetaData{kAgent, auditTokenForPID(::getpid())},
      realRuntime()->makeQueue("framework", QualityOfService::Default));
  ASSERT_TRUE(provider_->handleNewFlow(flow));

  std::string payload(GetParam().size, '\0');
  for (std::size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<char>(i * 31 + i / 251);
  // The agent's end closes once the echo is back, ending the relay.
  const std::string received = echoRoundTrip(UniqueFd(pair[0]).get(), payload);
  EXPECT_EQ(received.size(), payload.size());
  // Checksums, so that a failure reports two numbers rather than megabytes.
  EXPECT_EQ(std::hash<std::string>{}(received), std::hash<std::string>{}(payload));
  EXPECT_EQ(daemon_.failOpenReasonsOnceClosed(), GetParam().reasons);
}

std::vector<LoopbackCase> loopbackCases() {
  // Failing over after the session started replays what the agent sent, up to 128 KiB: an agent
  // that sent nothing has nothing to replay, and past 128 KiB there is no replay.
  const std::tuple<const char*, FrontDoorMode, const char*> modes[] = {
      {"Normal", FrontDoorMode::Normal, ""},
      {"Refuse", FrontDoorMode::Refuse, " relay-failed"},
      {"Silent", FrontDoorMode::Silent, " handshake-timeout"},
      {"Reject", FrontDoorMode::Reject, " no-ack"},
      {"Garbage", FrontDoorMode::Garbage, " no-ack"},
      {"SlowAck", FrontDoorMode::SlowAck, " handshake-timeout"},
      {"AckThenClose", FrontDoorMode::AckThenClose, " passthrough_dial passthrough_dial_spliced"},
      {"AckThenSilence", FrontDoorMode::AckThenSilence,
       " ack-then-silence passthrough_dial_spliced"},
  };
  std::vector<LoopbackCase> out;
  for (const auto& [mode, kind, reasons] : modes) {
    for (const std::size_t size : {0, 1, 100 << 10, 128 << 10, (128 << 10) + 1, 10 << 20}) {
      const bool afterCommit = std::string_view(reasons).ends_with("spliced");
      if (afterCommit && (size == 0 || size > 128 << 10)) continue;
      out.push_back({std::string(mode) + "_" + std::to_string(size) + "B", kind, size, reasons});
    }
  }
  return out;
}

INSTANTIATE_TEST_SUITE_P(Modes, RelayLoopbackTest, ::testing::ValuesIn(loopbackCases()),
                         CaseName());

}  // namespace
}  // namespace tarnwick
