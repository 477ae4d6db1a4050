#include "platform/testing/LoopbackServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace tarnwick {
namespace {

[[noreturn]] void die(const char* what) {
  std::fprintf(stderr, "LoopbackServer: %s: %s\n", what, std::strerror(errno));
  std::abort();
}

struct LoopbackAddress {
  sockaddr_storage storage{};
  socklen_t length = 0;
};

LoopbackAddress parse(const std::string& address) {
  LoopbackAddress out;
  auto* v4 = reinterpret_cast<sockaddr_in*>(&out.storage);
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&out.storage);
  if (inet_pton(AF_INET, address.c_str(), &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    out.length = sizeof *v4;
  } else if (inet_pton(AF_INET6, address.c_str(), &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    out.length = sizeof *v6;
  } else {
    die("not an address literal");
  }
  return out;
}

std::uint16_t portOf(int fd) {
  sockaddr_storage bound{};
  socklen_t length = sizeof bound;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &length) != 0) die("getsockname");
  if (bound.ss_family == AF_INET) return ntohs(reinterpret_cast<sockaddr_in*>(&bound)->sin_port);
  return ntohs(reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port);
}

bool waitReadable(int fd) {
  pollfd readable{fd, POLLIN, 0};
  return poll(&readable, 1, static_cast<int>(LoopbackServer::kPatience.count())) > 0;
}

}  // namespace

LoopbackServer::Peer::~Peer() {
  if (fd_ >= 0) ::close(fd_);
}

std::string LoopbackServer::Peer::readSome(std::size_t count) {
  if (sawEnd_ || !waitReadable(fd_)) return {};
  std::string out(count, '\0');
  const ssize_t got = ::recv(fd_, out.data(), count, 0);
  if (got <= 0) {
    sawEnd_ = got == 0;
    sawReset_ = got < 0 && errno == ECONNRESET;
    return {};
  }
  out.resize(static_cast<std::size_t>(got));
  return out;
}

void LoopbackServer::Peer::reset() {
  const linger abortive{1, 0};
  ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
  ::close(std::exchange(fd_, -1));
}

std::string LoopbackServer::Peer::read(std::size_t count) {
  std::string out;
  while (out.size() < count) {
    const std::string more = readSome(count - out.size());
    if (more.empty()) break;
    out += more;
  }
  return out;
}

std::string LoopbackServer::Peer::readToEnd() {
  std::string out;
  for (std::string more = readSome(65536); !more.empty(); more = readSome(65536)) out += more;
  return out;
}

void LoopbackServer::Peer::write(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t put = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (put <= 0) return;
    bytes.remove_prefix(static_cast<std::size_t>(put));
  }
}

void LoopbackServer::Peer::shutdownWrite() { ::shutdown(fd_, SHUT_WR); }

LoopbackServer::LoopbackServer(const std::string& address, Mode mode) {
  const LoopbackAddress bindTo = parse(address);
  listener_ = socket(bindTo.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listener_ < 0) die("socket");
  if (bind(listener_, reinterpret_cast<const sockaddr*>(&bindTo.storage), bindTo.length) != 0) {
    die("bind");
  }
  port_ = portOf(listener_);
  if (mode == Mode::Refuse) return;
  // With a backlog of 0 the accept queue holds one connection; the filler takes that place.
  if (listen(listener_, mode == Mode::Stall ? 0 : 64) != 0) die("listen");
  if (mode == Mode::Stall) {
    LoopbackAddress target = parse(address);
    auto* port = target.storage.ss_family == AF_INET
                     ? &reinterpret_cast<sockaddr_in*>(&target.storage)->sin_port
                     : &reinterpret_cast<sockaddr_in6*>(&target.storage)->sin6_port;
    *port = htons(port_);
    stallFiller_ = socket(target.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(stallFiller_, reinterpret_cast<const sockaddr*>(&target.storage), target.length) !=
        0) {
      die("connect (filler)");
    }
    return;
  }
  int wake[2];
  if (pipe2(wake, O_CLOEXEC) != 0) die("pipe2");
  wakeRead_ = wake[0];
  wakeWrite_ = wake[1];
  acceptor_ = std::thread([this] { acceptLoop(); });
}

LoopbackServer::~LoopbackServer() {
  if (acceptor_.joinable()) {
    const char stop = 1;
    (void)!::write(wakeWrite_, &stop, 1);
    acceptor_.join();
  }
  peers_.clear();
  for (int fd : {listener_, stallFiller_, wakeRead_, wakeWrite_}) {
    if (fd >= 0) ::close(fd);
  }
}

void LoopbackServer::acceptLoop() {
  for (;;) {
    pollfd fds[2] = {{listener_, POLLIN, 0}, {wakeRead_, POLLIN, 0}};
    if (poll(fds, 2, -1) < 0 || fds[1].revents != 0) return;
    const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      peers_.push_back(std::make_unique<Peer>(fd));
    }
    accepted_.notify_all();
  }
}

LoopbackServer::Peer* LoopbackServer::peer(std::size_t index) {
  std::unique_lock<std::mutex> lock(mutex_);
  accepted_.wait_for(lock, kPatience, [&] { return peers_.size() > index; });
  return peers_.size() > index ? peers_[index].get() : nullptr;
}

std::size_t LoopbackServer::acceptedCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return peers_.size();
}

}  // namespace tarnwick
