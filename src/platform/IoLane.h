#pragma once
// The real runtime's event-loop threads ("lanes"). Each lane is one thread running one event
// loop; a serial queue, a connection or a host socket made on a lane stays on it for life. Work
// that belongs to one flow (its framework queue, its relay queue, its connections, its socket)
// is made on the lane that accepted the flow, so a chunk of bytes moves from socket to socket
// without ever waking another thread, and flows spread over the lanes, not over threads.
//
// Which lane new work lands on: the calling thread's own lane, or, from any other thread, the
// next lane in turn (pickIoLane()).
//
// Every function and IoLane method: any thread.

#include <cstddef>
#include <functional>
#include <memory>

#include "platform/Dispatch.h"

namespace tarnwick {

class IoLane {
 public:
  // One wait at a time for a file descriptor the caller owns and keeps open while watched. A
  // pending wait's `then` never runs once the watch is destroyed. Its methods and its
  // destructor: the lane thread only.
  class ReadableWatch {
   public:
    virtual ~ReadableWatch() = default;
    // `then` runs once on the lane when the descriptor is readable or has an error condition.
    virtual void wait(Work then) = 0;
  };

  virtual ~IoLane() = default;
  // Runs `work` on the lane, after the work already given to it.
  virtual void post(Work work) = 0;
  virtual bool isCurrent() const = 0;
  virtual std::unique_ptr<ReadableWatch> watchReadable(int fd) = 0;
};

std::size_t ioLaneCount();
IoLane& ioLane(std::size_t index);
// The calling thread's lane, or the next lane in turn.
IoLane& pickIoLane();

}  // namespace tarnwick
