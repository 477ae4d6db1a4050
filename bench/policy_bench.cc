// ClientHello parsing on hellos recorded from real clients, policy decisions against growing
// pattern lists, and watch-set lookups. Heap allocations are counted through a replaced
// operator new: a parse may allocate only for the texts and the list it returns.

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <new>
#include <string>

#include "identity/WatchGate.h"
#include "platform/Bytes.h"
#include "platform/Json.h"
#include "policy/EnforcementPolicy.h"
#include "policy/SNIParser.h"

namespace {
std::atomic<std::int64_t> allocations{0};
}  // namespace

// GCC pairs the replaced operator delete with the library's operator new when it inlines, and
// warns that free() meets memory from new; here both sides are malloc and free.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

void* operator new(std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace tarnwick {
namespace {

Bytes recordedHello(const std::string& name) {
  const auto path =
      std::filesystem::path(TARNWICK_SOURCE_DIR) / "tests" / "policy" / "hellos" / (name + ".bin");
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

// Heap blocks a result owns: its list, and each text too long for the in-place buffer.
std::int64_t ownedBlocks(const SNIParseResult& result) {
  const auto heap = [](const std::string& text) { return text.size() > std::string().capacity(); };
  std::int64_t blocks = result.alpn.empty() ? 0 : 1;
  if (result.serverName && heap(*result.serverName)) ++blocks;
  for (const auto& protocol : result.alpn) blocks += heap(protocol) ? 1 : 0;
  return blocks;
}

void parseHello(benchmark::State& state, const std::string& name) {
  const Bytes hello = recordedHello(name);
  const SNIParseResult sample = SNIParser::parse(hello);
  if (!sample.serverName) state.SkipWithError("recorded hello missing or unreadable");
  const std::int64_t before = allocations.load();
  for (auto _ : state) benchmark::DoNotOptimize(SNIParser::parse(hello));
  const double perParse =
      static_cast<double>(allocations.load() - before) / static_cast<double>(state.iterations());
  state.counters["bytes"] = static_cast<double>(hello.size());
  state.counters["allocs_per_parse"] = perParse;
  state.counters["returned_blocks"] = static_cast<double>(ownedBlocks(sample));
  if (perParse > static_cast<double>(ownedBlocks(sample))) {
    state.SkipWithError("parse allocated beyond its returned texts");
  }
}

void BM_ParseHello247Bytes(benchmark::State& state) { parseHello(state, "openssl_tls13"); }
// A resumed TLS 1.3 hello with a large key share and the names of five certificate authorities.
void BM_ParseHello2097Bytes(benchmark::State& state) { parseHello(state, "openssl_resumed_cas"); }
// 1971 bytes offering a 200-character host name and 30 protocols: the cost of the returned texts.
void BM_ParseHelloThirtyProtocols(benchmark::State& state) {
  parseHello(state, "openssl_resumed_large");
}
BENCHMARK(BM_ParseHello247Bytes);
BENCHMARK(BM_ParseHello2097Bytes);
BENCHMARK(BM_ParseHelloThirtyProtocols);

// An agent allow-list of N one-label wildcards and a global deny list of N hosts, none of which
// the host matches, so every pattern is tried: the slowest decision at that size.
void BM_DecideScansAllPatterns(benchmark::State& state) {
  Json allow = Json::array();
  Json deny = Json::array();
  for (std::int64_t i = 0; i < state.range(0); ++i) {
    allow.push_back("*.service" + std::to_string(i) + ".example.com");
    deny.push_back("blocked" + std::to_string(i) + ".example.net");
  }
  EnforcementPolicy policy;
  policy.update(
      Json{{"deny", deny},
           {"agents",
            {{"/usr/bin/agent", {{"mode", "enforce"}, {"restrict", "allow"}, {"allow", allow}}}}}});
  for (auto _ : state) {
    benchmark::DoNotOptimize(policy.decide(4242, "/usr/bin/agent", "api.Elsewhere.example.org"));
  }
  state.counters["patterns"] = static_cast<double>(2 * state.range(0));
}
BENCHMARK(BM_DecideScansAllPatterns)->Arg(1)->Arg(100)->Arg(1000);

void BM_WatchGateIsWatched(benchmark::State& state) {
  WatchGate gate;
  WatchGate::SigningSet signing;
  WatchGate::PidSet pids;
  for (int i = 0; i < 100; ++i) {
    signing.insert("/usr/lib/agent/bin/helper-" + std::to_string(i));
    pids.insert(1000 + i);
  }
  gate.update(std::move(signing), std::move(pids));
  const bool hit = state.range(0) != 0;
  const std::string signingID = hit ? "/usr/lib/agent/bin/helper-57" : "/usr/bin/unwatched-tool";
  for (auto _ : state) benchmark::DoNotOptimize(gate.isWatched(signingID, hit ? 1057 : 77));
}
BENCHMARK(BM_WatchGateIsWatched)->ArgName("hit")->Arg(0)->Arg(1);

}  // namespace
}  // namespace tarnwick
