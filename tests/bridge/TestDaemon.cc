#include "TestDaemon.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace tarnwick::testing {

namespace {

bool waitReadable(int fd, std::chrono::milliseconds timeout) {
  pollfd entry{fd, POLLIN, 0};
  return ::poll(&entry, 1, static_cast<int>(timeout.count())) == 1;
}

}  // namespace

TempSocketDir::TempSocketDir() {
  char pattern[] = "/tmp/twb-XXXXXX";
  if (!::mkdtemp(pattern)) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempSocketDir::~TempSocketDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

TestDaemon::TestDaemon(std::string path) : path_(path.substr(0, sizeof(sockaddr_un::sun_path))) {
  listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path_.data(), std::min(path_.size(), sizeof(address.sun_path)));
  if (::bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      ::listen(listener_, 8) != 0) {
    throw std::runtime_error("cannot listen at " + path_ + ": " + std::strerror(errno));
  }
}

TestDaemon::~TestDaemon() {
  closeConnection();
  stopListening();
}

bool TestDaemon::accept(std::chrono::milliseconds timeout) {
  if (listener_ < 0 || !waitReadable(listener_, timeout)) return false;
  const int accepted = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  if (accepted < 0) return false;
  closeConnection();
  connection_ = accepted;
  return true;
}

bool TestDaemon::readMore(std::chrono::milliseconds timeout) {
  if (connection_ < 0 || ended_ || !waitReadable(connection_, timeout)) return false;
  char chunk[65536];
  const ssize_t n = ::recv(connection_, chunk, sizeof(chunk), 0);
  if (n <= 0) {
    ended_ = true;
    return false;
  }
  received_.append(chunk, static_cast<std::size_t>(n));
  return true;
}

std::optional<std::string> TestDaemon::readLine(std::chrono::milliseconds timeout) {
  for (;;) {
    const std::size_t feed = received_.find('\n', taken_);
    if (feed != std::string::npos) {
      std::string line = received_.substr(taken_, feed - taken_);
      taken_ = feed + 1;
      return line;
    }
    if (!readMore(timeout)) return std::nullopt;
  }
}

bool TestDaemon::waitForEnd(std::chrono::milliseconds timeout) {
  while (!ended_) {
    if (!readMore(timeout) && !ended_) return false;
  }
  return true;
}

void TestDaemon::write(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::send(connection_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n <= 0) return;
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
}

void TestDaemon::closeConnection() {
  if (connection_ >= 0) ::close(connection_);
  connection_ = -1;
  received_.clear();
  taken_ = 0;
  ended_ = false;
}

void TestDaemon::stopListening() {
  if (listener_ < 0) return;
  ::close(listener_);
  listener_ = -1;
  ::unlink(path_.c_str());
}

}  // namespace tarnwick::testing
