#pragma once
// A connected stream socket taken from the flow or connection that owned it, for a splicer to
// carry from then on. Move-only; the socket is closed when the holder drops it. Its former owner
// still hears of it: the bytes read from and written to it are counted through `counted`, and an
// abort the owner is asked for reaches whoever carries the socket through its AbortLatch.
//
// The relay engine only passes these along; the platform's splicer is what opens them.

#include <cstddef>
#include <functional>
#include <memory>

#include "platform/Dispatch.h"
#include "platform/Mutex.h"
#include "platform/posix/UniqueFd.h"

namespace tarnwick {

// Whether a flow or a connection can hand its socket over now, later (a write is still going
// out, or a completion with bytes is still on its way to its caller), or not at all (no socket,
// or it is no longer open).
enum class Detachable { Now, NotNow, Never };

// Once fired, runs the work armed on it, once: at once if it is armed already, or as soon as it
// is. Any thread; the work runs without the latch's lock held.
class AbortLatch {
 public:
  void arm(Work onAbort);
  void fire();

 private:
  Mutex mutex_;
  bool fired_ TW_GUARDED_BY(mutex_) = false;
  Work onAbort_ TW_GUARDED_BY(mutex_);
};

class DetachedSocket {
 public:
  // How many bytes were read from the socket (true) or written to it (false). Any thread.
  using Counted = std::function<void(bool read, std::size_t bytes)>;

  DetachedSocket(UniqueFd socket, Counted counted = nullptr,
                 std::shared_ptr<AbortLatch> abort = nullptr)
      : socket_(std::move(socket)), counted_(std::move(counted)), abort_(std::move(abort)) {}

  UniqueFd& socket() { return socket_; }
  void count(bool read, std::size_t bytes) const {
    if (counted_ && bytes > 0) counted_(read, bytes);
  }
  // Empty when the former owner cannot abort it.
  const std::shared_ptr<AbortLatch>& abortLatch() const { return abort_; }

 private:
  UniqueFd socket_;
  Counted counted_;
  std::shared_ptr<AbortLatch> abort_;
};

}  // namespace tarnwick
