#pragma once
// An epoll set over host sockets (listeners, the control socket, the sockets of flows and of
// handed-back connections), serviced on one lane of the real runtime: the lane's own event loop
// watches the set and, when anything in it is ready, runs the handlers on the lane thread. So a
// flow's socket, its queues and its outbound connections all live on one thread. Handlers are
// registered under an id and held weakly, so an event for an object that is already gone finds
// nothing.
//
// registerHandler, unregisterHandler, add, modify, remove and post: any thread. onIoEvent and
// posted work run on the lane thread, one at a time, without the loop's lock held.

#include <sys/epoll.h>

#include <cstdint>
#include <memory>
#include <unordered_map>

#include "platform/Dispatch.h"
#include "platform/IoLane.h"
#include "platform/Mutex.h"
#include "platform/posix/EventLoop.h"

namespace tarnwick::host {

class IoHandler {
 public:
  virtual ~IoHandler() = default;
  // `tag` is the one given with the fd (0 to 3), so a handler with two fds tells them apart.
  virtual void onIoEvent(std::uint32_t tag, std::uint32_t events) = 0;
};

class HostLoop {
 public:
  // Serviced on the calling thread's lane, or the next lane in turn. valid() is false when the
  // epoll set could not be made.
  HostLoop();
  explicit HostLoop(IoLane& lane);
  ~HostLoop();
  HostLoop(const HostLoop&) = delete;
  HostLoop& operator=(const HostLoop&) = delete;

  bool valid() const { return epoll_.valid(); }
  IoLane& lane() const { return lane_; }

  std::uint64_t registerHandler(std::weak_ptr<IoHandler> handler);
  void unregisterHandler(std::uint64_t id);

  // events as for epoll_ctl (EPOLLONESHOT included when the caller re-arms by hand).
  void add(int fd, std::uint64_t id, std::uint32_t tag, std::uint32_t events);
  void modify(int fd, std::uint64_t id, std::uint32_t tag, std::uint32_t events);
  void remove(int fd);

  void post(Work work);
  bool isLoopThread() const { return lane_.isCurrent(); }

  // No handler and no posted work runs once this returns; work not yet run is dropped.
  // Idempotent, any thread.
  void stop();

 private:
  // Whether the loop still runs; shared with the work it posts, which may outlive the loop on
  // the lane's queue and must then do nothing.
  struct Life {
    Mutex mutex;
    bool stopping TW_GUARDED_BY(mutex) = false;
    bool running() {
      MutexLock lock(mutex);
      return !stopping;
    }
  };

  // The lane thread only.
  void arm();
  void drain();
  void dispatch(std::uint64_t token, std::uint32_t events);
  // Runs `work` on the lane, unless the loop has stopped by then.
  void postToLane(Work work);

  IoLane& lane_;
  EventLoop epoll_;
  const std::shared_ptr<Life> life_ = std::make_shared<Life>();
  // Touched on the lane thread only.
  std::unique_ptr<IoLane::ReadableWatch> watch_;
  Mutex mutex_;
  std::uint64_t next_id_ TW_GUARDED_BY(mutex_) = 1;
  std::unordered_map<std::uint64_t, std::weak_ptr<IoHandler>> handlers_ TW_GUARDED_BY(mutex_);
};

}  // namespace tarnwick::host
