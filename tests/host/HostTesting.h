#pragma once
// Client sockets and byte patterns for the host's loopback tests. Blocking reads give up after
// kPatience, so a broken test fails instead of hanging.

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/posix/SocketAddress.h"
#include "platform/posix/UniqueFd.h"

namespace tarnwick::host {

inline constexpr std::chrono::milliseconds kPatience{5000};

// Bytes whose value depends on their position, so a lost, doubled or reordered chunk shows.
std::string patterned(std::size_t size);

SocketAddress loopbackAddress(const std::string& host, std::uint16_t port);

// A blocking client connection, used by one test thread.
class TestClient {
 public:
  explicit TestClient(const SocketAddress& address);
  bool connected() const { return fd_.valid(); }
  int fd() const { return fd_.get(); }

  void send(std::string_view bytes);
  void shutdownWrite();
  // Everything until the end of the stream, an error or kPatience; error() tells which.
  std::string readToEnd();
  std::string read(std::size_t count);
  // 0 at a clean end, the errno of a failed read (ECONNRESET), or ETIMEDOUT when patience ran out.
  int error() const { return error_; }

 private:
  UniqueFd fd_;
  int error_ = 0;
};

}  // namespace tarnwick::host
