#pragma once
// What every relay object of one engine reaches outside itself: where connections come from,
// what carries a relay's bytes once it can no longer fail over (absent: the relay itself), the
// provider (weakly: every call is skipped once it is gone), the time limits, and the
// front-door probe through which every front-door failure reaches the circuit breaker. Shared,
// immutable, built once by the engine.

#include <memory>

#include "platform/Network.h"
#include "platform/StreamSplicer.h"
#include "relay/FrontDoorProbe.h"
#include "relay/RelayContext.h"
#include "relay/RelayTiming.h"

namespace tarnwick {

struct RelayServices {
  std::shared_ptr<NWConnectionFactory> connections;
  std::weak_ptr<RelayContext> context;
  RelayTiming timing;
  std::shared_ptr<FrontDoorProbe> probe;
  std::shared_ptr<StreamSplicer> splicer;
};

}  // namespace tarnwick
