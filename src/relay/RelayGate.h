#pragma once
// The one-shot latch of a front-door handshake: the hand-off to a session and every fail-open
// path race to claim it, and only the first claim acts. Any thread.

#include "platform/Mutex.h"

namespace tarnwick {

class RelayGate {
 public:
  // True until the gate is claimed; changes nothing.
  bool pending() const;
  // True for exactly one call in the life of the gate.
  bool claim();

 private:
  mutable Mutex mutex_;
  bool settled_ TW_GUARDED_BY(mutex_) = false;
};

}  // namespace tarnwick
