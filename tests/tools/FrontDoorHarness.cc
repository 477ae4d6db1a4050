#include "FrontDoorHarness.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include "platform/posix/Sockets.h"

namespace tarnwick::frontdoor {

RunningFrontDoor::RunningFrontDoor(FrontDoorConfig config) {
  std::string error;
  const auto sink = [this](std::string_view line) {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.emplace_back(line);
    logged_.notify_all();
  };
  front_door_ = FrontDoor::create(config, sink, error);
  if (!front_door_) ADD_FAILURE() << "front door did not start: " << error;
  if (front_door_) thread_ = std::thread([this] { front_door_->run(); });
}

void RunningFrontDoor::stop() {
  if (!thread_.joinable()) return;
  front_door_->stop();
  thread_.join();
}

std::vector<std::string> RunningFrontDoor::lines(std::size_t count) {
  std::unique_lock<std::mutex> lock(mutex_);
  logged_.wait_for(lock, std::chrono::seconds(5), [&] { return lines_.size() >= count; });
  return lines_;
}

SocketAddress RunningFrontDoor::address() const {
  const auto bound = splitHostPort(front_door_ ? front_door_->boundAddress() : "");
  return bound ? literalAddress(bound->host, bound->port).value_or(SocketAddress{})
               : SocketAddress{};
}

EchoServer::EchoServer(const std::string& host) {
  std::string error;
  listener_ = bindTcpSocket(literalAddress(host, 0).value_or(SocketAddress{}), error);
  if (!listener_ || ::listen(listener_.get(), SOMAXCONN) != 0) ADD_FAILURE() << "echo: " << error;
  port_ = portOf(localAddress(listener_.get()).value_or(SocketAddress{}));
  ::fcntl(listener_.get(), F_SETFL, 0);  // blocking accepts
  acceptor_ = std::jthread([this] {
    for (int client; (client = ::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
      workers_.emplace_back([fd = UniqueFd(client)] {
        const timeval patience{5, 0};
        ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
        char buffer[64 * 1024];
        for (ssize_t n; (n = ::recv(fd.get(), buffer, sizeof(buffer), 0)) > 0;) {
          if (::send(fd.get(), buffer, static_cast<std::size_t>(n), MSG_NOSIGNAL) != n) break;
        }
        ::shutdown(fd.get(), SHUT_WR);
      });
    }
  });
}

EchoServer::~EchoServer() { ::shutdown(listener_.get(), SHUT_RDWR); }

namespace {

void setPatience(int fd) {
  const timeval patience{kPatience.count(), 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
}

}  // namespace

ManualDestination::ManualDestination() {
  std::string error;
  listener_ = bindTcpSocket(*literalAddress("127.0.0.1", 0), error);
  if (!listener_ || ::listen(listener_.get(), SOMAXCONN) != 0) ADD_FAILURE() << "dest: " << error;
}

std::string ManualDestination::authority() const {
  return formatAddress(localAddress(listener_.get()).value_or(SocketAddress{}));
}

UniqueFd ManualDestination::accept() {
  pollfd ready{listener_.get(), POLLIN, 0};
  if (::poll(&ready, 1, static_cast<int>(kPatience.count() * 1000)) != 1) return UniqueFd();
  UniqueFd fd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  if (fd) setPatience(fd.get());
  return fd;
}

UniqueFd connectTo(const SocketAddress& address, const std::function<void(int fd)>& prepare) {
  UniqueFd fd(::socket(address.family(), SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (prepare) prepare(fd.get());
  setPatience(fd.get());
  if (::connect(fd.get(), address.get(), address.length) != 0) return UniqueFd();
  return fd;
}

void setReceiveBuffer(int fd, int bytes) {
  ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
}

void sendAll(const UniqueFd& fd, const std::string& bytes) {
  // A blocking send sends it all, unless the connection fails.
  ::send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

std::string readExactly(const UniqueFd& fd, std::size_t count) {
  std::string bytes(count, '\0');
  const ssize_t n = ::recv(fd.get(), bytes.data(), count, MSG_WAITALL);
  bytes.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
  return bytes;
}

std::string readToEnd(const UniqueFd& fd) {
  std::string received;
  char buffer[64 * 1024];
  for (;;) {
    const ssize_t n = ::recv(fd.get(), buffer, sizeof(buffer), 0);
    if (n > 0) {
      received.append(buffer, static_cast<std::size_t>(n));
      continue;
    }
    if (n == 0) return received + "|end";
    if (errno == ECONNRESET) return received + "|reset";
    if (errno == EAGAIN || errno == EWOULDBLOCK) return received + "|timeout";
    return received + "|errno " + std::to_string(errno);
  }
}

std::string patternBytes(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 7 + i / 251);
  return bytes;
}

bool waitUntil(const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  return true;
}

}  // namespace tarnwick::frontdoor
