// The front door alone on loopback: how fast it relays one busy connection, and how long a
// client waits from connect to acknowledgement. The relayed-path benchmarks compare against
// these figures.

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "FrontDoorBenchSupport.h"

namespace tarnwick::frontdoor {
namespace {

void BM_FrontDoorEchoThroughput(benchmark::State& state) {
  Destination echo(true);
  ServingFrontDoor frontDoor;
  const UniqueFd tunnel = openTunnel(frontDoor.address(), echo.port());
  const std::string chunk(static_cast<std::size_t>(state.range(0)), 'x');
  std::vector<char> buffer(256 * 1024);
  for (auto _ : state) {
    if (!echoRound(tunnel.get(), chunk, buffer)) state.SkipWithError("echo stalled");
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0) * 2);
}
BENCHMARK(BM_FrontDoorEchoThroughput)->Arg(64 * 1024)->Arg(1024 * 1024)->UseRealTime();

void BM_FrontDoorConnectToAck(benchmark::State& state) {
  Destination closer(false);
  ServingFrontDoor frontDoor;
  const SocketAddress address = frontDoor.address();
  for (auto _ : state) benchmark::DoNotOptimize(openTunnel(address, closer.port()).get());
}
BENCHMARK(BM_FrontDoorConnectToAck)->UseRealTime();

}  // namespace
}  // namespace tarnwick::frontdoor
