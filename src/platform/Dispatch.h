#pragma once
// Serial queues, delayed work and timer sources, behind one interface with two back ends: the
// real one (Asio strands over a small thread pool, a thread beside them for off-lane queues, and a
// thread of its own for a queue that runs blocking work) and the simulated one in
// platform/testing (virtual clocks, seeded order).
//
// Contracts common to both back ends:
// - Work given to one serial queue runs one item at a time, in the order it was given.
// - Every method may be called from any thread.
// - A timer's event handler runs on the timer's queue; once cancel() returns, the handler is not
//   started again, and the timer drops its handler (breaking any cycle through it).

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/Clock.h"

namespace tarnwick {

using Work = std::function<void()>;

enum class QualityOfService { Unspecified, Background, Utility, Default, UserInitiated };

enum class QueueKind {
  // Ordinary serial queue; its work must never block.
  Serial,
  // Serial queue with a thread of its own, for work that blocks (a blocking read loop), so a
  // blocked item never stalls another queue. It accepts async() only.
  Blocking,
  // Serial queue on a thread beside the lanes that carry flows, for work that may block for a
  // bounded while (a socket write with a send timeout): it never holds up a flow. Offers delayed
  // work and timers as Serial does. Such queues share their thread.
  OffLane,
};

// A one-shot or repeating timer on a queue, created suspended (the platform's timer source).
class DispatchTimer {
 public:
  virtual ~DispatchTimer() = default;
  virtual void setEventHandler(Work handler) = 0;
  // Deadline `fromNow` after the current monotonic time; `repeating` absent for a single shot.
  // The timer may fire up to `leeway` after its deadline. Replaces any earlier schedule, and
  // with it a firing of that schedule that is due but has not started yet.
  virtual void schedule(Duration fromNow, std::optional<Duration> repeating, Duration leeway) = 0;
  virtual void resume() = 0;
  virtual void cancel() = 0;
};

class DispatchQueue {
 public:
  virtual ~DispatchQueue() = default;
  virtual const std::string& label() const = 0;
  virtual QualityOfService qos() const = 0;
  virtual void async(Work work) = 0;
  virtual void asyncAfter(Duration delay, Work work) = 0;
  virtual std::shared_ptr<DispatchTimer> makeTimer() = 0;
  // True while the calling thread is running work of this queue.
  virtual bool isCurrent() const = 0;
};

// Makes queues and reads the clocks. The system gets one injected; nothing else is global.
class Runtime {
 public:
  virtual ~Runtime() = default;
  virtual std::shared_ptr<DispatchQueue> makeQueue(std::string label, QualityOfService qos,
                                                   QueueKind kind = QueueKind::Serial) = 0;
  virtual MonotonicTime monotonicNow() const = 0;
  virtual WallTime wallNow() const = 0;
};

// The process-wide real runtime: Asio, started on first use, never destroyed.
std::shared_ptr<Runtime> realRuntime();

}  // namespace tarnwick
