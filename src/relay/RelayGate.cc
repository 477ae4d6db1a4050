#include "relay/RelayGate.h"

namespace tarnwick {

bool RelayGate::pending() const {
  MutexLock lock(mutex_);
  return !settled_;
}

bool RelayGate::claim() {
  MutexLock lock(mutex_);
  if (settled_) return false;
  settled_ = true;
  return true;
}

}  // namespace tarnwick
