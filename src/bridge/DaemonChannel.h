#pragma once
// What the provider needs of the daemon bridge. DaemonBridge is the real one; provider tests use
// a recording double. Every call returns at once from any thread; failures stay inside.

#include <string>

#include "platform/Json.h"

namespace tarnwick {

class DaemonChannel {
 public:
  virtual ~DaemonChannel() = default;
  // Use `path` for the daemon socket; `real` when it came from configuration.
  virtual void adoptPath(std::string path, bool real) = 0;
  // One event, written as one compact JSON line.
  virtual void send(Json event) = 0;
  // A committed relay was severed; counted when the daemon is unreachable.
  virtual void recordCommittedSeverIfUnhealthy() = 0;
};

}  // namespace tarnwick
