#pragma once
// A level-triggered epoll set whose entries carry a token instead of a pointer: a handler looks
// its owner up by token, so an event that arrives in the same batch as its owner's end finds
// nothing rather than freed memory.

#include <sys/epoll.h>

#include <array>
#include <cstdint>
#include <span>

#include "UniqueFd.h"

namespace tarnwick::frontdoor {

// What an fd is to its owner. Connections own Client, Upstream and Timer fds under their id;
// the front door's own fds use the Server role.
enum class FdRole : std::uint64_t { Client = 0, Upstream = 1, Timer = 2, Server = 3 };

inline std::uint64_t makeToken(std::uint64_t id, FdRole role) {
  return (id << 2) | static_cast<std::uint64_t>(role);
}
inline std::uint64_t tokenId(std::uint64_t token) { return token >> 2; }
inline FdRole tokenRole(std::uint64_t token) { return static_cast<FdRole>(token & 3); }

// Used from one thread only.
class EventLoop {
 public:
  EventLoop();
  bool valid() const { return epoll_.valid(); }

  // events: EPOLLIN and/or EPOLLOUT, or 0 to hear only of errors and hang-ups.
  void add(int fd, std::uint64_t token, std::uint32_t events);
  void modify(int fd, std::uint64_t token, std::uint32_t events);
  void remove(int fd);

  // Blocks until at least one fd is ready (or a signal interrupts); the span is valid until the
  // next call.
  std::span<const epoll_event> wait();

 private:
  UniqueFd epoll_;
  std::array<epoll_event, 256> ready_{};
};

}  // namespace tarnwick::frontdoor
