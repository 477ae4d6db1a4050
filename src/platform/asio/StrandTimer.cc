#include "platform/asio/StrandTimer.h"

#include <chrono>
#include <utility>

namespace tarnwick {

StrandTimer::StrandTimer(asio::io_context& context, StrandQueue::Strand strand)
    : strand_(std::move(strand)), timer_(context) {}

void StrandTimer::setEventHandler(Work handler) {
  MutexLock lock(mutex_);
  // The replaced handler is destroyed after the lock is released (declared before it).
  if (!cancelled_) std::swap(handler_, handler);
}

void StrandTimer::schedule(Duration fromNow, std::optional<Duration> repeating, Duration) {
  MutexLock lock(mutex_);
  if (cancelled_) return;
  deadline_ = std::chrono::steady_clock::now() + fromNow;
  interval_ = repeating;
  scheduled_ = true;
  if (resumed_) armLocked();
}

void StrandTimer::resume() {
  MutexLock lock(mutex_);
  if (cancelled_ || resumed_) return;
  resumed_ = true;
  if (scheduled_) armLocked();
}

void StrandTimer::cancel() {
  Work dropped;
  MutexLock lock(mutex_);
  cancelled_ = true;
  ++generation_;
  armedFor_.reset();
  timer_.cancel();
  dropped = std::exchange(handler_, nullptr);
}

// A pending wait that ends no later than the deadline stays; it waits again for the rest when it
// ends (onExpiry). Otherwise setting the expiry aborts the pending wait.
void StrandTimer::armLocked() {
  if (armedFor_ && *armedFor_ <= deadline_) return;
  ++generation_;
  armedFor_ = deadline_;
  timer_.expires_at(deadline_);
  timer_.async_wait(asio::bind_executor(
      strand_, [weak = weak_from_this(), generation = generation_](const asio::error_code& error) {
        if (error) return;
        if (auto self = weak.lock()) self->onExpiry(generation);
      }));
}

void StrandTimer::onExpiry(std::uint64_t generation) {
  Work handler;
  {
    MutexLock lock(mutex_);
    if (cancelled_ || generation != generation_) return;
    armedFor_.reset();
    const MonotonicTime now = std::chrono::steady_clock::now();
    if (now < deadline_) return armLocked();
    if (interval_ && *interval_ > Duration::zero()) {
      do {
        deadline_ += *interval_;
      } while (deadline_ <= now);
      armLocked();
    } else {
      scheduled_ = false;
    }
    handler = handler_;
  }
  if (handler) handler();
}

}  // namespace tarnwick
