// Events per second through the daemon bridge on the real runtime into a reader on a real Unix
// socket, plus the per-event costs on the bridge queue: framing a line and cutting daemon lines.

#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "bridge/DaemonBridge.h"
#include "bridge/EventLine.h"
#include "bridge/LineBuffer.h"
#include "platform/Log.h"

namespace tarnwick {
namespace {

Json relayOpenEvent() {
  return {{"kind", "relay.open"},           {"pid", 48213},     {"signing_id", "/usr/bin/curl"},
          {"dest_host", "api.example.com"}, {"dest_port", 443}, {"trace", "9f2c4e6a1b3d5f70"},
          {"ts", 1767225600123456789LL}};
}

class DiscardLogSink : public LogSink {
 public:
  void write(const LogRecord&) override {}
};

// The daemon's side: accepts one connection and counts the lines it reads, on its own thread.
class CountingReader {
 public:
  explicit CountingReader(const std::string& path) {
    listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    if (::bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(listener_, 4) != 0) {
      std::abort();
    }
    thread_ = std::thread([this] { run(); });
  }
  ~CountingReader() {
    ::shutdown(listener_, SHUT_RDWR);
    if (const int connection = connection_.load(); connection >= 0) {
      ::shutdown(connection, SHUT_RDWR);
    }
    thread_.join();
    ::close(listener_);
  }
  std::uint64_t lines() const { return lines_.load(std::memory_order_acquire); }
  bool connected() const { return connection_.load() >= 0; }

 private:
  void run() {
    const int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) return;
    connection_ = connection;
    std::string chunk(1 << 16, '\0');
    for (;;) {
      const ssize_t n = ::recv(connection, chunk.data(), chunk.size(), 0);
      if (n <= 0) break;
      const auto feeds = std::count(chunk.data(), chunk.data() + n, '\n');
      lines_.fetch_add(static_cast<std::uint64_t>(feeds), std::memory_order_release);
    }
    ::close(connection);
  }

  int listener_ = -1;
  std::atomic<int> connection_{-1};
  std::atomic<std::uint64_t> lines_{0};
  std::thread thread_;
};

// Polls at a fine step rather than spinning: with two cores, a spinning waiter would take a
// core from the bridge queue or the reader it is waiting for.
bool waitUntil(const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  return true;
}

// range(0): 0 for the beacon's two-key event, 1 for a seven-key relay event. Each batch of
// 10000 events is timed from the first send until the reader has counted every line.
void BM_BridgeEventsToDaemon(benchmark::State& state) {
  constexpr std::uint64_t batch = 10000;
  auto previousSink = setLogSink(std::make_shared<DiscardLogSink>());
  char dir[] = "/tmp/twb-bench-XXXXXX";
  if (!::mkdtemp(dir)) std::abort();
  const std::string path = std::string(dir) + "/ne.sock";
  {
    CountingReader reader(path);
    auto bridge = DaemonBridge::create(realRuntime(), path);
    bridge->adoptPath(path, true);
    if (!waitUntil([&] { return reader.connected(); })) state.SkipWithError("no connection");
    const Json event = state.range(0) == 0
                           ? Json{{"kind", "proxyext.alive"}, {"ts", 1767225600123456789LL}}
                           : relayOpenEvent();
    std::uint64_t sent = 0;
    for (auto _ : state) {
      for (std::uint64_t i = 0; i < batch; ++i) bridge->send(event);
      sent += batch;
      if (!waitUntil([&] { return reader.lines() >= sent; })) {
        state.SkipWithError("events were dropped");
        break;
      }
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(sent));
  }
  ::unlink(path.c_str());
  ::rmdir(dir);
  setLogSink(previousSink);
}
BENCHMARK(BM_BridgeEventsToDaemon)->Arg(0)->Arg(1)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_EventLineFrame(benchmark::State& state) {
  const Json event = relayOpenEvent();
  for (auto _ : state) benchmark::DoNotOptimize(EventLine::frame(event));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_EventLineFrame);

void BM_LineBufferCut(benchmark::State& state) {
  std::string chunk;
  while (chunk.size() + 64 < 4096)
    chunk += R"({"kind":"policy.push","version":1,"deny":[]})"
             "\n";
  const std::span bytes(reinterpret_cast<const std::uint8_t*>(chunk.data()), chunk.size());
  LineBuffer buffer;
  std::size_t lines = 0;
  for (auto _ : state) buffer.append(bytes, [&](std::string_view) { ++lines; });
  benchmark::DoNotOptimize(lines);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * chunk.size()));
}
BENCHMARK(BM_LineBufferCut);

}  // namespace
}  // namespace tarnwick
