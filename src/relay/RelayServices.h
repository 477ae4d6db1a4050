#pragma once
// What every relay object of one engine reaches outside itself: where connections come from,
// the provider (weakly: every call is skipped once it is gone) and the time limits. Shared,
// immutable, built once by the engine.

#include <memory>

#include "platform/Network.h"
#include "relay/RelayContext.h"
#include "relay/RelayTiming.h"

namespace tarnwick {

struct RelayServices {
  std::shared_ptr<NWConnectionFactory> connections;
  std::weak_ptr<RelayContext> context;
  RelayTiming timing;
};

}  // namespace tarnwick
