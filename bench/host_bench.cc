// The Linux host's costs: throughput and connect-to-answer latency of handed-back connections
// against direct ones on loopback, identification of a connection's process, and the heap an
// idle flow keeps.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "host/handback/HandBackCarrier.h"
#include "host/intake/SocketFlow.h"
#include "host/owner/FlowIdentifier.h"
#include "platform/ThreadQueue.h"
#include "platform/posix/Sockets.h"

namespace tarnwick::host {
namespace {

UniqueFd listenOnLoopback() {
  std::string error;
  UniqueFd fd = bindTcpSocket(*literalAddress("127.0.0.1", 0), error);
  ::listen(fd.get(), 512);
  ::fcntl(fd.get(), F_SETFL, 0);  // blocking accepts
  return fd;
}

UniqueFd dial(const SocketAddress& address) {
  UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ::connect(fd.get(), address.get(), address.length);
  setNoDelay(fd.get());
  return fd;
}

// A destination that answers each connection's every byte-sized request with one byte, or, for
// bulk transfers, reads to the end and then closes.
class Destination {
 public:
  Destination() : listener_(listenOnLoopback()), thread_([this] { serve(); }) {}
  ~Destination() {
    ::shutdown(listener_.get(), SHUT_RDWR);
    thread_.join();
  }
  SocketAddress address() const { return *localAddress(listener_.get()); }

 private:
  void serve() {
    for (;;) {
      UniqueFd client(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!client) return;
      setNoDelay(client.get());
      std::vector<char> buffer(256 * 1024);
      while (true) {
        const ssize_t got = ::recv(client.get(), buffer.data(), buffer.size(), 0);
        if (got <= 0) break;
        if (got == 1) ::send(client.get(), "!", 1, MSG_NOSIGNAL);
      }
    }
  }

  UniqueFd listener_;
  std::thread thread_;
};

// Where the bench's clients connect: directly to the destination, or to a listener whose
// connections the carrier hands on, as the host does for a flow the provider hands back.
class Path {
 public:
  explicit Path(bool handBack) : hand_back_(handBack) {}
  ~Path() { loop_->stop(); }

  UniqueFd connect() {
    if (!hand_back_) return dial(destination_.address());
    UniqueFd client = dial(*localAddress(listener_.get()));
    UniqueFd accepted(::accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    carrier_->carry(std::move(accepted), destination_.address());
    return client;
  }

 private:
  const bool hand_back_;
  Destination destination_;
  UniqueFd listener_ = listenOnLoopback();
  std::shared_ptr<HostLoop> loop_ = std::make_shared<HostLoop>();
  std::shared_ptr<HandBackCarrier> carrier_ =
      std::make_shared<HandBackCarrier>(loop_, HandBackRelay::DialOptions{});
};

// 64 MiB per connection; state.range(0): 0 direct, 1 handed back.
void BM_BulkTransfer(benchmark::State& state) {
  Path path(state.range(0) == 1);
  const std::vector<char> chunk(1 << 20, 'x');
  constexpr int kChunks = 64;
  for (auto _ : state) {
    UniqueFd client = path.connect();
    for (int i = 0; i < kChunks; ++i) {
      for (std::size_t sent = 0; sent < chunk.size();) {
        const ssize_t n = ::send(client.get(), chunk.data() + sent, chunk.size() - sent, 0);
        if (n <= 0) return state.SkipWithError("send failed");
        sent += static_cast<std::size_t>(n);
      }
    }
    ::shutdown(client.get(), SHUT_WR);
    char end;
    ::recv(client.get(), &end, 1, 0);  // the destination's close, after it read everything
  }
  state.SetBytesProcessed(state.iterations() * kChunks * static_cast<std::int64_t>(chunk.size()));
}
BENCHMARK(BM_BulkTransfer)->Arg(0)->Arg(1)->MeasureProcessCPUTime()->UseRealTime();

// A new connection, a one-byte request and its one-byte answer.
void BM_ConnectAndRequest(benchmark::State& state) {
  Path path(state.range(0) == 1);
  for (auto _ : state) {
    UniqueFd client = path.connect();
    ::send(client.get(), "?", 1, 0);
    char answer;
    if (::recv(client.get(), &answer, 1, 0) != 1) return state.SkipWithError("no answer");
  }
}
BENCHMARK(BM_ConnectAndRequest)->Arg(0)->Arg(1)->UseRealTime();

// The process behind a connection: sock_diag, the owner map, the audit token and executable.
// state.range(0): 0 the socket is cached; 1 a new map walks /proc; 2 a new connection of a
// process that owned the previous one.
void BM_IdentifyConnection(benchmark::State& state) {
  Destination destination;
  UniqueFd client = dial(destination.address());
  auto identifier = std::make_unique<FlowIdentifier>();
  identifier->identify(*localAddress(client.get()), destination.address());
  for (auto _ : state) {
    if (state.range(0) != 0) {
      state.PauseTiming();
      if (state.range(0) == 1) identifier = std::make_unique<FlowIdentifier>();
      if (state.range(0) == 2) client = dial(destination.address());
      state.ResumeTiming();
    }
    benchmark::DoNotOptimize(
        identifier->identify(*localAddress(client.get()), destination.address()));
  }
}
BENCHMARK(BM_IdentifyConnection)->Arg(0)->Arg(1)->Arg(2);

// Heap held per idle flow that waits in a read: 1,000 flows over loopback socket pairs.
void BM_IdleFlowHeap(benchmark::State& state) {
  constexpr int kFlows = 1000;
  auto loop = std::make_shared<HostLoop>();
  auto framework = std::make_shared<ThreadQueue>("framework", QualityOfService::Default);
  for (auto _ : state) {
    std::vector<UniqueFd> peers;
    std::vector<UniqueFd> sockets;
    for (int i = 0; i < kFlows; ++i) {
      int pair[2];
      ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair);
      peers.emplace_back(pair[0]);
      sockets.emplace_back(pair[1]);
    }
    const auto before = mallinfo2().uordblks;
    std::vector<std::shared_ptr<SocketFlow>> flows;
    for (auto& socket : sockets) {
      auto flow = SocketFlow::create(loop, std::move(socket), {"198.18.0.1", "443"}, {}, framework);
      flow->open(std::nullopt, [](std::optional<NEError>) {});
      flow->readData([](std::optional<Bytes>, std::optional<NEError>) {});
      flows.push_back(std::move(flow));
    }
    const auto after = mallinfo2().uordblks;
    state.counters["heap_bytes_per_flow"] =
        static_cast<double>(after - before) / static_cast<double>(kFlows);
    for (auto& flow : flows) flow->closeReadWithError(std::nullopt);
  }
  loop->stop();
}
BENCHMARK(BM_IdleFlowHeap)->Iterations(3);

}  // namespace
}  // namespace tarnwick::host
