// Events per second through the daemon bridge on the real runtime into a reader on a real Unix
// socket, plus the per-event costs on the bridge queue: framing a line and cutting daemon lines;
// and a daemon pushing policies faster than they are handled, with the memory that costs.

#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include "bridge/DaemonBridge.h"
#include "bridge/EventLine.h"
#include "bridge/LineBuffer.h"
#include "platform/Log.h"
#include "policy/EnforcementPolicy.h"

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

// The daemon's listening socket at `path`.
int listenUnix(const std::string& path) {
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  if (::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      ::listen(listener, 4) != 0) {
    std::abort();
  }
  return listener;
}

// The daemon's side: accepts one connection and counts the lines it reads, on its own thread.
class CountingReader {
 public:
  explicit CountingReader(const std::string& path) {
    listener_ = listenUnix(path);
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

// A kernel-reported figure of this process from /proc/self/status, in KiB.
long statusKiB(const std::string& key) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(key + ":")) return std::stol(line.substr(key.size() + 1));
  }
  return 0;
}

// A daemon that, once the bridge connects, pushes range(0) MiB of 64 KiB policy lines as fast as
// its socket takes them. Reports the bytes handled per second and how far this process's resident
// memory rose above where it stood (peak_rss_rise_MiB): bounded by the inbound limit, not by what
// the daemon pushes.
void BM_DaemonPushesFasterThanHandled(benchmark::State& state) {
  auto previousSink = setLogSink(std::make_shared<DiscardLogSink>());
  char dir[] = "/tmp/twb-bench-XXXXXX";
  if (!::mkdtemp(dir)) std::abort();
  const std::string path = std::string(dir) + "/ne.sock";
  const std::string line =
      R"({"kind":"policy.push","agents":{},"pad":")" + std::string(64 * 1024 - 48, 'p') + "\"}\n";
  const std::size_t lines = static_cast<std::size_t>(state.range(0)) * 16;
  double peakRise = 0;
  for (auto _ : state) {
    state.PauseTiming();
    const int listener = listenUnix(path);
    std::atomic<std::size_t> handled{0};
    DaemonBridge::Options options;
    options.policySink = [&](const Json& document) {
      EnforcementPolicy::shared().update(document);
      handled.fetch_add(1, std::memory_order_release);
    };
    std::ofstream("/proc/self/clear_refs") << "5";  // the peak starts from here
    const long before = statusKiB("VmRSS");
    state.ResumeTiming();
    auto bridge = DaemonBridge::create(realRuntime(), path, options);
    bridge->adoptPath(path, true);
    std::thread daemon([&] {
      const int connection = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
      for (std::size_t i = 0; i < lines && connection >= 0; ++i) {
        std::string_view rest = line;
        while (!rest.empty()) {
          const ssize_t n = ::send(connection, rest.data(), rest.size(), MSG_NOSIGNAL);
          if (n <= 0) break;
          rest.remove_prefix(static_cast<std::size_t>(n));
        }
      }
      if (connection >= 0) ::close(connection);
    });
    const bool done = waitUntil([&] { return handled.load(std::memory_order_acquire) == lines; });
    state.PauseTiming();
    daemon.join();
    bridge.reset();
    ::close(listener);
    ::unlink(path.c_str());
    peakRise = std::max(peakRise, (statusKiB("VmHWM") - before) / 1024.0);
    if (!done) state.SkipWithError("lines were lost");
    state.ResumeTiming();
  }
  ::rmdir(dir);
  setLogSink(previousSink);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * lines * line.size()));
  state.counters["peak_rss_rise_MiB"] = peakRise;
}
BENCHMARK(BM_DaemonPushesFasterThanHandled)
    ->Arg(256)
    ->Iterations(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

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
