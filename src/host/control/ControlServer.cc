#include "host/control/ControlServer.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>

#include "host/HostLog.h"

namespace tarnwick::host {
namespace {

std::optional<sockaddr_un> unixAddress(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) return std::nullopt;
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

std::string failure(const std::string& what, const std::string& path) {
  return "control socket " + path + ": " + what + ": " + std::strerror(errno);
}

}  // namespace

// One control connection: reads the message to its end, then writes the reply.
// Loop thread only; owned by the server's table under its loop id, which it reports back.
class ControlServer::Connection : public IoHandler,
                                  public std::enable_shared_from_this<Connection> {
 public:
  Connection(std::weak_ptr<ControlServer> server, std::shared_ptr<HostLoop> loop, UniqueFd socket)
      : server_(std::move(server)), loop_(std::move(loop)), socket_(std::move(socket)) {}

  void start() {
    id_ = loop_->registerHandler(weak_from_this());
    loop_->add(socket_.get(), id_, 0, EPOLLIN);
  }
  std::uint64_t id() const { return id_; }
  ~Connection() override { loop_->unregisterHandler(id_); }

  void onIoEvent(std::uint32_t, std::uint32_t) override {
    if (replying_) return writeReply();
    std::uint8_t chunk[4096];
    for (;;) {
      const ssize_t got = ::recv(socket_.get(), chunk, sizeof chunk, MSG_DONTWAIT);
      if (got > 0 && message_.size() + static_cast<std::size_t>(got) <= kMaximumMessageBytes) {
        message_.insert(message_.end(), chunk, chunk + got);
        continue;
      }
      if (got < 0 && errno == EINTR) continue;
      if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
      if (got != 0) return end();
      // The client's end: the message is whole, and nothing more is read from this socket.
      loop_->modify(socket_.get(), id_, 0, 0);
      if (auto server = server_.lock()) server->answer(id_, std::move(message_));
      return;
    }
  }

  void reply(Bytes bytes) {
    replying_ = true;
    reply_ = std::move(bytes);
    writeReply();
  }

 private:
  void writeReply() {
    while (written_ < reply_.size()) {
      const ssize_t sent = ::send(socket_.get(), reply_.data() + written_, reply_.size() - written_,
                                  MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent < 0 && errno == EINTR) continue;
      if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        loop_->modify(socket_.get(), id_, 0, EPOLLOUT);
        return;
      }
      if (sent < 0) break;
      written_ += static_cast<std::size_t>(sent);
    }
    end();  // written or failed alike, the connection ends here
  }

  void end() {
    loop_->remove(socket_.get());
    if (auto server = server_.lock()) server->drop(id_);
  }

  const std::weak_ptr<ControlServer> server_;
  const std::shared_ptr<HostLoop> loop_;
  UniqueFd socket_;
  std::uint64_t id_ = 0;
  Bytes message_;
  bool replying_ = false;
  Bytes reply_;
  std::size_t written_ = 0;
};

std::shared_ptr<ControlServer> ControlServer::create(
    std::shared_ptr<HostLoop> loop, std::shared_ptr<DispatchQueue> framework,
    std::shared_ptr<NETransparentProxyProvider> provider) {
  return std::shared_ptr<ControlServer>(
      new ControlServer(std::move(loop), std::move(framework), std::move(provider)));
}

ControlServer::ControlServer(std::shared_ptr<HostLoop> loop,
                             std::shared_ptr<DispatchQueue> framework,
                             std::shared_ptr<NETransparentProxyProvider> provider)
    : loop_(std::move(loop)), framework_(std::move(framework)), provider_(std::move(provider)) {}

ControlServer::~ControlServer() { close(); }

bool ControlServer::listen(const std::string& path, std::string& error) {
  const auto address = unixAddress(path);
  if (!address) {
    error = "control socket path " + path + " is empty or too long";
    return false;
  }
  UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!listener) {
    error = failure("socket", path);
    return false;
  }
  // A socket left behind by a killed host is replaced; any other file is not ours to remove.
  struct stat existing {};
  if (::lstat(path.c_str(), &existing) == 0 && S_ISSOCK(existing.st_mode)) ::unlink(path.c_str());
  if (::bind(listener.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address) != 0) {
    error = failure("bind", path);
    return false;
  }
  if (::chmod(path.c_str(), 0600) != 0 || ::listen(listener.get(), SOMAXCONN) != 0) {
    error = failure("chmod or listen", path);
    ::unlink(path.c_str());
    return false;
  }
  listener_ = std::move(listener);
  path_ = path;
  loop_id_ = loop_->registerHandler(weak_from_this());
  loop_->add(listener_.get(), loop_id_, 0, EPOLLIN);
  return true;
}

void ControlServer::close() {
  if (!listener_) return;
  loop_->remove(listener_.get());
  listener_.reset();
  ::unlink(path_.c_str());
  connections_.clear();
}

void ControlServer::onIoEvent(std::uint32_t, std::uint32_t) { acceptAll(); }

void ControlServer::acceptAll() {
  for (;;) {
    UniqueFd client(::accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!client) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      return;
    }
    auto connection = std::make_shared<Connection>(weak_from_this(), loop_, std::move(client));
    connection->start();
    connections_.emplace(connection->id(), connection);
  }
}

void ControlServer::answer(std::uint64_t id, Bytes message) {
  framework_->async([weak = weak_from_this(), id, message = std::move(message)]() mutable {
    auto self = weak.lock();
    if (!self) return;
    self->provider_->handleAppMessage(std::move(message), [weak, id](std::optional<Bytes> reply) {
      auto server = weak.lock();
      if (!server) return;
      server->loop_->post([weak, id, reply = std::move(reply)]() mutable {
        auto owner = weak.lock();
        if (!owner) return;
        const auto found = owner->connections_.find(id);
        if (found == owner->connections_.end()) return;
        // Held here: a finished reply drops the connection from the table.
        const auto connection = found->second;
        connection->reply(reply.value_or(Bytes{}));
      });
    });
  });
}

void ControlServer::drop(std::uint64_t id) { connections_.erase(id); }

}  // namespace tarnwick::host

namespace tarnwick::host {

std::optional<Bytes> sendControlMessage(const std::string& path, const Bytes& message,
                                        std::string& error) {
  const auto address = unixAddress(path);
  if (!address) {
    error = "control socket path " + path + " is empty or too long";
    return std::nullopt;
  }
  UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket ||
      ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address) != 0) {
    error = failure("connect", path);
    return std::nullopt;
  }
  for (std::size_t sent = 0; sent < message.size();) {
    const ssize_t n =
        ::send(socket.get(), message.data() + sent, message.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      error = failure("send", path);
      return std::nullopt;
    }
    sent += static_cast<std::size_t>(n);
  }
  ::shutdown(socket.get(), SHUT_WR);
  Bytes reply;
  std::uint8_t chunk[4096];
  for (;;) {
    const ssize_t got = ::recv(socket.get(), chunk, sizeof chunk, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      error = failure("receive", path);
      return std::nullopt;
    }
    if (got == 0) return reply;
    reply.insert(reply.end(), chunk, chunk + got);
  }
}

}  // namespace tarnwick::host
