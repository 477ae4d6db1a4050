#include "platform/posix/EventLoop.h"

namespace tarnwick {
namespace {

void control(int epoll, int operation, int fd, std::uint64_t token, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = token;
  ::epoll_ctl(epoll, operation, fd, &event);
}

}  // namespace

EventLoop::EventLoop() : epoll_(::epoll_create1(EPOLL_CLOEXEC)) {}

void EventLoop::add(int fd, std::uint64_t token, std::uint32_t events) {
  control(epoll_.get(), EPOLL_CTL_ADD, fd, token, events);
}

void EventLoop::modify(int fd, std::uint64_t token, std::uint32_t events) {
  control(epoll_.get(), EPOLL_CTL_MOD, fd, token, events);
}

void EventLoop::remove(int fd) { control(epoll_.get(), EPOLL_CTL_DEL, fd, 0, 0); }

std::span<const epoll_event> EventLoop::wait(int timeoutMs) {
  const int count =
      ::epoll_wait(epoll_.get(), ready_.data(), static_cast<int>(ready_.size()), timeoutMs);
  if (count <= 0) return {};
  return {ready_.data(), static_cast<std::size_t>(count)};
}

}  // namespace tarnwick
