#include "EventSink.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tarnwick::e2e {
namespace {

std::string kindOf(const nlohmann::json& event) {
  const auto kind = event.find("kind");
  return kind != event.end() && kind->is_string() ? kind->get<std::string>() : std::string();
}

}  // namespace

EventSink::EventSink(std::string path) : path_(std::move(path)) {}

EventSink::~EventSink() { stop(); }

bool EventSink::start(std::string& error) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path_.size() >= sizeof address.sun_path) {
    error = "socket path too long: " + path_;
    return false;
  }
  std::memcpy(address.sun_path, path_.c_str(), path_.size() + 1);
  unlink(path_.c_str());
  listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int wake[2];
  if (listen_fd_ < 0 || bind(listen_fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) ||
      listen(listen_fd_, 16) != 0 || pipe2(wake, O_CLOEXEC) != 0) {
    error = "event socket " + path_ + ": " + std::strerror(errno);
    stop();
    return false;
  }
  wake_read_ = wake[0];
  wake_write_ = wake[1];
  acceptor_ = std::thread([this] { acceptLoop(); });
  return true;
}

void EventSink::stop() {
  if (acceptor_.joinable()) {
    (void)!write(wake_write_, "x", 1);
    acceptor_.join();
  }
  std::vector<std::thread> readers;
  {
    std::lock_guard lock(mutex_);
    for (int fd : open_) shutdown(fd, SHUT_RDWR);
    readers.swap(readers_);
  }
  for (auto& reader : readers) reader.join();
  for (int* fd : {&listen_fd_, &wake_read_, &wake_write_}) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
  }
  unlink(path_.c_str());
}

void EventSink::acceptLoop() {
  pollfd fds[2] = {{listen_fd_, POLLIN, 0}, {wake_read_, POLLIN, 0}};
  while (poll(fds, 2, -1) >= 0 && !(fds[1].revents & POLLIN)) {
    const int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    std::lock_guard lock(mutex_);
    open_.insert(fd);
    readers_.emplace_back([this, fd] { readLoop(fd); });
  }
}

void EventSink::readLoop(int fd) {
  std::string pending;
  char chunk[4096];
  for (;;) {
    const ssize_t n = recv(fd, chunk, sizeof chunk, 0);
    if (n <= 0) break;
    pending.append(chunk, static_cast<std::size_t>(n));
    for (auto end = pending.find('\n'); end != std::string::npos; end = pending.find('\n')) {
      keep(pending.substr(0, end));
      pending.erase(0, end + 1);
    }
  }
  std::lock_guard lock(mutex_);
  open_.erase(fd);
  close(fd);
}

void EventSink::keep(const std::string& line) {
  auto event = nlohmann::json::parse(line, nullptr, /*allow_exceptions=*/false);
  if (event.is_discarded() || !event.is_object()) return;
  {
    std::lock_guard lock(mutex_);
    events_.push_back(std::move(event));
  }
  arrived_.notify_all();
}

std::vector<nlohmann::json> EventSink::events() const {
  std::lock_guard lock(mutex_);
  return events_;
}

std::vector<nlohmann::json> EventSink::eventsOfKind(const std::string& kind) const {
  std::vector<nlohmann::json> matching;
  for (auto& event : events()) {
    if (kindOf(event) == kind) matching.push_back(std::move(event));
  }
  return matching;
}

std::optional<nlohmann::json> EventSink::waitFor(
    const std::string& kind, std::chrono::milliseconds limit,
    const std::function<bool(const nlohmann::json&)>& match) const {
  std::unique_lock lock(mutex_);
  std::optional<nlohmann::json> found;
  arrived_.wait_for(lock, limit, [&] {
    for (const auto& event : events_) {
      if (kindOf(event) == kind && (!match || match(event))) {
        found = event;
        return true;
      }
    }
    return false;
  });
  return found;
}

bool EventSink::waitForCount(const std::string& kind, std::size_t count,
                             std::chrono::milliseconds limit) const {
  std::unique_lock lock(mutex_);
  return arrived_.wait_for(lock, limit, [&] {
    std::size_t seen = 0;
    for (const auto& event : events_) seen += kindOf(event) == kind;
    return seen >= count;
  });
}

}  // namespace tarnwick::e2e
