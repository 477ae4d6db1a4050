#include "Resolver.h"

#include <sys/eventfd.h>
#include <unistd.h>

namespace tarnwick::frontdoor {

Resolver::Resolver() : ready_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

Resolver::~Resolver() {
  {
    MutexLock lock(mutex_);
    stopping_ = true;
  }
  wakeup_.notify_all();
  // A lookup under way cannot be interrupted; the join waits for it.
  if (worker_.joinable()) worker_.join();
}

void Resolver::request(std::uint64_t id, std::string host, std::uint16_t port) {
  if (!worker_.joinable()) worker_ = std::thread([this] { work(); });
  {
    MutexLock lock(mutex_);
    pending_.push_back(Lookup{id, std::move(host), port, {}});
  }
  wakeup_.notify_one();
}

std::vector<Resolver::Lookup> Resolver::takeFinished() {
  std::uint64_t count = 0;
  [[maybe_unused]] const auto drained = ::read(ready_.get(), &count, sizeof count);
  MutexLock lock(mutex_);
  return std::exchange(finished_, {});
}

void Resolver::work() {
  while (true) {
    Lookup lookup;
    {
      MutexLock lock(mutex_);
      wakeup_.wait(
          mutex_, [this]() TW_NO_THREAD_SAFETY_ANALYSIS { return stopping_ || !pending_.empty(); });
      if (stopping_) return;
      lookup = std::move(pending_.front());
      pending_.pop_front();
    }
    lookup.addresses = resolveAddresses(lookup.host, lookup.port);
    {
      MutexLock lock(mutex_);
      finished_.push_back(std::move(lookup));
    }
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto signalled = ::write(ready_.get(), &one, sizeof one);
  }
}

}  // namespace tarnwick::frontdoor
