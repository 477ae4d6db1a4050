#include <benchmark/benchmark.h>

#include "provider/TraceID.h"

namespace tarnwick {
namespace {

void BM_TraceIDMint(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(TraceID::mint());
}
BENCHMARK(BM_TraceIDMint);

}  // namespace
}  // namespace tarnwick
