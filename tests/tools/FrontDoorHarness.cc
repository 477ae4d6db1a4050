#include "FrontDoorHarness.h"

#include <fcntl.h>
#include <gtest/gtest.h>
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
  if (!listener_ || ::listen(listener_.get(), 128) != 0) ADD_FAILURE() << "echo: " << error;
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

}  // namespace tarnwick::frontdoor
