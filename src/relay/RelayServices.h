#pragma once
// What every relay object of one engine reaches outside itself: where connections come from,
// the provider (weakly: every call is skipped once it is gone), the time limits, and the
// front-door probe through which every front-door failure reaches the circuit breaker. Shared,
// immutable, built once by the engine.

#include <memory>

#include "platform/Network.h"
#include "relay/FrontDoorProbe.h"
#include "relay/RelayContext.h"
#include "relay/RelayTiming.h"

namespace tarnwick {

struct RelayServices {
  std::shared_ptr<NWConnectionFactory> connections;
  std::weak_ptr<RelayContext> context;
  RelayTiming timing;
  std::shared_ptr<FrontDoorProbe> probe;
};

}  // namespace tarnwick
