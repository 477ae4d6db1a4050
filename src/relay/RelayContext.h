#pragma once
// What the relay engine needs from the provider that owns it. The provider implements this; the
// engine and its sessions hold it weakly and skip these calls once it is gone.

#include <cstdint>
#include <memory>

#include "platform/Json.h"

namespace tarnwick {

class RelaySession;

class RelayContext {
 public:
  virtual ~RelayContext() = default;

  // The front-door circuit breaker, each under the provider's circuit lock.
  virtual void circuitRecordFailure() = 0;
  virtual void circuitRecordSuccess() = 0;

  // The provider's table of live sessions: the only strong reference a running session has.
  virtual void retainSession(const std::shared_ptr<RelaySession>& session) = 0;
  virtual void releaseSession(const RelaySession* session) = 0;

  // Wall-clock nanoseconds since the Unix epoch, the "ts" of every event.
  virtual std::int64_t currentTimestampNs() const = 0;

  // The daemon bridge: one event, and the sever accounting of a committed relay.
  virtual void sendEvent(Json event) = 0;
  virtual void recordCommittedSeverIfUnhealthy() = 0;
};

}  // namespace tarnwick
