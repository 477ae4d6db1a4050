#pragma once
// One-shot silence timer with a sliding deadline: every kick() moves the deadline to now plus the
// timeout; with no kick before the deadline it fires once, runs its silence action and is spent.
// cancel() spends it without running the action.
//
// Owned by a relay session, which cancels it before dropping it; the timer's handler holds it
// weakly. kick() and cancel(): any thread. The silence action runs on queue_, without mutex_, so
// it may kick or cancel this watchdog (to no effect) and take other locks.

#include <functional>
#include <memory>

#include "platform/Clock.h"
#include "platform/Dispatch.h"
#include "platform/Mutex.h"

namespace tarnwick {

class RelayWatchdog : public std::enable_shared_from_this<RelayWatchdog> {
 public:
  // A real timer may fire this much after its deadline.
  static constexpr Duration kLeeway = std::chrono::seconds(1);

  static std::shared_ptr<RelayWatchdog> create(std::shared_ptr<DispatchQueue> queue,
                                               Seconds timeout, std::function<void()> onSilence);

  // (Re)arms the deadline at now + timeout; no effect once spent. The first kick creates the
  // timer.
  void kick();
  // Spends the watchdog without running the action; any number of calls.
  void cancel();

 private:
  RelayWatchdog(std::shared_ptr<DispatchQueue> queue, Seconds timeout,
                std::function<void()> onSilence);
  // The timer's handler, on queue_: runs the action at most once.
  void fire();

  const std::shared_ptr<DispatchQueue> queue_;
  const Seconds timeout_;
  const std::function<void()> onSilence_;

  // Held across the timer calls in kick() and cancel(): the platform's timer never calls back
  // synchronously, and holding it makes "spent" and "armed" exclusive.
  Mutex mutex_;
  // Absent until the first kick, and again once spent.
  std::shared_ptr<DispatchTimer> timer_ TW_GUARDED_BY(mutex_);
  // Fired or cancelled; never reset.
  bool fired_ TW_GUARDED_BY(mutex_) = false;
};

}  // namespace tarnwick
