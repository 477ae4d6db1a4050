#pragma once
// The bytes read from the daemon that wait on the bridge queue to be cut into lines and handled.
// The read loop stops reading while about kLimitBytes wait, so a daemon that pushes faster than
// the bridge handles its lines is held back by its own socket (its sends block) instead of
// growing this process's memory.
//
// One per connection, shared by its read loop and the work that loop hands to the bridge queue.
// Every method: any thread.

#include <condition_variable>
#include <cstddef>

#include "platform/Mutex.h"

namespace tarnwick {

class InboundBacklog {
 public:
  static constexpr std::size_t kLimitBytes = 1 << 20;

  // Blocks while kLimitBytes or more wait. False once closed: the read loop ends.
  bool waitForRoom();
  void add(std::size_t bytes);
  // `bytes` have been handled (or dropped with the bridge).
  void release(std::size_t bytes);
  // Ends every wait, now and later.
  void close();
  // The most bytes that ever waited at once.
  std::size_t peakBytes() const;

 private:
  mutable Mutex mutex_;
  std::condition_variable_any room_;
  std::size_t waiting_ TW_GUARDED_BY(mutex_) = 0;
  std::size_t peak_ TW_GUARDED_BY(mutex_) = 0;
  bool closed_ TW_GUARDED_BY(mutex_) = false;
};

}  // namespace tarnwick
