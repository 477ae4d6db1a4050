#pragma once
// The write side of a stream pair made over a connected socket (the platform's
// CFStreamCreatePairWithSocket with the native socket owned by the stream). The stream is open or
// not; closing it ends the connection and gives up its hold on the socket, which is closed once
// no read loop holds it either. A failed write leaves the stream in the error state.
//
// Not thread-safe: its owner serialises every call (the bridge does so on its queue).

#include <cstddef>
#include <cstdint>
#include <memory>

#include "platform/NativeSocket.h"

namespace tarnwick {

enum class StreamStatus { NotOpen, Open, Closed, Error };

class OutputStream {
 public:
  explicit OutputStream(std::shared_ptr<NativeSocket> socket) : socket_(std::move(socket)) {}
  ~OutputStream() { close(); }
  OutputStream(const OutputStream&) = delete;
  OutputStream& operator=(const OutputStream&) = delete;

  void open();
  StreamStatus streamStatus() const { return status_; }
  // One write of at most `maxLength` bytes: the count written, or 0 or less on failure (a peer
  // that has gone included). Fails at once unless the stream is open.
  std::int64_t write(const std::uint8_t* buffer, std::size_t maxLength);
  // Idempotent.
  void close();

 private:
  std::shared_ptr<NativeSocket> socket_;
  StreamStatus status_ = StreamStatus::NotOpen;
};

}  // namespace tarnwick
