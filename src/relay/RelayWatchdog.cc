#include "relay/RelayWatchdog.h"

#include <utility>

namespace tarnwick {

std::shared_ptr<RelayWatchdog> RelayWatchdog::create(std::shared_ptr<DispatchQueue> queue,
                                                     Seconds timeout,
                                                     std::function<void()> onSilence) {
  return std::shared_ptr<RelayWatchdog>(
      new RelayWatchdog(std::move(queue), timeout, std::move(onSilence)));
}

RelayWatchdog::RelayWatchdog(std::shared_ptr<DispatchQueue> queue, Seconds timeout,
                             std::function<void()> onSilence)
    : queue_(std::move(queue)), timeout_(timeout), onSilence_(std::move(onSilence)) {}

void RelayWatchdog::kick() {
  MutexLock lock(mutex_);
  if (fired_) return;
  if (!timer_) {
    timer_ = queue_->makeTimer();
    timer_->setEventHandler([weak = weak_from_this()] {
      if (auto self = weak.lock()) self->fire();
    });
    timer_->resume();
  }
  timer_->schedule(toDuration(timeout_), std::nullopt, kLeeway);
}

void RelayWatchdog::cancel() {
  MutexLock lock(mutex_);
  fired_ = true;
  if (timer_) std::exchange(timer_, nullptr)->cancel();
}

void RelayWatchdog::fire() {
  {
    MutexLock lock(mutex_);
    if (fired_) return;
    fired_ = true;
    if (timer_) std::exchange(timer_, nullptr)->cancel();
  }
  onSilence_();
}

}  // namespace tarnwick
