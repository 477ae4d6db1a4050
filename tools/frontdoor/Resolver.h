#pragma once
// Host-name lookups off the event loop. getaddrinfo blocks, and one slow lookup must not stall
// every other connection, so names go to one worker thread, started on the first lookup; the
// loop hears of finished lookups through an event counter it watches.
// request() and takeFinished(): the loop's thread. The worker touches only the queues, under
// mutex_.

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <string>
#include <thread>
#include <vector>

#include "platform/Mutex.h"
#include "platform/posix/SocketAddress.h"
#include "platform/posix/UniqueFd.h"

namespace tarnwick::frontdoor {

class Resolver {
 public:
  struct Lookup {
    std::uint64_t id = 0;  // the requester's, handed back untouched
    std::string host;
    std::uint16_t port = 0;
    std::vector<SocketAddress> addresses;  // empty when the name did not resolve
  };

  Resolver();
  ~Resolver();
  Resolver(const Resolver&) = delete;
  Resolver& operator=(const Resolver&) = delete;

  // Readable while finished lookups wait to be taken.
  int readyFd() const { return ready_.get(); }

  void request(std::uint64_t id, std::string host, std::uint16_t port);
  // Every lookup finished since the last call, each exactly once.
  std::vector<Lookup> takeFinished();

 private:
  void work();

  UniqueFd ready_;
  std::thread worker_;
  Mutex mutex_;
  std::condition_variable_any wakeup_;
  std::deque<Lookup> pending_ TW_GUARDED_BY(mutex_);
  std::vector<Lookup> finished_ TW_GUARDED_BY(mutex_);
  bool stopping_ TW_GUARDED_BY(mutex_) = false;
};

}  // namespace tarnwick::frontdoor
