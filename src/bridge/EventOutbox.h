#pragma once
// Events on their way from the threads that make them (the lanes) to the bridge queue. Handing
// one over only appends it under the lock; the first event after a take is the one that asks its
// producer to schedule a drain, so a burst of events costs the bridge queue one wake-up and one
// write rather than one of each per event. At most kMaxEvents wait; past that, events are dropped
// at once and counted, and the count goes out with the next take.
//
// Any thread. mutex_ guards everything; nothing is called while it is held.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/Json.h"
#include "platform/Mutex.h"

namespace tarnwick {

class EventOutbox {
 public:
  static constexpr std::size_t kMaxEvents = 16384;

  enum class Admission {
    Dropped,
    Queued,
    // Queued, and nothing was waiting: the caller schedules the drain that takes it.
    QueuedFirst,
  };

  Admission push(Json event);
  // Swaps everything waiting, oldest first, into `into`, which must be empty (its storage is
  // kept for the next push), and returns how many events were dropped since the last take.
  std::int64_t take(std::vector<Json>& into);

 private:
  Mutex mutex_;
  std::vector<Json> events_ TW_GUARDED_BY(mutex_);
  std::int64_t dropped_ TW_GUARDED_BY(mutex_) = 0;
};

}  // namespace tarnwick
