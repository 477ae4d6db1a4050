#include "DaemonServer.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <span>

#include "bridge/LineBuffer.h"

namespace tarnwick::daemon {

std::unique_ptr<DaemonServer> DaemonServer::create(std::string path,
                                                   std::optional<std::string> pushLine,
                                                   Callbacks callbacks, std::string& error) {
  std::unique_ptr<DaemonServer> server(
      new DaemonServer(std::move(path), std::move(pushLine), std::move(callbacks)));
  if (!server->listen(error)) return nullptr;
  return server;
}

DaemonServer::DaemonServer(std::string path, std::optional<std::string> pushLine,
                           Callbacks callbacks)
    : path_(std::move(path)), push_line_(std::move(pushLine)), callbacks_(std::move(callbacks)) {}

DaemonServer::~DaemonServer() {
  if (listener_ >= 0) {
    ::close(listener_);
    ::unlink(path_.c_str());
  }
  if (stop_event_ >= 0) ::close(stop_event_);
}

bool DaemonServer::listen(std::string& error) {
  sockaddr_un address{};
  if (path_.empty() || path_.size() >= sizeof(address.sun_path)) {
    error = "socket path must have 1 to " + std::to_string(sizeof(address.sun_path) - 1) +
            " bytes: " + path_;
    return false;
  }
  std::error_code ignored;
  const auto directory = std::filesystem::path(path_).parent_path();
  if (!directory.empty()) std::filesystem::create_directories(directory, ignored);
  // A socket file left by a daemon that did not stop cleanly would make bind fail.
  struct stat existing {};
  if (::lstat(path_.c_str(), &existing) == 0 && S_ISSOCK(existing.st_mode)) ::unlink(path_.c_str());

  stop_event_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path_.data(), path_.size());
  if (stop_event_ < 0 || listener_ < 0 ||
      ::bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      ::listen(listener_, 16) != 0) {
    error = "cannot listen on " + path_ + ": " + std::strerror(errno);
    if (listener_ >= 0) ::close(listener_);
    listener_ = -1;
    return false;
  }
  return true;
}

void DaemonServer::stop() {
  const std::uint64_t one = 1;
  // Only a counter at its maximum refuses the write, and then a stop is already pending.
  if (stop_event_ >= 0 && ::write(stop_event_, &one, sizeof(one)) < 0) return;
}

bool DaemonServer::waitFor(int fd) {
  std::array<pollfd, 2> entries{{{fd, POLLIN, 0}, {stop_event_, POLLIN, 0}}};
  while (!stopped_) {
    if (::poll(entries.data(), entries.size(), -1) < 0 && errno != EINTR) stopped_ = true;
    if (entries[1].revents != 0) stopped_ = true;
    if (!stopped_ && entries[0].revents != 0) return true;
  }
  return false;
}

void DaemonServer::run() {
  while (waitFor(listener_)) {
    const int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) continue;
    serve(connection);
    ::close(connection);
  }
}

void DaemonServer::serve(int connection) {
  callbacks_.status("connected");
  if (push_line_) {
    // The bridge reads everything it is sent, so a small blocking write finishes.
    std::string_view rest = *push_line_;
    while (!rest.empty()) {
      const ssize_t n = ::send(connection, rest.data(), rest.size(), MSG_NOSIGNAL);
      if (n <= 0) break;
      rest.remove_prefix(static_cast<std::size_t>(n));
    }
    callbacks_.status("pushed policy (" + std::to_string(push_line_->size()) + " bytes)");
  }
  LineBuffer lines;
  std::array<std::uint8_t, 65536> chunk{};
  while (waitFor(connection)) {
    const ssize_t n = ::recv(connection, chunk.data(), chunk.size(), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    lines.append(std::span(chunk.data(), static_cast<std::size_t>(n)), callbacks_.event);
  }
  callbacks_.status("disconnected");
}

}  // namespace tarnwick::daemon
