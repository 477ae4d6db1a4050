#include "host/control/ControlClient.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "host/control/ControlSocket.h"
#include "platform/posix/UniqueFd.h"

namespace tarnwick::host {
namespace {

using Clock = std::chrono::steady_clock;

// Waits until `fd` is ready for `events` or `deadline` passes; false on the deadline.
bool waitFor(int fd, short events, Clock::time_point deadline) {
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) return false;
    pollfd ready{fd, events, 0};
    const int n = ::poll(&ready, 1, static_cast<int>(left.count()));
    if (n > 0) return true;
    if (n < 0 && errno != EINTR) return true;  // the next call says what is wrong
  }
}

bool sendAll(int fd, const Bytes& bytes, Clock::time_point deadline, std::string& error) {
  for (std::size_t sent = 0; sent < bytes.size();) {
    if (!waitFor(fd, POLLOUT, deadline)) return error = "the request was not taken in time", false;
    const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (n <= 0) return error = std::string("send: ") + std::strerror(errno), false;
    sent += static_cast<std::size_t>(n);
  }
  return true;
}

std::optional<Bytes> readToEnd(int fd, Clock::time_point deadline, std::string& error) {
  Bytes reply;
  std::uint8_t chunk[4096];
  for (;;) {
    if (!waitFor(fd, POLLIN, deadline)) return error = "no reply in time", std::nullopt;
    const ssize_t got = ::recv(fd, chunk, sizeof chunk, 0);
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (got < 0) return error = std::string("receive: ") + std::strerror(errno), std::nullopt;
    if (got == 0) return reply;
    reply.insert(reply.end(), chunk, chunk + got);
  }
}

}  // namespace

std::optional<Bytes> sendControlRequest(const std::string& path, ControlOperation operation,
                                        const Bytes& body, std::string& error,
                                        std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  const auto fail = [&](const std::string& why) {
    error = "control socket " + path + ": " + why;
    return std::nullopt;
  };
  if (!fitsUnixSocketAddress(path)) return fail("the path is empty or too long");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  const UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket ||
      ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return fail(std::string("cannot connect: ") + std::strerror(errno) +
                (errno == ENOENT || errno == ECONNREFUSED ? " (is the interceptor running?)" : ""));
  }
  std::string why;
  if (!sendAll(socket.get(), controlRequestBytes(operation, body), deadline, why)) return fail(why);
  ::shutdown(socket.get(), SHUT_WR);
  auto reply = readToEnd(socket.get(), deadline, why);
  if (!reply) return fail(why + " (waited " + std::to_string(timeout.count()) + " ms)");
  if (reply->empty()) return fail("the interceptor closed the connection without a reply");
  return reply;
}

}  // namespace tarnwick::host
