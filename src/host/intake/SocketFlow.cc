#include "host/intake/SocketFlow.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "platform/posix/Sockets.h"

namespace tarnwick::host {
namespace {

// A read takes what has arrived, up to this much, into the reading thread's scratch space.
constexpr std::size_t kReadChunkBytes = 256 * 1024;

NEError errnoError(int code) { return {code, std::strerror(code)}; }

}  // namespace

std::shared_ptr<SocketFlow> SocketFlow::create(std::shared_ptr<HostLoop> loop, UniqueFd socket,
                                               NWHostEndpoint remote, NEFlowMetaData metaData,
                                               std::shared_ptr<DispatchQueue> framework,
                                               std::shared_ptr<HostCounters> counters) {
  return std::shared_ptr<SocketFlow>(new SocketFlow(std::move(loop), std::move(socket),
                                                    std::move(remote), std::move(metaData),
                                                    std::move(framework), std::move(counters)));
}

SocketFlow::SocketFlow(std::shared_ptr<HostLoop> loop, UniqueFd socket, NWHostEndpoint remote,
                       NEFlowMetaData metaData, std::shared_ptr<DispatchQueue> framework,
                       std::shared_ptr<HostCounters> counters)
    : loop_(std::move(loop)),
      remote_(std::move(remote)),
      meta_data_(std::move(metaData)),
      framework_(std::move(framework)),
      counters_(std::move(counters)),
      socket_(std::move(socket)) {}

SocketFlow::~SocketFlow() {
  MutexLock lock(mutex_);
  if (loop_id_ != 0) loop_->unregisterHandler(loop_id_);
}

void SocketFlow::open(std::optional<NWHostEndpoint>, OpenCompletion completion) {
  std::optional<NEError> error;
  {
    MutexLock lock(mutex_);
    if (opened_ || !socket_) {
      error = NEError{EALREADY, "flow was already opened or handed back"};
    } else {
      opened_ = true;
      loop_id_ = loop_->registerHandler(weak_from_this());
      // Registered disarmed: an idle flow costs the loop nothing until it reads or writes.
      loop_->add(socket_.get(), loop_id_, 0, EPOLLONESHOT);
    }
  }
  framework_->async([completion = std::move(completion), error] { completion(error); });
}

void SocketFlow::readData(ReadCompletion completion) {
  std::vector<Work> out;
  {
    MutexLock lock(mutex_);
    if (!opened_ || !socket_ || read_closed_ || pending_read_) {
      out.push_back([completion = std::move(completion)] {
        completion(std::nullopt, flowNotReadableError());
      });
    } else {
      pending_read_ = std::move(completion);
      // A socket the last read emptied is most likely still empty: wait for it instead.
      if (may_have_more_) {
        tryReadLockHeld(out);
      } else {
        rearmLockHeld();
      }
    }
  }
  post(out);
}

void SocketFlow::write(Bytes data, WriteCompletion completion) {
  std::vector<Work> out;
  {
    MutexLock lock(mutex_);
    if (!opened_ || !socket_ || write_closed_) {
      out.push_back([completion = std::move(completion)] { completion(flowNotWritableError()); });
    } else {
      pending_writes_.push_back({std::move(data), 0, std::move(completion)});
      if (pending_writes_.size() == 1) tryWriteLockHeld(out);
    }
  }
  post(out);
}

void SocketFlow::closeReadWithError(std::optional<NEError>) {
  ReadCompletion dropped;
  {
    MutexLock lock(mutex_);
    // TCP has no way to tell the client its reads were closed: the flow just stops reading.
    read_closed_ = true;
    dropped = std::exchange(pending_read_, nullptr);
    finishCloseLockHeld();
  }
}

void SocketFlow::closeWriteWithError(std::optional<NEError> error) {
  std::vector<Work> out;
  {
    MutexLock lock(mutex_);
    if (write_closed_) return;
    write_closed_ = true;
    if (error && socket_) {
      failWritesLockHeld(*error, out);
      loop_->remove(socket_.get());
      resetAndClose(socket_);
    } else if (pending_writes_.empty()) {
      shutWriteLockHeld();
    }
    finishCloseLockHeld();
  }
  post(out);
}

std::optional<UniqueFd> SocketFlow::takeSocket() {
  MutexLock lock(mutex_);
  if (opened_ || !socket_) return std::nullopt;
  return std::move(socket_);
}

Detachable SocketFlow::detachable() {
  MutexLock lock(mutex_);
  return detachableLocked();
}

Detachable SocketFlow::detachableLocked() {
  if (!opened_ || !socket_ || read_closed_ || write_closed_) return Detachable::Never;
  return pending_writes_.empty() && owed_ == 0 ? Detachable::Now : Detachable::NotNow;
}

std::optional<DetachedSocket> SocketFlow::detachSocket() {
  ReadCompletion dropped;
  MutexLock lock(mutex_);
  if (detachableLocked() != Detachable::Now) return std::nullopt;
  dropped = std::exchange(pending_read_, nullptr);
  read_closed_ = true;
  write_closed_ = true;
  loop_->remove(socket_.get());
  loop_->unregisterHandler(std::exchange(loop_id_, 0));
  handed_over_ = std::make_shared<AbortLatch>();
  DetachedSocket::Counted counted;
  if (counters_) {
    counted = [counters = counters_](bool read, std::size_t bytes) {
      if (read) {
        counters->countBytesFromAgent(bytes);
      } else {
        counters->countBytesToAgent(bytes);
      }
    };
  }
  return DetachedSocket(std::move(socket_), std::move(counted), handed_over_);
}

void SocketFlow::abort() {
  std::vector<Work> out;
  std::shared_ptr<AbortLatch> handedOver;
  {
    MutexLock lock(mutex_);
    handedOver = handed_over_;
    const NEError error{ECONNABORTED, "the host is stopping"};
    read_closed_ = true;
    write_closed_ = true;
    if (auto completion = std::exchange(pending_read_, nullptr)) {
      out.push_back([completion, error] { completion(std::nullopt, error); });
    }
    failWritesLockHeld(error, out);
    if (socket_) {
      loop_->remove(socket_.get());
      resetAndClose(socket_);
    }
  }
  post(out);
  if (handedOver) handedOver->fire();
}

void SocketFlow::onIoEvent(std::uint32_t, std::uint32_t) {
  // Hold ourselves: a completion posted below may drop the provider's last reference.
  const auto self = shared_from_this();
  std::vector<Work> out;
  {
    MutexLock lock(mutex_);
    may_have_more_ = true;
    tryReadLockHeld(out);
    if (!pending_writes_.empty()) tryWriteLockHeld(out);
  }
  post(out);
}

void SocketFlow::tryReadLockHeld(std::vector<Work>& out) {
  if (!pending_read_ || !socket_) return;
  thread_local std::array<std::uint8_t, kReadChunkBytes> scratch;
  ssize_t got;
  do {
    got = ::recv(socket_.get(), scratch.data(), scratch.size(), MSG_DONTWAIT);
  } while (got < 0 && errno == EINTR);
  may_have_more_ = got == static_cast<ssize_t>(scratch.size());
  if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return rearmLockHeld();
  auto completion = std::exchange(pending_read_, nullptr);
  if (got < 0) {
    out.push_back(
        owedLockHeld([completion, error = errnoError(errno)] { completion(std::nullopt, error); }));
  } else {
    if (counters_) counters_->countBytesFromAgent(static_cast<std::size_t>(got));
    // Zero bytes: the client ended its stream; the empty content says so.
    out.push_back(
        owedLockHeld([completion, data = Bytes(scratch.begin(), scratch.begin() + got)]() mutable {
          completion(std::move(data), std::nullopt);
        }));
  }
}

void SocketFlow::tryWriteLockHeld(std::vector<Work>& out) {
  while (!pending_writes_.empty() && socket_) {
    PendingWrite& front = pending_writes_.front();
    const ssize_t sent = front.data.empty()
                             ? 0
                             : ::send(socket_.get(), front.data.data() + front.sent,
                                      front.data.size() - front.sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return rearmLockHeld();
    if (sent < 0) return failWritesLockHeld(errnoError(errno), out);
    front.sent += static_cast<std::size_t>(sent);
    if (counters_) counters_->countBytesToAgent(static_cast<std::size_t>(sent));
    if (front.sent < front.data.size()) continue;
    out.push_back(
        owedLockHeld([completion = std::move(front.completion)] { completion(std::nullopt); }));
    pending_writes_.erase(pending_writes_.begin());
  }
  if (write_closed_ && !write_shut_) {
    shutWriteLockHeld();
    finishCloseLockHeld();
  }
}

void SocketFlow::failWritesLockHeld(const NEError& error, std::vector<Work>& out) {
  for (auto& pending : pending_writes_) {
    out.push_back([completion = std::move(pending.completion), error] { completion(error); });
  }
  pending_writes_.clear();
}

// With the read side closed too, the socket is about to be closed, which ends the stream the
// same way; the shutdown is only needed while the client may still send.
void SocketFlow::shutWriteLockHeld() {
  if (!socket_) return;
  if (!read_closed_) ::shutdown(socket_.get(), SHUT_WR);
  write_shut_ = true;
}

// Once both directions are closed and written out, the socket goes: the client sees the end.
void SocketFlow::finishCloseLockHeld() {
  if (!read_closed_ || !write_closed_ || !pending_writes_.empty() || !socket_) return;
  loop_->remove(socket_.get());
  socket_.reset();
}

void SocketFlow::rearmLockHeld() {
  if (!socket_ || loop_id_ == 0) return;
  std::uint32_t events = EPOLLONESHOT;
  if (pending_read_) events |= EPOLLIN;
  if (!pending_writes_.empty()) events |= EPOLLOUT;
  loop_->modify(socket_.get(), loop_id_, 0, events);
}

void SocketFlow::post(std::vector<Work>& work) {
  for (auto& item : work) framework_->async(std::move(item));
}

// Settled just before it runs, so what the completion does next (hand the socket over, say)
// sees only the completions still on their way after it.
Work SocketFlow::owedLockHeld(Work completion) {
  ++owed_;
  return [weak = weak_from_this(), completion = std::move(completion)] {
    if (auto self = weak.lock()) {
      MutexLock lock(self->mutex_);
      --self->owed_;
    }
    completion();
  };
}

}  // namespace tarnwick::host
