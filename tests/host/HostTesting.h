#pragma once
// Client sockets and byte patterns for the host's loopback tests. Blocking reads give up after
// kPatience, so a broken test fails instead of hanging.

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <thread>

#include "platform/posix/SocketAddress.h"
#include "platform/posix/UniqueFd.h"

namespace tarnwick::host {

inline constexpr int kPatienceMs = 5000;

// Bytes whose value depends on their position, so a lost, doubled or reordered chunk shows.
inline std::string patterned(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 7 + i / 251) & 0xff);
  return bytes;
}

// Polls `done` until it holds, for up to kPatienceMs.
inline bool eventually(const std::function<bool()>& done) {
  for (int waited = 0; !done() && waited < kPatienceMs; ++waited)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return done();
}

inline SocketAddress loopbackAddress(const std::string& host, std::uint16_t port) {
  return literalAddress(host, port).value_or(SocketAddress{});
}

// A blocking connection (a client, or an accepted one), used by one test thread at a time.
class TestClient {
 public:
  explicit TestClient(const SocketAddress& address)
      : fd_(::socket(address.family(), SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    if (fd_ && ::connect(fd_.get(), address.get(), address.length) != 0) fd_.reset();
  }
  explicit TestClient(UniqueFd accepted) : fd_(std::move(accepted)) {}
  int fd() const { return fd_.get(); }
  // Writes all of `bytes`, then ends the stream if `end`.
  void write(std::string_view bytes, bool end) {
    for (ssize_t sent; !bytes.empty(); bytes.remove_prefix(static_cast<std::size_t>(sent))) {
      if ((sent = ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL)) <= 0) return;
    }
    if (end) ::shutdown(fd_.get(), SHUT_WR);
  }
  // Everything until the end of the stream, an error or kPatienceMs; error() tells which: 0 at
  // a clean end, the errno of a failed read (ECONNRESET), or ETIMEDOUT.
  std::string readToEnd() {
    std::string bytes;
    char chunk[65536];
    for (pollfd ready{fd_.get(), POLLIN, 0};;) {
      if (::poll(&ready, 1, kPatienceMs) <= 0) return error_ = ETIMEDOUT, bytes;
      const ssize_t got = ::recv(fd_.get(), chunk, sizeof chunk, 0);
      if (got <= 0) return error_ = got < 0 ? errno : 0, bytes;
      bytes.append(chunk, static_cast<std::size_t>(got));
    }
  }
  int error() const { return error_; }
  // Closes with a reset rather than an end of stream.
  void reset() {
    const linger abortive{1, 0};
    ::setsockopt(fd_.get(), SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
    fd_.reset();
  }

 private:
  UniqueFd fd_;
  int error_ = 0;
};

// What `from` writes, and ends, as `to` reads it to the end.
inline std::string passed(TestClient& from, TestClient& to, const std::string& bytes) {
  std::thread writer([&] { from.write(bytes, true); });
  std::string received = to.readToEnd();
  writer.join();
  return received;
}

}  // namespace tarnwick::host
