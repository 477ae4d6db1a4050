#include "platform/posix/Sockets.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <cerrno>
#include <cstring>

namespace tarnwick {
namespace {

UniqueFd openTcpSocket(int family) {
  return UniqueFd(::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP));
}

void setFlag(int fd, int level, int option) {
  const int on = 1;
  ::setsockopt(fd, level, option, &on, sizeof on);
}

}  // namespace

UniqueFd bindTcpSocket(const SocketAddress& address, std::string& error, PortSharing sharing) {
  UniqueFd fd = openTcpSocket(address.family());
  if (!fd) {
    error = std::string("socket: ") + std::strerror(errno);
    return fd;
  }
  setFlag(fd.get(), SOL_SOCKET, SO_REUSEADDR);
  if (sharing == PortSharing::Shared) setFlag(fd.get(), SOL_SOCKET, SO_REUSEPORT);
  if (address.family() == AF_INET6) setFlag(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY);
  if (::bind(fd.get(), address.get(), address.length) != 0) {
    error = std::string("bind: ") + std::strerror(errno);
    fd.reset();
  }
  return fd;
}

DialStart startDial(const SocketAddress& address, std::optional<std::uint32_t> mark,
                    std::chrono::milliseconds connectTimeout) {
  DialStart start{openTcpSocket(address.family()), 0};
  if (!start.fd) {
    start.error = errno;
    return start;
  }
  if (mark && ::setsockopt(start.fd.get(), SOL_SOCKET, SO_MARK, &*mark, sizeof *mark) != 0) {
    start.error = errno;
    start.fd.reset();
    return start;
  }
  if (connectTimeout.count() > 0) {
    const unsigned timeout = static_cast<unsigned>(connectTimeout.count());
    ::setsockopt(start.fd.get(), IPPROTO_TCP, TCP_USER_TIMEOUT, &timeout, sizeof timeout);
  }
  if (::connect(start.fd.get(), address.get(), address.length) != 0 && errno != EINPROGRESS) {
    start.error = errno;
    start.fd.reset();
  }
  return start;
}

void keepConnectedForever(int fd) {
  const unsigned none = 0;
  ::setsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &none, sizeof none);
}

int connectError(int fd) {
  int error = 0;
  socklen_t length = sizeof error;
  if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) return errno;
  return error;
}

void resetAndClose(UniqueFd& fd) {
  if (!fd) return;
  const linger hard{1, 0};
  ::setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
  fd.reset();
}

void setNoDelay(int fd) { setFlag(fd, IPPROTO_TCP, TCP_NODELAY); }

}  // namespace tarnwick
