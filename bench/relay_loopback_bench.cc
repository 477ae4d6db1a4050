// One relayed flow through the provider and the front door against the same work through the
// front door alone, in one run on loopback: echo throughput, connect-to-first-byte latency
// (p50 and p99 as counters), and heap per idle committed session with 1,000 sessions open.
// The agent's flow is one end of a socket pair carried by the host's socket-backed flow.

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "FrontDoorBenchSupport.h"
#include "host/HostLoop.h"
#include "host/intake/SocketFlow.h"
#include "identity/AuditToken.h"
#include "platform/Log.h"
#include "platform/testing/AcceptingTunnelHost.h"
#include "provider/TransparentProxyProvider.h"

namespace tarnwick {
namespace {

using frontdoor::Destination;
using frontdoor::openTunnel;
using frontdoor::ServingFrontDoor;
using Clock = std::chrono::steady_clock;

constexpr int kIdleSessions = 1000;
constexpr const char* kAgent = "/usr/bin/agent";

class DiscardingBridge : public DaemonChannel {
 public:
  void adoptPath(std::string, bool) override {}
  void send(Json) override {}
  void recordCommittedSeverIfUnhealthy() override {}
};

class SilentLog : public LogSink {
 public:
  void write(const LogRecord&) override {}
};
// One log line per relayed flow would cost more than the relay itself.
const auto kSilenced = setLogSink(std::make_shared<SilentLog>());

// A provider on the real runtime relaying agent flows to `destinationPort` through the front
// door.
class RelayingProvider {
 public:
  RelayingProvider(const ServingFrontDoor& frontDoor, std::uint16_t destinationPort)
      : destination_port_(destinationPort) {
    TransparentProxyProvider::Services services;
    services.runtime = realRuntime();
    services.connections = realConnectionFactory();
    services.splicer = realStreamSplicer();
    services.bridge = std::make_shared<DiscardingBridge>();
    provider_ = TransparentProxyProvider::create(std::move(services));
    provider_->attachTunnelHost(tunnel_host_);
    provider_->startProxy(
        Json{{"frontDoorPort", portOf(frontDoor.address())}, {"watchedSigningIDs", {kAgent}}},
        nullptr);
    meta_.sourceAppSigningIdentifier = kAgent;
    meta_.sourceAppAuditToken = auditTokenForPID(::getpid());
  }
  ~RelayingProvider() {
    provider_->stopProxy(NEProviderStopReason::UserInitiated, nullptr);
    loop_->stop();
  }

  // The agent's end of a new relayed flow, offered on the loop's lane as the host's intake
  // offers it: the flow's framework queue, its relay and its connections share that lane. As
  // with a redirected connect(), the agent may write at once, before the offer has run.
  UniqueFd open() {
    int pair[2];
    ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair);
    loop_->post([this, fd = pair[1]] {
      auto flow = host::SocketFlow::create(
          loop_, UniqueFd(fd), NWHostEndpoint{"127.0.0.1", std::to_string(destination_port_)},
          meta_, realRuntime()->makeQueue("framework", QualityOfService::Default));
      provider_->handleNewFlow(flow);
    });
    return UniqueFd(pair[0]);
  }

 private:
  const std::uint16_t destination_port_;
  std::shared_ptr<host::HostLoop> loop_ = std::make_shared<host::HostLoop>();
  std::shared_ptr<AcceptingTunnelHost> tunnel_host_ = std::make_shared<AcceptingTunnelHost>();
  std::shared_ptr<TransparentProxyProvider> provider_;
  NEFlowMetaData meta_;
};

// Echo throughput on one connection: relayed (arg 1) or through the front door alone (arg 0).
void BM_EchoThroughput(benchmark::State& state) {
  Destination echo(true);
  ServingFrontDoor frontDoor;
  RelayingProvider provider(frontDoor, echo.port());
  const bool relayed = state.range(1) != 0;
  const UniqueFd fd = relayed ? provider.open() : openTunnel(frontDoor.address(), echo.port());
  const std::string chunk(static_cast<std::size_t>(state.range(0)), 'x');
  std::vector<char> buffer(256 * 1024);
  for (auto _ : state) {
    if (!frontdoor::echoRound(fd.get(), chunk, buffer)) state.SkipWithError("echo stalled");
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0) * 2);
  state.SetLabel(relayed ? "relayed" : "front door alone");
}
BENCHMARK(BM_EchoThroughput)
    ->ArgsProduct({{1024 * 1024}, {0, 1}})
    ->ArgNames({"chunk", "relayed"})
    ->MeasureProcessCPUTime()
    ->UseRealTime();

double percentile(std::vector<double> samples, double p) {
  if (samples.empty()) return 0;
  std::sort(samples.begin(), samples.end());
  return samples[static_cast<std::size_t>(p * static_cast<double>(samples.size() - 1))];
}

// From a new connection to the first echoed byte: relayed (arg 1) or through the front door
// alone (arg 0), where the client makes the CONNECT itself.
void BM_ConnectToFirstByte(benchmark::State& state) {
  Destination echo(true);
  ServingFrontDoor frontDoor;
  RelayingProvider provider(frontDoor, echo.port());
  const bool relayed = state.range(0) != 0;
  const std::string one = "x";
  std::vector<char> buffer(16);
  std::vector<double> micros;
  for (auto _ : state) {
    const auto start = Clock::now();
    UniqueFd fd = relayed ? provider.open() : openTunnel(frontDoor.address(), echo.port());
    if (!frontdoor::echoRound(fd.get(), one, buffer)) state.SkipWithError("echo stalled");
    micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  state.counters["p50_us"] = percentile(micros, 0.50);
  state.counters["p99_us"] = percentile(micros, 0.99);
  state.SetLabel(relayed ? "relayed" : "front door alone");
}
BENCHMARK(BM_ConnectToFirstByte)->Arg(0)->Arg(1)->ArgName("relayed")->UseRealTime();

void raiseDescriptorLimit() {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

// Heap in use per idle connection with 1,000 of them open after one echo each: relayed
// sessions (arg 1) or front-door tunnels alone (arg 0). The difference between the two is what
// the provider, the relay engine and the host's flows cost per idle session. Counted at once
// ("heap_bytes_per_session") and once the handshake budget has run out ("..._settled"): until
// then each relay's budget timer keeps its handshake's objects.
void BM_HeapPerIdleSession(benchmark::State& state) {
  raiseDescriptorLimit();
  Destination echo(true);
  ServingFrontDoor frontDoor;
  RelayingProvider provider(frontDoor, echo.port());
  const bool relayed = state.range(0) != 0;
  std::vector<char> buffer(16);
  double perSession = 0;
  double settled = 0;
  for (auto _ : state) {
    std::vector<UniqueFd> open;
    open.reserve(kIdleSessions);
    const auto before = static_cast<double>(mallinfo2().uordblks);
    for (int i = 0; i < kIdleSessions; ++i) {
      open.push_back(relayed ? provider.open() : openTunnel(frontDoor.address(), echo.port()));
      if (!frontdoor::echoRound(open.back().get(), "x", buffer)) state.SkipWithError("stalled");
    }
    perSession = (static_cast<double>(mallinfo2().uordblks) - before) / kIdleSessions;
    std::this_thread::sleep_for(toDuration(TransparentProxyProvider::relayHandshakeTimeout) +
                                std::chrono::milliseconds(500));
    settled = (static_cast<double>(mallinfo2().uordblks) - before) / kIdleSessions;
  }
  state.counters["heap_bytes_per_session"] = perSession;
  state.counters["heap_bytes_per_session_settled"] = settled;
  state.SetLabel(relayed ? "relayed" : "front door alone");
}
BENCHMARK(BM_HeapPerIdleSession)->Arg(0)->Arg(1)->ArgName("relayed")->Iterations(1)->UseRealTime();

}  // namespace
}  // namespace tarnwick
