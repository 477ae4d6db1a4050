#include "platform/OutputStream.h"

namespace tarnwick {

void OutputStream::open() {
  if (status_ == StreamStatus::NotOpen && socket_) status_ = StreamStatus::Open;
}

std::int64_t OutputStream::write(const std::uint8_t* buffer, std::size_t maxLength) {
  if (status_ != StreamStatus::Open) return -1;
  const std::int64_t n = socket_->send(buffer, maxLength);
  if (n <= 0) status_ = StreamStatus::Error;
  return n;
}

void OutputStream::close() {
  if (status_ == StreamStatus::Closed) return;
  status_ = StreamStatus::Closed;
  if (!socket_) return;
  // A thread blocked reading this socket does not wake when the descriptor is closed; shutting
  // the connection down does wake it.
  socket_->shutdown();
  socket_.reset();
}

}  // namespace tarnwick
