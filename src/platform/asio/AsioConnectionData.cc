// Sending and receiving on a ready AsioConnection.

#include <array>
#include <cerrno>
#include <utility>

#include "platform/asio/AsioConnection.h"

namespace tarnwick {

// A send is written at once as far as the socket takes it; only a socket without room is waited
// on. Its completion is posted either way.
void AsioConnection::writeNextLocked() {
  while (state_ == Kind::Ready && !writing_ && !sends_.empty()) {
    if (sends_.front().content) {
      if (writeAvailableLocked()) continue;
      writing_ = true;
      socket_.async_wait(
          tcp::socket::wait_write,
          [self = shared_from_this()](const asio::error_code& error) { self->onWritable(error); });
      return;
    }
    std::optional<NWError> result;
    if (sends_.front().isComplete) {
      asio::error_code error;
      socket_.shutdown(tcp::socket::shutdown_send, error);
      if (error) result = errorOf(error);
    }
    completeSendLocked(std::move(result));
  }
}

// Writes what the socket takes of the oldest send, completing it once whole or failed. False
// when the socket has no room.
bool AsioConnection::writeAvailableLocked() {
  const Bytes& content = *sends_.front().content;
  asio::error_code error;
  const std::size_t n =
      socket_.write_some(asio::buffer(content.data() + written_, content.size() - written_), error);
  if (error == asio::error::would_block) return false;
  if (error) {
    completeSendLocked(errorOf(error));
    return true;
  }
  written_ += n;
  if (written_ == content.size()) completeSendLocked(std::nullopt);
  return true;
}

void AsioConnection::onWritable(const asio::error_code& error) {
  {
    MutexLock lock(mutex_);
    writing_ = false;
    if (state_ != Kind::Ready) return;
    if (error) completeSendLocked(errorOf(error));
    writeNextLocked();
  }
  flushOutbox();
}

void AsioConnection::completeSendLocked(std::optional<NWError> error) {
  PendingSend done = std::move(sends_.front());
  sends_.erase(sends_.begin());
  written_ = 0;
  if (done.completion) {
    postLocked([c = std::move(done.completion), error = std::move(error)] { c(error); },
               /*owed=*/true);
  }
}

// A receive reads at once only when the last read left bytes behind (it filled its buffer) or
// the socket has just been reported readable; otherwise the socket was emptied and a read would
// most likely find nothing, so it waits. The wait needs no buffer: memory is taken only once
// bytes are there.
void AsioConnection::readNextLocked() {
  if (state_ != Kind::Ready || awaitingReadable_) return;
  for (;;) {
    while (!receives_.empty() && (readEnded_ || readError_)) {
      completeReceiveLocked(readEnded_, readError_);
    }
    if (receives_.empty()) return;
    if (!mayHaveMore_ || !readAvailableLocked()) break;
  }
  awaitingReadable_ = true;
  socket_.async_wait(
      tcp::socket::wait_read,
      [self = shared_from_this()](const asio::error_code& error) { self->onReadable(error); });
}

void AsioConnection::onReadable(const asio::error_code& error) {
  {
    MutexLock lock(mutex_);
    awaitingReadable_ = false;
    if (state_ != Kind::Ready) return;
    if (error) readError_ = errorOf(error);
    mayHaveMore_ = true;
    readNextLocked();
  }
  flushOutbox();
}

// Reads what the socket holds for the oldest receive, through the thread's scratch space, so a
// receive's bytes are exactly what arrived; completes it once its minimum is met. False when the
// socket has nothing more for now and the receive still waits.
bool AsioConnection::readAvailableLocked() {
  thread_local std::array<std::uint8_t, kScratchBytes> scratch;
  const PendingReceive& head = receives_.front();
  const std::size_t want = std::min(head.maximum - inbound_.size(), scratch.size());
  asio::error_code error;
  const std::size_t got = socket_.read_some(asio::buffer(scratch.data(), want), error);
  mayHaveMore_ = !error && got == want;
  if (error == asio::error::would_block) return false;
  if (error == asio::error::eof) {
    readEnded_ = true;
  } else if (error) {
    readError_ = errorOf(error);
  } else {
    inbound_.insert(inbound_.end(), scratch.begin(), scratch.begin() + got);
    if (inbound_.size() >= head.minimum) completeReceiveLocked(false, std::nullopt);
  }
  return true;
}

// Completes the oldest receive with the bytes read for it. At the end of the stream or after an
// error, later receives complete at once the same way (readNextLocked).
void AsioConnection::completeReceiveLocked(bool isComplete, std::optional<NWError> error) {
  PendingReceive done = std::move(receives_.front());
  receives_.erase(receives_.begin());
  std::optional<Bytes> content;
  if (!inbound_.empty()) content = std::exchange(inbound_, Bytes());
  postLocked([c = std::move(done.completion), content = std::move(content), isComplete,
              error = std::move(error)]() mutable { c(std::move(content), isComplete, error); },
             /*owed=*/true);
}

// Before ready nothing was written or read, so pending operations are dropped without their
// completions; after ready they complete with ECANCELED.
void AsioConnection::abandonPendingLocked(bool wasReady) {
  if (wasReady) {
    const NWError cancelled = NWError::fromErrno(ECANCELED);
    for (auto& send : sends_) {
      if (send.completion) {
        postLocked([c = std::move(send.completion), cancelled] { c(cancelled); });
      }
    }
    for (auto& receive : receives_) {
      postLocked(
          [c = std::move(receive.completion), cancelled] { c(std::nullopt, false, cancelled); });
    }
  }
  sends_.clear();
  receives_.clear();
  written_ = 0;
  Bytes().swap(inbound_);
}

}  // namespace tarnwick
