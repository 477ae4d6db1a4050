#include "platform/DetachedSocket.h"

#include <utility>

namespace tarnwick {

void AbortLatch::arm(Work onAbort) {
  {
    MutexLock lock(mutex_);
    if (!fired_) {
      onAbort_ = std::move(onAbort);
      return;
    }
  }
  onAbort();
}

void AbortLatch::fire() {
  Work onAbort;
  {
    MutexLock lock(mutex_);
    if (fired_) return;
    fired_ = true;
    onAbort = std::exchange(onAbort_, nullptr);
  }
  if (onAbort) onAbort();
}

}  // namespace tarnwick
