#pragma once
// Loopback pieces the front-door and relay benchmarks share: destinations, a front door serving
// on its own thread, CONNECT tunnels and echo rounds.

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <string>
#include <thread>
#include <vector>

#include "FrontDoor.h"
#include "HostPort.h"
#include "platform/posix/SocketAddress.h"
#include "platform/posix/Sockets.h"

namespace tarnwick::frontdoor {

inline constexpr std::string_view kAck = "HTTP/1.1 200 Connection established\r\n\r\n";

// A loopback destination: echoes on every connection, each served by a thread of its own, or,
// when not echoing, closes every connection it accepts.
class Destination {
 public:
  explicit Destination(bool echo) : echo_(echo) {
    std::string error;
    listener_ = bindTcpSocket(*literalAddress("127.0.0.1", 0), error);
    ::listen(listener_.get(), SOMAXCONN);
    port_ = splitHostPort(formatAddress(*localAddress(listener_.get())))->port;
    thread_ = std::thread([this] { serve(); });
  }
  ~Destination() {
    ::shutdown(listener_.get(), SHUT_RDWR);
    thread_.join();
    for (auto& worker : workers_) worker.join();
  }
  std::uint16_t port() const { return port_; }

 private:
  void serve() {
    while (true) {
      pollfd ready{listener_.get(), POLLIN, 0};
      ::poll(&ready, 1, -1);
      UniqueFd client(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!client) return;
      // Without TCP_NODELAY the last short segment of an echo may wait for a delayed ACK.
      setNoDelay(client.get());
      if (echo_) workers_.emplace_back([fd = std::move(client)] { echo(fd.get()); });
    }
  }
  // The buffer is on the stack, so heap measurements see only the relay's own memory.
  static void echo(int fd) {
    std::array<char, 64 * 1024> buffer;
    while (true) {
      const ssize_t count = ::recv(fd, buffer.data(), buffer.size(), 0);
      if (count <= 0) return;
      ::send(fd, buffer.data(), static_cast<std::size_t>(count), MSG_NOSIGNAL);
    }
  }

  bool echo_;
  UniqueFd listener_;
  std::uint16_t port_ = 0;
  std::thread thread_;
  std::vector<std::thread> workers_;
};

class ServingFrontDoor {
 public:
  ServingFrontDoor() {
    FrontDoorConfig config;
    config.listen = {"127.0.0.1", 0};
    std::string error;
    front_door_ = FrontDoor::create(
        config, [](std::string_view) {}, error);
    thread_ = std::thread([this] { front_door_->run(); });
  }
  ~ServingFrontDoor() {
    front_door_->stop();
    thread_.join();
  }
  SocketAddress address() const {
    const auto hostPort = splitHostPort(front_door_->boundAddress());
    return *literalAddress(hostPort->host, hostPort->port);
  }

 private:
  std::unique_ptr<FrontDoor> front_door_;
  std::thread thread_;
};

inline UniqueFd openTunnel(const SocketAddress& frontDoor, std::uint16_t destinationPort) {
  UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ::connect(fd.get(), frontDoor.get(), frontDoor.length);
  setNoDelay(fd.get());
  const std::string head = "CONNECT 127.0.0.1:" + std::to_string(destinationPort) +
                           " HTTP/1.1\r\nX-Brask-Pid: 4242\r\n\r\n";
  ::send(fd.get(), head.data(), head.size(), MSG_NOSIGNAL);
  char ack[kAck.size()];
  ::recv(fd.get(), ack, sizeof ack, MSG_WAITALL);
  return fd;
}

// Sends the chunk while reading its echo back, so neither direction stalls the other.
inline bool echoRound(int fd, const std::string& chunk, std::vector<char>& buffer) {
  std::size_t sent = 0;
  std::size_t received = 0;
  while (received < chunk.size()) {
    pollfd ready{fd, static_cast<short>(POLLIN | (sent < chunk.size() ? POLLOUT : 0)), 0};
    if (::poll(&ready, 1, 5000) <= 0) return false;
    if ((ready.revents & POLLOUT) != 0) {
      const ssize_t count =
          ::send(fd, chunk.data() + sent, chunk.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (count > 0) sent += static_cast<std::size_t>(count);
    }
    if ((ready.revents & POLLIN) != 0) {
      const ssize_t count = ::recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
      if (count <= 0) return false;
      received += static_cast<std::size_t>(count);
    }
  }
  return true;
}

}  // namespace tarnwick::frontdoor
