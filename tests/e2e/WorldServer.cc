#include "WorldServer.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "NetworkLab.h"

namespace tarnwick::e2e {
namespace {

bool writeAll(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
    if (n <= 0) return false;
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

int listenDualStack(std::uint16_t& port, std::string& error) {
  const int fd = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int off = 0;
  const int on = 1;
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_addr = in6addr_any;
  socklen_t length = sizeof address;
  if (fd < 0 || setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off) != 0 ||
      setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      listen(fd, 1024) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    error = std::string("world server: ") + std::strerror(errno);
    if (fd >= 0) close(fd);
    return -1;
  }
  port = ntohs(address.sin6_port);
  return fd;
}

}  // namespace

std::unique_ptr<WorldServer> WorldServer::start(const std::string& netns, ServerKind kind,
                                                std::string& error) {
  int fd = -1;
  std::uint16_t port = 0;
  NetworkLab::within(netns, [&] { fd = listenDualStack(port, error); });
  int wake[2];
  if (fd < 0 || pipe2(wake, O_CLOEXEC) != 0) {
    if (fd >= 0) close(fd);
    return nullptr;
  }
  std::unique_ptr<WorldServer> server(new WorldServer(fd, wake[0], wake[1], port, kind));
  server->acceptor_ = std::thread([raw = server.get()] { raw->acceptLoop(); });
  return server;
}

WorldServer::WorldServer(int listenFd, int wakeRead, int wakeWrite, std::uint16_t port,
                         ServerKind kind)
    : listen_fd_(listenFd),
      wake_read_(wakeRead),
      wake_write_(wakeWrite),
      port_(port),
      kind_(kind) {}

WorldServer::~WorldServer() {
  (void)!write(wake_write_, "x", 1);
  acceptor_.join();
  severAll();
  std::vector<std::thread> workers;
  {
    std::lock_guard lock(mutex_);
    workers.swap(workers_);
  }
  for (auto& worker : workers) worker.join();
  close(listen_fd_);
  close(wake_read_);
  close(wake_write_);
}

int WorldServer::connectionsAccepted() const {
  std::lock_guard lock(mutex_);
  return accepted_;
}

void WorldServer::severAll() {
  std::lock_guard lock(mutex_);
  for (int fd : open_) shutdown(fd, SHUT_RDWR);
}

void WorldServer::acceptLoop() {
  pollfd fds[2] = {{listen_fd_, POLLIN, 0}, {wake_read_, POLLIN, 0}};
  while (poll(fds, 2, -1) >= 0 && !(fds[1].revents & POLLIN)) {
    const int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    std::lock_guard lock(mutex_);
    ++accepted_;
    open_.insert(fd);
    workers_.emplace_back([this, fd] { serve(fd); });
  }
}

void WorldServer::serve(int fd) {
  std::string held;
  char chunk[65536] = {};
  if (kind_ == ServerKind::Flood) {
    while (writeAll(fd, chunk, sizeof chunk)) {
    }
  }
  if (kind_ == ServerKind::ResetEarly) {
    for (std::size_t got = 0; got < sizeof chunk;) {
      const ssize_t n = recv(fd, chunk, sizeof chunk - got, 0);
      if (n <= 0) break;
      got += static_cast<std::size_t>(n);
    }
    const linger reset{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
  }
  for (;;) {
    const ssize_t n = recv(fd, chunk, sizeof chunk, 0);
    if (n <= 0) break;
    if (kind_ == ServerKind::ReplyAfterEof) {
      held.append(chunk, static_cast<std::size_t>(n));
    } else if (!writeAll(fd, chunk, static_cast<std::size_t>(n))) {
      break;
    }
  }
  writeAll(fd, held.data(), held.size());
  shutdown(fd, SHUT_WR);
  {
    std::lock_guard lock(mutex_);
    open_.erase(fd);
  }
  close(fd);
}

}  // namespace tarnwick::e2e
