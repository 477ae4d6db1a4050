#pragma once
// The real back end's timer source: a steady_timer whose handler runs on its queue's strand.
// Created suspended; schedule() sets (or replaces) the deadline and resume() arms it once. A
// repeating timer keeps its deadlines on the grid of its first one; periods missed while the
// queue was busy are coalesced into one firing. The leeway is accepted and not used: firing on
// time is within any leeway.
//
// A schedule that only moves the deadline later (a watchdog kicked on every chunk of a busy
// flow) leaves the pending wait alone: when that wait ends before the deadline, it waits again
// for the rest. So a kick costs a lock and a clock read, not a timer-queue update and a
// cancelled handler.
//
// Every method: any thread. The event handler runs on the strand, without mutex_. A firing whose
// check passed before cancel() took the lock has already started; no firing starts after cancel()
// returns, and cancel() drops the handler. Pending waits hold the timer weakly, so releasing the
// last reference stops it.

#include <asio.hpp>
#include <cstdint>
#include <memory>
#include <optional>

#include "platform/Dispatch.h"
#include "platform/Mutex.h"
#include "platform/asio/StrandQueue.h"

namespace tarnwick {

class StrandTimer : public DispatchTimer, public std::enable_shared_from_this<StrandTimer> {
 public:
  StrandTimer(asio::io_context& context, StrandQueue::Strand strand);

  void setEventHandler(Work handler) override;
  void schedule(Duration fromNow, std::optional<Duration> repeating, Duration leeway) override;
  void resume() override;
  void cancel() override;

 private:
  void armLocked() TW_REQUIRES(mutex_);
  void onExpiry(std::uint64_t generation);

  const StrandQueue::Strand strand_;
  Mutex mutex_;
  asio::steady_timer timer_ TW_GUARDED_BY(mutex_);
  Work handler_ TW_GUARDED_BY(mutex_);
  MonotonicTime deadline_ TW_GUARDED_BY(mutex_);
  // When the pending wait ends; absent while none is pending.
  std::optional<MonotonicTime> armedFor_ TW_GUARDED_BY(mutex_);
  std::optional<Duration> interval_ TW_GUARDED_BY(mutex_);
  // Bumped by every new wait and by cancel(), so a wait that was replaced is ignored.
  std::uint64_t generation_ TW_GUARDED_BY(mutex_) = 0;
  bool scheduled_ TW_GUARDED_BY(mutex_) = false;
  bool resumed_ TW_GUARDED_BY(mutex_) = false;
  bool cancelled_ TW_GUARDED_BY(mutex_) = false;
};

}  // namespace tarnwick
