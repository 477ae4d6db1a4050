#include "FrontDoorHarness.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

#include "HostPort.h"
#include "platform/posix/Sockets.h"

namespace tarnwick::frontdoor {

void LineLog::add(std::string_view line) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.emplace_back(line);
  }
  arrived_.notify_all();
}

std::optional<std::string> LineLog::waitFor(const std::vector<std::string>& fragments) {
  std::unique_lock<std::mutex> lock(mutex_);
  std::optional<std::string> match;
  arrived_.wait_for(lock, kPatience, [&] {
    for (const auto& line : lines_) {
      bool all = true;
      for (const auto& fragment : fragments) all = all && line.find(fragment) != line.npos;
      if (all) {
        match = line;
        return true;
      }
    }
    return false;
  });
  return match;
}

std::vector<std::string> LineLog::lines() {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

RunningFrontDoor::RunningFrontDoor(FrontDoorConfig config) {
  std::string error;
  front_door_ = FrontDoor::create(
      config, [this](std::string_view line) { log_.add(line); }, error);
  if (!front_door_) {
    ADD_FAILURE() << "front door did not start: " << error;
    return;
  }
  thread_ = std::thread([this] { front_door_->run(); });
}

RunningFrontDoor::~RunningFrontDoor() { stop(); }

void RunningFrontDoor::stop() {
  if (!thread_.joinable()) return;
  front_door_->stop();
  thread_.join();
}

SocketAddress RunningFrontDoor::address() const {
  if (!front_door_) return {};
  const auto hostPort = splitHostPort(front_door_->boundAddress());
  return loopback(hostPort->host, hostPort->port);
}

EchoServer::EchoServer(const std::string& host) {
  std::string error;
  listener_ = bindTcpSocket(loopback(host, 0), error);
  if (!listener_ || ::listen(listener_.get(), 128) != 0) {
    ADD_FAILURE() << "echo server: " << error;
    return;
  }
  port_ = splitHostPort(formatAddress(*localAddress(listener_.get())))->port;
  acceptor_ = std::thread([this] { acceptLoop(); });
}

EchoServer::~EchoServer() {
  ::shutdown(listener_.get(), SHUT_RDWR);  // wakes the acceptor
  if (acceptor_.joinable()) acceptor_.join();
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto& worker : workers_) worker.join();
}

void EchoServer::acceptLoop() {
  while (true) {
    pollfd ready{listener_.get(), POLLIN, 0};
    if (::poll(&ready, 1, -1) < 0 && errno != EINTR) return;
    const int client = ::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) {
      if (errno == EAGAIN || errno == EINTR) continue;
      return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    workers_.emplace_back([fd = UniqueFd(client)]() mutable {
      std::vector<char> buffer(64 * 1024);
      while (readableWithin(fd.get(), kPatience)) {
        const ssize_t count = ::recv(fd.get(), buffer.data(), buffer.size(), 0);
        if (count <= 0) break;
        sendAll(fd.get(), {buffer.data(), static_cast<std::size_t>(count)});
      }
      ::shutdown(fd.get(), SHUT_WR);
    });
  }
}

SocketAddress loopback(const std::string& host, std::uint16_t port) {
  return literalAddress(host, port).value_or(SocketAddress{});
}

std::pair<UniqueFd, std::uint16_t> refusingPort(const std::string& host) {
  std::string error;
  UniqueFd fd = bindTcpSocket(loopback(host, 0), error);
  const auto bound = localAddress(fd.get());
  const std::uint16_t port = bound ? splitHostPort(formatAddress(*bound))->port : 0;
  return {std::move(fd), port};
}

UniqueFd connectTo(const SocketAddress& address) {
  UniqueFd fd(::socket(address.family(), SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (fd && ::connect(fd.get(), address.get(), address.length) != 0) fd.reset();
  return fd;
}

void sendAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count <= 0) return;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
}

bool readableWithin(int fd, std::chrono::milliseconds time) {
  pollfd ready{fd, POLLIN, 0};
  return ::poll(&ready, 1, static_cast<int>(time.count())) > 0;
}

std::string readHead(int fd) {
  std::string head;
  char c = 0;
  while (!head.ends_with("\r\n\r\n") && readableWithin(fd, kPatience) &&
         ::recv(fd, &c, 1, 0) == 1) {
    head.push_back(c);
  }
  return head;
}

std::string readToEnd(int fd) {
  std::string all;
  char buffer[16 * 1024];
  while (readableWithin(fd, kPatience)) {
    const ssize_t count = ::recv(fd, buffer, sizeof buffer, 0);
    if (count <= 0) break;
    all.append(buffer, static_cast<std::size_t>(count));
  }
  return all;
}

std::string exchange(int fd, std::string_view payload) {
  std::string received;
  char buffer[64 * 1024];
  bool writing = true;
  if (payload.empty()) {
    ::shutdown(fd, SHUT_WR);
    writing = false;
  }
  while (true) {
    pollfd ready{fd, static_cast<short>(POLLIN | (writing ? POLLOUT : 0)), 0};
    if (::poll(&ready, 1, static_cast<int>(kPatience.count())) <= 0) break;
    if ((ready.revents & POLLOUT) != 0 && writing) {
      const ssize_t count = ::send(fd, payload.data(), payload.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (count > 0) payload.remove_prefix(static_cast<std::size_t>(count));
      if (payload.empty() || count < 0) {
        ::shutdown(fd, SHUT_WR);
        writing = false;
      }
    }
    if ((ready.revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
      const ssize_t count = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
      if (count == 0 || (count < 0 && errno != EAGAIN)) break;
      if (count > 0) received.append(buffer, static_cast<std::size_t>(count));
    }
  }
  return received;
}

std::string connectHead(std::string_view authority, std::string_view headers) {
  return "CONNECT " + std::string(authority) + " HTTP/1.1\r\n" + std::string(headers) + "\r\n";
}

}  // namespace tarnwick::frontdoor
