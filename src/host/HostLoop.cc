#include "host/HostLoop.h"

#include <future>

namespace tarnwick::host {
namespace {

std::uint64_t tokenOf(std::uint64_t id, std::uint32_t tag) { return (id << 2) | (tag & 3); }

}  // namespace

HostLoop::HostLoop() : HostLoop(pickIoLane()) {}

HostLoop::HostLoop(IoLane& lane) : lane_(lane) {
  if (!valid()) return;
  postToLane([this] {
    watch_ = lane_.watchReadable(epoll_.fd());
    arm();
  });
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

void HostLoop::post(Work work) { postToLane(std::move(work)); }

void HostLoop::postToLane(Work work) {
  lane_.post([life = life_, work = std::move(work)] {
    if (life->running()) work();
  });
}

// Work posted before the stop either ran already or finds the loop stopped; from another
// thread, the stop waits for the lane to pass a barrier, so nothing of this loop is running on
// it when the stop returns.
void HostLoop::stop() {
  {
    MutexLock lock(life_->mutex);
    if (life_->stopping) return;
    life_->stopping = true;
  }
  if (lane_.isCurrent()) {
    watch_.reset();
  } else if (valid()) {
    std::promise<void> passed;
    lane_.post([this, &passed] {
      watch_.reset();
      passed.set_value();
    });
    passed.get_future().wait();
  }
  std::unordered_map<std::uint64_t, std::weak_ptr<IoHandler>> dropped;
  MutexLock lock(mutex_);
  dropped.swap(handlers_);
}

void HostLoop::arm() {
  watch_->wait([this, life = life_] {
    if (life->running()) drain();
  });
}

// One pass over what the set holds now, then the lane waits for the set again. Arming the wait
// looks at the set afresh, so a descriptor that is still ready (a listener with connections left
// to accept) brings the next pass at once, after whatever else the lane has to do.
void HostLoop::drain() {
  for (const epoll_event& event : epoll_.wait(0)) {
    if (!life_->running()) return;
    dispatch(event.data.u64, event.events);
  }
  if (life_->running()) arm();
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
