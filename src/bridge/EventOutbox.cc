#include "bridge/EventOutbox.h"

#include <cassert>
#include <utility>

namespace tarnwick {

EventOutbox::Admission EventOutbox::push(Json event) {
  MutexLock lock(mutex_);
  if (events_.size() >= kMaxEvents) {
    ++dropped_;
    return Admission::Dropped;
  }
  events_.push_back(std::move(event));
  return events_.size() == 1 ? Admission::QueuedFirst : Admission::Queued;
}

std::int64_t EventOutbox::take(std::vector<Json>& into) {
  assert(into.empty());
  MutexLock lock(mutex_);
  events_.swap(into);
  return std::exchange(dropped_, 0);
}

}  // namespace tarnwick
