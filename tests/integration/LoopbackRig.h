#pragma once
// Test support for the relay on real loopback sockets: a daemon on a real Unix socket that keeps
// what the provider tells it, and a rig of the provider on the real runtime with real
// connections, the front door in one of its modes, and agents whose flows are one end of a socket
// connection (the other end is the agent's).

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

#include "DaemonServer.h"
#include "FrontDoorHarness.h"
#include "bridge/DaemonBridge.h"
#include "host/HostLoop.h"
#include "host/intake/SocketFlow.h"
#include "identity/AuditToken.h"
#include "platform/posix/Sockets.h"
#include "platform/testing/AcceptingTunnelHost.h"
#include "provider/TransparentProxyProvider.h"

namespace tarnwick {

using namespace std::chrono_literals;

inline constexpr const char* kLoopbackAgent = "/usr/bin/agent";

// A daemon on a real Unix socket in a fresh directory, serving on its own thread. Counts events
// by kind, and keeps the reason of every "relay.failopen", space-separated.
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

  // True once `count` events of `kind` have come (waiting up to `patience`).
  bool waitFor(const std::string& kind, std::size_t count, std::chrono::seconds patience = 10s) {
    std::unique_lock<std::mutex> lock(mutex_);
    return arrived_.wait_for(lock, patience, [&] { return counts_[kind] >= count; });
  }
  std::size_t count(const std::string& kind) {
    std::lock_guard<std::mutex> lock(mutex_);
    return counts_[kind];
  }
  // The fail-open reasons once a relay has closed, or what had come when patience ran out.
  std::string failOpenReasonsOnceClosed() {
    waitFor("relay.close", 1);
    std::lock_guard<std::mutex> lock(mutex_);
    return reasons_;
  }

 private:
  void add(std::string_view line) {
    const Json event = parseJsonDocument(line).value_or(Json::object());
    const std::string kind = event.value("kind", "");
    std::lock_guard<std::mutex> lock(mutex_);
    if (kind == "relay.failopen") reasons_ += " " + event.value("reason", "");
    ++counts_[kind];
    arrived_.notify_all();
  }

  char template_[16] = "/tmp/twi-XXXXXX";
  const std::string directory_ = ::mkdtemp(template_);
  std::unique_ptr<daemon::DaemonServer> server_;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::string reasons_;
  std::map<std::string, std::size_t> counts_;
};

// How a relay carries its bytes once it can no longer fail over.
enum class Carrying { Buffered, Spliced };

// The provider watching kLoopbackAgent, relaying through a front door in `mode`, with the short
// limits given.
class LoopbackRig {
 public:
  LoopbackRig(frontdoor::FrontDoorMode mode, RelayTiming timing,
              Carrying carrying = Carrying::Spliced)
      : frontDoor({.listen = {"127.0.0.1", 0}, .mode = mode, .ackDelaySeconds = 1.0}) {
    TransparentProxyProvider::Services services;
    services.runtime = realRuntime();
    services.connections = realConnectionFactory();
    if (carrying == Carrying::Spliced) services.splicer = realStreamSplicer();
    services.bridge = DaemonBridge::create(services.runtime, daemon.path());
    services.relayTiming = timing;
    provider = TransparentProxyProvider::create(std::move(services));
    provider->attachTunnelHost(tunnelHost_);
    provider->startProxy(Json{{"frontDoorPort", portOf(frontDoor.address())},
                              {"socketPath", daemon.path()},
                              {"watchedSigningIDs", {kLoopbackAgent}}},
                         nullptr);
  }
  ~LoopbackRig() {
    provider->stopProxy(NEProviderStopReason::UserInitiated, nullptr);
    loop_->stop();
  }

  // A watched agent's connection to 127.0.0.1:`port`, taken over by the provider: the agent's
  // end (non-blocking) of a loopback TCP connection whose other end becomes the flow, so that
  // resets and half-closes behave as a redirected connection's do.
  UniqueFd connect(std::uint16_t port) {
    std::string error;
    const UniqueFd listener = bindTcpSocket(*literalAddress("127.0.0.1", 0), error);
    EXPECT_EQ(::listen(listener.get(), 1), 0) << error;
    DialStart agent = startDial(*localAddress(listener.get()));
    pollfd accepted{listener.get(), POLLIN, 0};
    EXPECT_EQ(::poll(&accepted, 1, 5000), 1);
    UniqueFd flowSide(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    auto flow = host::SocketFlow::create(
        loop_, std::move(flowSide), NWHostEndpoint{"127.0.0.1", std::to_string(port)},
        NEFlowMetaData{kLoopbackAgent, auditTokenForPID(::getpid())}, framework_);
    EXPECT_TRUE(provider->handleNewFlow(flow));
    return std::move(agent.fd);
  }

  RunningDaemon daemon;
  frontdoor::RunningFrontDoor frontDoor;
  std::shared_ptr<TransparentProxyProvider> provider;

 private:
  std::shared_ptr<host::HostLoop> loop_ = std::make_shared<host::HostLoop>();
  std::shared_ptr<AcceptingTunnelHost> tunnelHost_ = std::make_shared<AcceptingTunnelHost>();
  std::shared_ptr<DispatchQueue> framework_ =
      realRuntime()->makeQueue("framework", QualityOfService::Default);
};

}  // namespace tarnwick
