#include <benchmark/benchmark.h>

#include "relay/AckReader.h"
#include "relay/FrontDoorPreamble.h"

namespace tarnwick {
namespace {

// One preamble per dial attempt: an IPv6 destination with all three identity headers.
void BM_MakePreamble(benchmark::State& state) {
  const FlowTarget target{"2001:db8::1", "443"};
  for (auto _ : state) {
    benchmark::DoNotOptimize(makePreamble(target, 4242, "/usr/bin/agent", "9f3c0a1b2c3d4e5f"));
  }
}
BENCHMARK(BM_MakePreamble);

// The front door's acknowledgement, delivered in `state.range(0)`-byte receives.
void BM_ReadAcknowledgement(benchmark::State& state) {
  const Bytes ack = bytesOf("HTTP/1.1 200 Connection established\r\nVia: front-door\r\n\r\n");
  const auto chunk = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    AckScanner scanner;
    auto verdict = AckScanner::Verdict::NeedMore;
    for (std::size_t at = 0; at < ack.size() && verdict == AckScanner::Verdict::NeedMore;
         at += chunk) {
      const auto end = ack.begin() + static_cast<long>(std::min(ack.size(), at + chunk));
      verdict = scanner.append(Bytes(ack.begin() + static_cast<long>(at), end));
    }
    benchmark::DoNotOptimize(verdict);
  }
}
BENCHMARK(BM_ReadAcknowledgement)->Arg(1)->Arg(1024);

}  // namespace
}  // namespace tarnwick
