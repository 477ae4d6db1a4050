// The watch-set message decoder over arbitrary bytes, and a gate filled from its result.

#include <cstdint>
#include <cstdlib>

#include "identity/WatchGate.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto decoded = tarnwick::WatchGate::decode(tarnwick::Bytes(data, data + size));
  if (!decoded) return 0;
  auto& [signing, pids] = *decoded;
  if (signing.contains("")) std::abort();  // the decoders drop empty identifiers
  const auto signingCount = static_cast<std::int64_t>(signing.size());
  const auto pidCount = static_cast<std::int64_t>(pids.size());
  const bool anyPid = !pids.empty();
  const std::int64_t somePid = anyPid ? *pids.begin() : 0;
  tarnwick::WatchGate gate;
  gate.update(std::move(signing), std::move(pids));
  if (gate.signingCount() != signingCount || gate.pidCount() != pidCount) std::abort();
  if (anyPid && somePid != 0 && !gate.isWatched("", somePid)) std::abort();
  if (gate.isWatched("", 0)) std::abort();
  return 0;
}
