#include "HostTesting.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

namespace tarnwick::host {

std::string patterned(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 7 + i / 251) & 0xff);
  return bytes;
}

SocketAddress loopbackAddress(const std::string& host, std::uint16_t port) {
  return literalAddress(host, port).value_or(SocketAddress{});
}

TestClient::TestClient(const SocketAddress& address)
    : fd_(::socket(address.family(), SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  if (fd_ && ::connect(fd_.get(), address.get(), address.length) != 0) fd_.reset();
}

void TestClient::send(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count <= 0) return;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
}

void TestClient::shutdownWrite() { ::shutdown(fd_.get(), SHUT_WR); }

std::string TestClient::read(std::size_t count) {
  std::string bytes;
  char chunk[65536];
  while (bytes.size() < count) {
    pollfd ready{fd_.get(), POLLIN, 0};
    if (::poll(&ready, 1, static_cast<int>(kPatience.count())) <= 0) {
      error_ = ETIMEDOUT;
      return bytes;
    }
    const ssize_t got = ::recv(fd_.get(), chunk, std::min(sizeof chunk, count - bytes.size()), 0);
    if (got <= 0) {
      error_ = got < 0 ? errno : 0;
      return bytes;
    }
    bytes.append(chunk, static_cast<std::size_t>(got));
  }
  return bytes;
}

std::string TestClient::readToEnd() {
  std::string bytes;
  for (;;) {
    std::string some = read(65536);
    bytes += some;
    if (some.size() < 65536) return bytes;
  }
}

}  // namespace tarnwick::host
