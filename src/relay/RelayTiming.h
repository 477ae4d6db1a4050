#pragma once
// The relay engine's time limits and its replay cap. The defaults are the system's constants;
// tests and benchmarks may shorten them.

#include <cstdint>

#include "platform/Clock.h"

namespace tarnwick {

struct RelayTiming {
  // The whole front-door handshake: both dial attempts, the preamble and the acknowledgement.
  Seconds handshakeTimeout{2.5};
  // How long after a session starts the front door may stay silent before the session fails
  // over to the real destination.
  Seconds preCommitSilence{20.0};
  // Idle time in both directions after which a committed session is ended.
  Seconds postCommitIdle{300.0};
  // How long the front door has to answer a liveness probe with a status line.
  Seconds probeTimeout{1.0};
  // Largest replay buffer; one byte more and the session can no longer fail over.
  std::int64_t replayCap = 131072;
};

}  // namespace tarnwick
