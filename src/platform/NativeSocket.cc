#include "platform/NativeSocket.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace tarnwick {

NativeSocket::Created NativeSocket::unixStream() {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return {nullptr, errno};
  return {std::make_shared<NativeSocket>(fd), 0};
}

NativeSocket::~NativeSocket() { ::close(fd_); }

int NativeSocket::connectUnix(std::string_view path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::size_t copied = std::min(path.size(), sizeof(address.sun_path));
  std::memcpy(address.sun_path, path.data(), copied);
  // The zero-filled structure supplies the terminating zero whenever the path fits.
  if (::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) return 0;
  return errno;
}

void NativeSocket::setSendTimeout(Duration timeout) {
  const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(timeout).count();
  timeval value{};
  value.tv_sec = static_cast<time_t>(micros / 1'000'000);
  value.tv_usec = static_cast<suseconds_t>(micros % 1'000'000);
  ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &value, sizeof(value));
}

std::int64_t NativeSocket::send(const std::uint8_t* bytes, std::size_t length) {
  for (;;) {
    const ssize_t n = ::send(fd_, bytes, length, MSG_NOSIGNAL);
    if (n >= 0 || errno != EINTR) return n;
  }
}

std::int64_t NativeSocket::receive(std::uint8_t* bytes, std::size_t length) {
  for (;;) {
    const ssize_t n = ::recv(fd_, bytes, length, 0);
    if (n >= 0 || errno != EINTR) return n;
  }
}

void NativeSocket::shutdown() { ::shutdown(fd_, SHUT_RDWR); }

}  // namespace tarnwick
