#pragma once
// A level-triggered epoll set whose entries carry a token instead of a pointer: a handler looks
// its owner up by token, so an event that arrives in the same batch as its owner's end finds
// nothing rather than freed memory.

#include <sys/epoll.h>

#include <array>
#include <cstdint>
#include <span>

#include "platform/posix/UniqueFd.h"

namespace tarnwick {

// add, modify and remove may be called from any thread (epoll_ctl is); wait() from one.
class EventLoop {
 public:
  EventLoop();
  bool valid() const { return epoll_.valid(); }

  // events: EPOLLIN and/or EPOLLOUT, or 0 to hear only of errors and hang-ups.
  void add(int fd, std::uint64_t token, std::uint32_t events);
  void modify(int fd, std::uint64_t token, std::uint32_t events);
  void remove(int fd);

  // Waits up to `timeoutMs` (-1: until at least one fd is ready or a signal interrupts; 0: not at
  // all); the span is valid until the next call.
  std::span<const epoll_event> wait(int timeoutMs = -1);
  int fd() const { return epoll_.get(); }

 private:
  UniqueFd epoll_;
  std::array<epoll_event, 256> ready_{};
};

}  // namespace tarnwick
