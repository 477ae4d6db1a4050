#pragma once
// The host's one I/O thread: an epoll set over the listeners, the control socket, the sockets
// of flows and of handed-back connections. Handlers are registered under an id and held weakly,
// so an event for an object that is already gone finds nothing.
//
// registerHandler, unregisterHandler, add, modify and post: any thread. onIoEvent and posted work
// run on the loop thread, one at a time, without the loop's lock held.

#include <sys/epoll.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>

#include "platform/Dispatch.h"
#include "platform/Mutex.h"
#include "platform/posix/EventLoop.h"
#include "platform/posix/UniqueFd.h"

namespace tarnwick::host {

class IoHandler {
 public:
  virtual ~IoHandler() = default;
  // `tag` is the one given with the fd (0 to 3), so a handler with two fds tells them apart.
  virtual void onIoEvent(std::uint32_t tag, std::uint32_t events) = 0;
};

class HostLoop {
 public:
  // The loop runs from construction until stop() or destruction; valid() is false when the
  // epoll set or its wake-up event could not be made.
  HostLoop();
  ~HostLoop();
  HostLoop(const HostLoop&) = delete;
  HostLoop& operator=(const HostLoop&) = delete;

  bool valid() const { return valid_; }

  std::uint64_t registerHandler(std::weak_ptr<IoHandler> handler);
  void unregisterHandler(std::uint64_t id);

  // events as for epoll_ctl (EPOLLONESHOT included when the caller re-arms by hand).
  void add(int fd, std::uint64_t id, std::uint32_t tag, std::uint32_t events);
  void modify(int fd, std::uint64_t id, std::uint32_t tag, std::uint32_t events);
  void remove(int fd);

  void post(Work work);
  bool isLoopThread() const { return std::this_thread::get_id() == thread_.get_id(); }

  // Joins the loop thread; posted work not yet run is dropped. Idempotent. Not from the loop
  // thread: the host stops the loop before its last owner lets go, so no handler on the loop
  // ever drops the last reference.
  void stop();

 private:
  void run();
  void runPosted();
  void dispatch(std::uint64_t token, std::uint32_t events);

  EventLoop epoll_;
  UniqueFd wake_;
  bool valid_ = false;
  Mutex mutex_;
  std::uint64_t next_id_ TW_GUARDED_BY(mutex_) = 1;
  std::unordered_map<std::uint64_t, std::weak_ptr<IoHandler>> handlers_ TW_GUARDED_BY(mutex_);
  std::deque<Work> posted_ TW_GUARDED_BY(mutex_);
  bool stopping_ TW_GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

}  // namespace tarnwick::host
