#include "platform/testing/SimulatedRuntime.h"

#include <cstdio>
#include <cstdlib>

#include "platform/ThreadQueue.h"

namespace tarnwick {

namespace {
thread_local const DispatchQueue* tCurrentQueue = nullptr;
// A run that keeps producing work for this many steps without going idle is a livelock.
constexpr std::uint64_t kMaxStepsPerRun = 50'000'000;
}  // namespace

class SimulatedQueue : public DispatchQueue, public std::enable_shared_from_this<SimulatedQueue> {
 public:
  SimulatedQueue(std::weak_ptr<SimulatedRuntime> runtime, std::string label, QualityOfService qos)
      : runtime_(std::move(runtime)), label_(std::move(label)), qos_(qos) {}

  const std::string& label() const override { return label_; }
  QualityOfService qos() const override { return qos_; }
  void async(Work work) override {
    if (auto runtime = runtime_.lock()) runtime->enqueue(shared_from_this(), std::move(work));
  }
  void asyncAfter(Duration delay, Work work) override {
    if (auto runtime = runtime_.lock()) {
      SimulatedRuntime::Delayed delayed{shared_from_this(), std::move(work), {}, 0};
      runtime->enqueueAt(runtime->monotonicNow() + delay, std::move(delayed));
    }
  }
  std::shared_ptr<DispatchTimer> makeTimer() override;
  bool isCurrent() const override { return tCurrentQueue == this; }

  // Guarded by the runtime's mutex.
  std::deque<Work> pending;

 private:
  std::weak_ptr<SimulatedRuntime> runtime_;
  const std::string label_;
  const QualityOfService qos_;
};

class SimulatedTimer : public DispatchTimer, public std::enable_shared_from_this<SimulatedTimer> {
 public:
  SimulatedTimer(std::weak_ptr<SimulatedRuntime> runtime, std::shared_ptr<SimulatedQueue> queue)
      : runtime_(std::move(runtime)), queue_(std::move(queue)) {}

  void setEventHandler(Work handler) override {
    auto runtime = runtime_.lock();
    if (!runtime) return;
    std::lock_guard<std::mutex> lock(runtime->mutex_);
    // The replaced handler is destroyed after the lock is released (declared before it).
    if (!cancelled_) std::swap(handler_, handler);
  }

  void schedule(Duration fromNow, std::optional<Duration> repeating, Duration leeway) override {
    auto runtime = runtime_.lock();
    if (!runtime) return;
    std::lock_guard<std::mutex> lock(runtime->mutex_);
    if (cancelled_) return;
    ++generation_;
    deadline_ = runtime->now_ + fromNow;
    interval_ = repeating;
    leeway_ = leeway;
    scheduled_ = true;
    if (resumed_) armLocked(*runtime);
  }

  void resume() override {
    auto runtime = runtime_.lock();
    if (!runtime) return;
    std::lock_guard<std::mutex> lock(runtime->mutex_);
    if (cancelled_ || resumed_) return;
    resumed_ = true;
    if (scheduled_) armLocked(*runtime);
  }

  void cancel() override {
    Work dropped;
    auto runtime = runtime_.lock();
    if (!runtime) return;
    std::lock_guard<std::mutex> lock(runtime->mutex_);
    cancelled_ = true;
    ++generation_;
    dropped = std::move(handler_);
    handler_ = nullptr;
  }

  // Called by the runtime, with its mutex held, when an armed deadline comes due. Returns the
  // work to put on the timer's queue, or nothing when the entry is stale.
  Work dueLocked(SimulatedRuntime& runtime, std::uint64_t generation) {
    if (cancelled_ || generation != generation_) return nullptr;
    if (interval_ && *interval_ > Duration::zero()) {
      // Missed periods are coalesced into this one firing, as a real timer source does.
      do {
        deadline_ += *interval_;
      } while (deadline_ <= runtime.now_);
      armLocked(runtime);
    } else {
      scheduled_ = false;
    }
    return [weak = weak_from_this(), generation] {
      if (auto self = weak.lock()) self->fire(generation);
    };
  }

 private:
  void armLocked(SimulatedRuntime& runtime) {
    SimulatedRuntime::Delayed delayed{queue_, nullptr, weak_from_this(), generation_};
    const MonotonicTime at = deadline_ + runtime.jitterLocked(leeway_);
    runtime.delayed_.emplace(std::make_pair(at, runtime.sequence_++), std::move(delayed));
  }

  // A schedule() since this firing was queued replaced it: the new deadline stands.
  void fire(std::uint64_t generation) {
    Work handler;
    if (auto runtime = runtime_.lock()) {
      std::lock_guard<std::mutex> lock(runtime->mutex_);
      if (cancelled_ || generation != generation_) return;
      handler = handler_;
    }
    if (handler) handler();
  }

  std::weak_ptr<SimulatedRuntime> runtime_;
  std::shared_ptr<SimulatedQueue> queue_;
  // All guarded by the runtime's mutex.
  Work handler_;
  MonotonicTime deadline_{};
  std::optional<Duration> interval_;
  Duration leeway_{};
  std::uint64_t generation_ = 0;
  bool scheduled_ = false;
  bool resumed_ = false;
  bool cancelled_ = false;
};

std::shared_ptr<DispatchTimer> SimulatedQueue::makeTimer() {
  return std::make_shared<SimulatedTimer>(runtime_, shared_from_this());
}

std::shared_ptr<SimulatedRuntime> SimulatedRuntime::create(Options options) {
  return std::shared_ptr<SimulatedRuntime>(new SimulatedRuntime(options));
}

SimulatedRuntime::~SimulatedRuntime() {
  for (auto& queue : ready_) queue->pending.clear();
  delayed_.clear();
}

SimulatedRuntime::SimulatedRuntime(Options options)
    : seed_(options.seed),
      rng_(options.seed),
      now_(MonotonicTime(std::chrono::hours(1))),
      wallOffset_(options.wallStart.time_since_epoch() - now_.time_since_epoch()) {}

std::shared_ptr<DispatchQueue> SimulatedRuntime::makeQueue(std::string label, QualityOfService qos,
                                                           QueueKind kind) {
  if (kind == QueueKind::Blocking) return std::make_shared<ThreadQueue>(std::move(label), qos);
  return std::make_shared<SimulatedQueue>(weak_from_this(), std::move(label), qos);
}

MonotonicTime SimulatedRuntime::monotonicNow() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return now_;
}

WallTime SimulatedRuntime::wallNow() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return WallTime(
      std::chrono::duration_cast<WallTime::duration>(now_.time_since_epoch() + wallOffset_));
}

void SimulatedRuntime::setWallClock(WallTime wall) {
  std::lock_guard<std::mutex> lock(mutex_);
  wallOffset_ =
      std::chrono::duration_cast<Duration>(wall.time_since_epoch()) - now_.time_since_epoch();
}

void SimulatedRuntime::enqueue(const std::shared_ptr<SimulatedQueue>& queue, Work work) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (queue->pending.empty()) ready_.push_back(queue);
    queue->pending.push_back(std::move(work));
  }
  arrived_.notify_all();
}

void SimulatedRuntime::enqueueAt(MonotonicTime at, Delayed delayed) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    delayed_.emplace(std::make_pair(at, sequence_++), std::move(delayed));
  }
  arrived_.notify_all();
}

Duration SimulatedRuntime::jitterLocked(Duration leeway) {
  if (leeway <= Duration::zero()) return Duration::zero();
  const auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(leeway).count();
  return std::chrono::milliseconds(static_cast<std::int64_t>(rng_() % (millis + 1)));
}

void SimulatedRuntime::promoteDueLocked() {
  while (!delayed_.empty() && delayed_.begin()->first.first <= now_) {
    Delayed entry = std::move(delayed_.begin()->second);
    delayed_.erase(delayed_.begin());
    Work work = std::move(entry.work);
    if (auto timer = entry.timer.lock()) work = timer->dueLocked(*this, entry.generation);
    if (!work) continue;
    if (entry.queue->pending.empty()) ready_.push_back(entry.queue);
    entry.queue->pending.push_back(std::move(work));
  }
}

bool SimulatedRuntime::runOne() {
  std::shared_ptr<SimulatedQueue> queue;
  Work work;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    promoteDueLocked();
    if (ready_.empty()) return false;
    const size_t index = rng_() % ready_.size();
    queue = ready_[index];
    work = std::move(queue->pending.front());
    queue->pending.pop_front();
    if (queue->pending.empty()) {
      ready_[index] = std::move(ready_.back());
      ready_.pop_back();
    }
  }
  const DispatchQueue* previous = tCurrentQueue;
  tCurrentQueue = queue.get();
  work();
  tCurrentQueue = previous;
  return true;
}

void SimulatedRuntime::runUntilIdle() {
  for (std::uint64_t steps = 0; runOne(); ++steps) {
    if (steps == kMaxStepsPerRun) {
      std::fprintf(stderr, "SimulatedRuntime(seed=%llu): no idle after %llu steps (livelock)\n",
                   static_cast<unsigned long long>(seed_), static_cast<unsigned long long>(steps));
      std::abort();
    }
  }
}

void SimulatedRuntime::advance(Duration by) {
  MonotonicTime target;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    target = now_ + by;
  }
  for (;;) {
    runUntilIdle();
    std::lock_guard<std::mutex> lock(mutex_);
    if (delayed_.empty() || delayed_.begin()->first.first > target) {
      now_ = target;
      break;
    }
    now_ = std::max(now_, delayed_.begin()->first.first);
  }
  runUntilIdle();
}

bool SimulatedRuntime::runUntil(const std::function<bool()>& done,
                                std::chrono::milliseconds realTimeout) {
  const auto deadline = std::chrono::steady_clock::now() + realTimeout;
  for (;;) {
    runUntilIdle();
    if (done()) return true;
    std::unique_lock<std::mutex> lock(mutex_);
    const bool arrived = arrived_.wait_until(lock, deadline, [this] {
      return !ready_.empty() || (!delayed_.empty() && delayed_.begin()->first.first <= now_);
    });
    if (!arrived) {
      lock.unlock();
      runUntilIdle();
      return done();
    }
  }
}

std::optional<MonotonicTime> SimulatedRuntime::nextDeadline() const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (delayed_.empty()) return std::nullopt;
  return delayed_.begin()->first.first;
}

}  // namespace tarnwick
