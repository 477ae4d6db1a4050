#pragma once
// The flows the provider took over, held weakly: a flow lives exactly as long as the provider
// (its relay, its direct dial) keeps it. The host counts them for its status and, when it stops,
// aborts those still alive, so no relay outlives the interceptor's stop.
//
// Any thread. mutex_ guards the list and is never held while a flow is called.

#include <cstddef>
#include <memory>
#include <vector>

#include "host/intake/SocketFlow.h"
#include "platform/Mutex.h"

namespace tarnwick::host {

class TakenFlows {
 public:
  void add(const std::shared_ptr<SocketFlow>& flow);
  // How many taken flows are still alive.
  std::size_t liveCount() const;
  // Aborts every flow still alive; returns how many there were. They stay counted until their
  // carriers let go of them.
  std::size_t abortAll();

 private:
  // Drops the flows that have gone, so the list stays as long as the live ones.
  void pruneLockHeld() TW_REQUIRES(mutex_);

  mutable Mutex mutex_;
  std::vector<std::weak_ptr<SocketFlow>> flows_ TW_GUARDED_BY(mutex_);
  // The list is pruned whenever it has doubled since the last time.
  std::size_t prune_at_ TW_GUARDED_BY(mutex_) = 64;
};

}  // namespace tarnwick::host
