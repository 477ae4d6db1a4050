#pragma once
// The simulated runtime: one thread, a virtual monotonic clock and a virtual wall clock that the
// test moves, and ready work run in an order drawn from a seed. Nothing runs until the test calls
// runUntilIdle() or advance(); due timers fire in deadline order. Serial queues keep their own
// order; which ready queue goes next is the seed's choice, so interleavings are explored and the
// same seed replays the same run exactly.
//
// Timers with a leeway fire at a seeded moment between their deadline and deadline + leeway, as a
// real timer may. asyncAfter has no leeway and fires exactly at its deadline.
//
// Blocking queues are real threads (blocking work cannot be simulated); they may hand work to
// simulated queues with async() from their thread, and runUntil() waits for such work. Off-lane
// queues are simulated queues like any other: there are no lanes to keep them off.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <vector>

#include "platform/Dispatch.h"

namespace tarnwick {

class SimulatedQueue;
class SimulatedTimer;

class SimulatedRuntime : public Runtime, public std::enable_shared_from_this<SimulatedRuntime> {
 public:
  struct Options {
    std::uint64_t seed = 1;
    // 2026-01-01T00:00:00Z.
    WallTime wallStart = WallTime(std::chrono::seconds(1767225600));
  };

  static std::shared_ptr<SimulatedRuntime> create(Options options);
  static std::shared_ptr<SimulatedRuntime> create() { return create(Options{}); }
  // Drops work that never ran. Pending work often holds what holds its queue (a connection
  // posting to the queue it keeps), a cycle that would otherwise outlive the runtime.
  ~SimulatedRuntime() override;

  std::shared_ptr<DispatchQueue> makeQueue(std::string label, QualityOfService qos,
                                           QueueKind kind = QueueKind::Serial) override;
  MonotonicTime monotonicNow() const override;
  WallTime wallNow() const override;

  // Runs ready work (and work whose time has come) until none is left.
  void runUntilIdle();
  // Moves both clocks forward by `by`, firing due work in deadline order on the way.
  void advance(Duration by);
  // Runs until `done()` holds, waiting up to `realTimeout` of real time for work that real
  // threads (blocking queues, real sockets) hand in. Returns done().
  bool runUntil(const std::function<bool()>& done,
                std::chrono::milliseconds realTimeout = std::chrono::seconds(10));
  // Sets the wall clock, as a user or time daemon would; the monotonic clock is unaffected.
  void setWallClock(WallTime wall);

  std::uint64_t seed() const { return seed_; }
  // Time of the earliest pending timer or delayed work, if any.
  std::optional<MonotonicTime> nextDeadline() const;

 private:
  friend class SimulatedQueue;
  friend class SimulatedTimer;

  struct Delayed {
    std::shared_ptr<SimulatedQueue> queue;
    Work work;                            // for asyncAfter
    std::weak_ptr<SimulatedTimer> timer;  // for timers
    std::uint64_t generation = 0;
  };

  explicit SimulatedRuntime(Options options);

  void enqueue(const std::shared_ptr<SimulatedQueue>& queue, Work work);
  void enqueueAt(MonotonicTime at, Delayed delayed);
  void promoteDueLocked();
  bool runOne();
  Duration jitterLocked(Duration leeway);

  const std::uint64_t seed_;
  mutable std::mutex mutex_;
  std::condition_variable arrived_;
  std::mt19937_64 rng_;
  MonotonicTime now_;
  Duration wallOffset_;
  std::vector<std::shared_ptr<SimulatedQueue>> ready_;
  std::multimap<std::pair<MonotonicTime, std::uint64_t>, Delayed> delayed_;
  std::uint64_t sequence_ = 0;
};

}  // namespace tarnwick
