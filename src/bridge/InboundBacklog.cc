#include "bridge/InboundBacklog.h"

#include <algorithm>

namespace tarnwick {

bool InboundBacklog::waitForRoom() {
  MutexLock lock(mutex_);
  room_.wait(mutex_,
             [this]() TW_NO_THREAD_SAFETY_ANALYSIS { return closed_ || waiting_ < kLimitBytes; });
  return !closed_;
}

void InboundBacklog::add(std::size_t bytes) {
  MutexLock lock(mutex_);
  waiting_ += bytes;
  peak_ = std::max(peak_, waiting_);
}

void InboundBacklog::release(std::size_t bytes) {
  {
    MutexLock lock(mutex_);
    waiting_ -= std::min(bytes, waiting_);
  }
  room_.notify_all();
}

void InboundBacklog::close() {
  {
    MutexLock lock(mutex_);
    closed_ = true;
  }
  room_.notify_all();
}

std::size_t InboundBacklog::peakBytes() const {
  MutexLock lock(mutex_);
  return peak_;
}

}  // namespace tarnwick
