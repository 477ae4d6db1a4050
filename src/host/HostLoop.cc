#include "host/HostLoop.h"

#include <sys/eventfd.h>

namespace tarnwick::host {
namespace {

// Token 0 is the loop's own wake-up event; handlers get ids from 1.
constexpr std::uint64_t kWakeToken = 0;

std::uint64_t tokenOf(std::uint64_t id, std::uint32_t tag) { return (id << 2) | (tag & 3); }

}  // namespace

HostLoop::HostLoop() : wake_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
  valid_ = epoll_.valid() && wake_.valid();
  if (!valid_) return;
  epoll_.add(wake_.get(), kWakeToken, EPOLLIN);
  thread_ = std::thread([this] { run(); });
}

HostLoop::~HostLoop() { stop(); }

std::uint64_t HostLoop::registerHandler(std::weak_ptr<IoHandler> handler) {
  MutexLock lock(mutex_);
  const std::uint64_t id = next_id_++;
  handlers_.emplace(id, std::move(handler));
  return id;
}

void HostLoop::unregisterHandler(std::uint64_t id) {
  MutexLock lock(mutex_);
  handlers_.erase(id);
}

void HostLoop::add(int fd, std::uint64_t id, std::uint32_t tag, std::uint32_t events) {
  epoll_.add(fd, tokenOf(id, tag), events);
}

void HostLoop::modify(int fd, std::uint64_t id, std::uint32_t tag, std::uint32_t events) {
  epoll_.modify(fd, tokenOf(id, tag), events);
}

void HostLoop::remove(int fd) { epoll_.remove(fd); }

void HostLoop::post(Work work) {
  {
    MutexLock lock(mutex_);
    if (stopping_) return;
    posted_.push_back(std::move(work));
  }
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = ::write(wake_.get(), &one, sizeof one);
}

void HostLoop::stop() {
  {
    MutexLock lock(mutex_);
    if (stopping_) return;
    stopping_ = true;
  }
  if (!thread_.joinable()) return;
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = ::write(wake_.get(), &one, sizeof one);
  thread_.join();
  std::deque<Work> dropped;
  MutexLock lock(mutex_);
  dropped.swap(posted_);
  handlers_.clear();
}

void HostLoop::run() {
  for (;;) {
    for (const epoll_event& event : epoll_.wait()) {
      if (event.data.u64 == kWakeToken) {
        std::uint64_t count = 0;
        [[maybe_unused]] const auto got = ::read(wake_.get(), &count, sizeof count);
        runPosted();
      } else {
        dispatch(event.data.u64, event.events);
      }
    }
    MutexLock lock(mutex_);
    if (stopping_) return;
  }
}

void HostLoop::runPosted() {
  std::deque<Work> work;
  {
    MutexLock lock(mutex_);
    if (stopping_) return;
    work.swap(posted_);
  }
  for (auto& item : work) item();
}

void HostLoop::dispatch(std::uint64_t token, std::uint32_t events) {
  std::shared_ptr<IoHandler> handler;
  {
    MutexLock lock(mutex_);
    auto found = handlers_.find(token >> 2);
    if (found == handlers_.end()) return;
    handler = found->second.lock();
  }
  if (handler) handler->onIoEvent(static_cast<std::uint32_t>(token & 3), events);
}

}  // namespace tarnwick::host
