#include "RelayDirection.h"

#include <sys/socket.h>

#include <cerrno>
#include <utility>

namespace tarnwick::frontdoor {
namespace {

bool wouldBlock(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }

}  // namespace

RelayDirection::Progress RelayDirection::pump(int from, int to, std::span<std::uint8_t> scratch) {
  const ssize_t count = ::recv(from, scratch.data(), scratch.size(), 0);
  if (count > 0) return forward(to, scratch.first(static_cast<std::size_t>(count)));
  if (count < 0) return wouldBlock(errno) ? Progress::Ok : Progress::ReadFailed;
  ended_ = true;
  if (pending_.empty()) passOnEnd(to);
  return Progress::Ok;
}

RelayDirection::Progress RelayDirection::forward(int to, std::span<const std::uint8_t> bytes) {
  if (forwarded_ == 0 && !bytes.empty() && first_bytes_)
    std::exchange(first_bytes_, nullptr)(bytes);
  forwarded_ += bytes.size();
  return write(to, bytes);
}

RelayDirection::Progress RelayDirection::inject(int to, std::span<const std::uint8_t> bytes) {
  return write(to, bytes);
}

RelayDirection::Progress RelayDirection::write(int to, std::span<const std::uint8_t> bytes) {
  if (!pending_.empty()) {
    pending_.insert(pending_.end(), bytes.begin(), bytes.end());
    return Progress::Ok;
  }
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t count = ::send(to, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (count < 0) {
      if (wouldBlock(errno)) break;
      return Progress::WriteFailed;
    }
    sent += static_cast<std::size_t>(count);
  }
  pending_.assign(bytes.begin() + static_cast<std::ptrdiff_t>(sent), bytes.end());
  pending_offset_ = 0;
  return Progress::Ok;
}

RelayDirection::Progress RelayDirection::flush(int to) {
  while (pending_offset_ < pending_.size()) {
    const ssize_t count = ::send(to, pending_.data() + pending_offset_,
                                 pending_.size() - pending_offset_, MSG_NOSIGNAL);
    if (count < 0) return wouldBlock(errno) ? Progress::Ok : Progress::WriteFailed;
    pending_offset_ += static_cast<std::size_t>(count);
  }
  std::vector<std::uint8_t>().swap(pending_);  // give the memory back while idle
  pending_offset_ = 0;
  if (ended_) passOnEnd(to);
  return Progress::Ok;
}

void RelayDirection::passOnEnd(int to) {
  if (shut_down_) return;
  shut_down_ = true;
  // The receiver may already be gone; its own socket error ends the connection then.
  ::shutdown(to, SHUT_WR);
}

}  // namespace tarnwick::frontdoor
