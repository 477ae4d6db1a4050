#include "host/control/ControlServer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "host/HostLog.h"
#include "host/control/ControlRequest.h"
#include "host/control/ControlSocket.h"

namespace tarnwick::host {
namespace {

constexpr Duration kDeadlineLeeway = std::chrono::milliseconds(100);

Bytes errorReply(const std::string& error) {
  return bytesOf(dumpCompact(Json{{"ok", false}, {"error", error}}));
}

}  // namespace

// One control connection: reads the request to the client's end, then writes the reply.
// Loop thread only; owned by the server's table under its loop id. Once the request is whole
// the socket leaves the loop's set until the reply is ready, so a hang-up meanwhile wakes
// nothing.
class ControlServer::Connection : public IoHandler,
                                  public std::enable_shared_from_this<Connection> {
 public:
  Connection(std::weak_ptr<ControlServer> server, std::shared_ptr<HostLoop> loop, UniqueFd socket,
             std::size_t maximumBytes)
      : server_(std::move(server)),
        loop_(std::move(loop)),
        socket_(std::move(socket)),
        maximum_bytes_(maximumBytes) {}
  ~Connection() override {
    if (timer_) timer_->cancel();
    loop_->unregisterHandler(id_);
  }

  void start(DispatchQueue& deadlines, Duration deadline) {
    id_ = loop_->registerHandler(weak_from_this());
    watch(EPOLLIN);
    timer_ = deadlines.makeTimer();
    timer_->setEventHandler([weak = weak_from_this(), loop = loop_] {
      loop->post([weak] {
        if (auto self = weak.lock()) self->expire();
      });
    });
    timer_->schedule(deadline, std::nullopt, kDeadlineLeeway);
    timer_->resume();
  }
  std::uint64_t id() const { return id_; }
  bool reading() const { return state_ == State::Reading; }

  void onIoEvent(std::uint32_t, std::uint32_t) override {
    if (state_ == State::Reading) return readRequest();
    if (state_ == State::Replying) return writeReply();
  }

  void reply(Bytes bytes) {
    state_ = State::Replying;
    reply_ = std::move(bytes);
    writeReply();
  }

  // The connection ends here, its request answered or not.
  void end() {
    unwatch();
    if (auto server = server_.lock()) server->drop(id_);
  }

 private:
  enum class State { Reading, Answering, Replying };

  void readRequest() {
    std::uint8_t chunk[4096];
    for (;;) {
      const ssize_t got = ::recv(socket_.get(), chunk, sizeof chunk, MSG_DONTWAIT);
      if (got < 0 && errno == EINTR) continue;
      if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
      if (got < 0) return end();
      if (got == 0) return requestEnded();
      if (request_.size() + static_cast<std::size_t>(got) > maximum_bytes_) {
        hostLog().error("control: a request larger than %ld bytes — closed unanswered",
                        maximum_bytes_);
        return end();
      }
      request_.insert(request_.end(), chunk, chunk + got);
    }
  }

  void requestEnded() {
    state_ = State::Answering;
    timer_->cancel();
    unwatch();
    // Nothing at all was asked: someone only looked whether the socket is alive.
    if (request_.empty()) return end();
    if (auto server = server_.lock()) server->answer(id_, std::move(request_));
  }

  void expire() {
    if (state_ != State::Reading) return;
    hostLog().error("control: no whole request within the deadline — closed unanswered");
    end();
  }

  void writeReply() {
    while (written_ < reply_.size()) {
      const ssize_t sent = ::send(socket_.get(), reply_.data() + written_, reply_.size() - written_,
                                  MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent < 0 && errno == EINTR) continue;
      if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return watch(EPOLLOUT);
      if (sent < 0) break;
      written_ += static_cast<std::size_t>(sent);
    }
    end();  // written or failed alike
  }

  void watch(std::uint32_t events) {
    if (watched_) return loop_->modify(socket_.get(), id_, 0, events);
    loop_->add(socket_.get(), id_, 0, events);
    watched_ = true;
  }
  void unwatch() {
    if (std::exchange(watched_, false)) loop_->remove(socket_.get());
  }

  const std::weak_ptr<ControlServer> server_;
  const std::shared_ptr<HostLoop> loop_;
  const UniqueFd socket_;
  const std::size_t maximum_bytes_;
  std::uint64_t id_ = 0;
  std::shared_ptr<DispatchTimer> timer_;
  State state_ = State::Reading;
  bool watched_ = false;
  Bytes request_;
  Bytes reply_;
  std::size_t written_ = 0;
};

std::shared_ptr<ControlServer> ControlServer::create(Parts parts) {
  return std::shared_ptr<ControlServer>(new ControlServer(std::move(parts)));
}

ControlServer::ControlServer(Parts parts)
    : parts_(std::move(parts)),
      deadlines_(parts_.runtime->makeQueue("dev.fernquill.tarnwick.host.control",
                                           QualityOfService::Utility)) {}

ControlServer::~ControlServer() { close(); }

bool ControlServer::listen(const std::string& path, std::string& error) {
  listener_ = bindControlSocket(path, parts_.access.group(), error);
  if (!listener_) return false;
  path_ = path;
  loop_id_ = parts_.loop->registerHandler(weak_from_this());
  parts_.loop->add(listener_.get(), loop_id_, 0, EPOLLIN);
  return true;
}

void ControlServer::close() {
  if (!listener_) return;
  parts_.loop->remove(listener_.get());
  listener_.reset();
  ::unlink(path_.c_str());
  connections_.clear();
}

void ControlServer::onIoEvent(std::uint32_t, std::uint32_t) { acceptAll(); }

void ControlServer::acceptAll() {
  for (;;) {
    UniqueFd client(::accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (client) {
      admit(std::move(client));
    } else if (errno != EINTR && errno != ECONNABORTED) {
      return;
    }
  }
}

void ControlServer::admit(UniqueFd client) {
  ControlPeer peer;
  if (!parts_.access.permits(client.get(), peer)) {
    hostLog().error(
        "control: refused a connection of uid %ld (pid %ld): not root or a member of "
        "the control group",
        peer.uid, peer.pid);
    const Bytes refusal = errorReply("not permitted");
    ::send(client.get(), refusal.data(), refusal.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return;
  }
  if (connections_.size() >= parts_.limits.maximumConnections && !makeRoom()) {
    hostLog().error("control: %ld requests being answered — a new connection closed",
                    connections_.size());
    return;
  }
  auto connection = std::make_shared<Connection>(weak_from_this(), parts_.loop, std::move(client),
                                                 parts_.limits.maximumRequestBytes);
  connection->start(*deadlines_, parts_.limits.readDeadline);
  connections_.emplace(connection->id(), std::move(connection));
}

bool ControlServer::makeRoom() {
  for (const auto& [id, connection] : connections_) {
    if (!connection->reading()) continue;
    hostLog().error("control: %ld connections open — the oldest unfinished one closed",
                    connections_.size());
    // Held here: ending drops it from the table.
    const auto oldest = connection;
    oldest->end();
    return true;
  }
  return false;
}

void ControlServer::answer(std::uint64_t id, Bytes request) {
  std::string error;
  auto parsed = parseControlRequest(std::move(request), error);
  if (!parsed) {
    hostLog().error("control: a request refused: %{public}s", error);
    return reply(id, errorReply(error));
  }
  parts_.framework->async([weak = weak_from_this(), id, parsed = std::move(*parsed)]() mutable {
    auto self = weak.lock();
    if (!self) return;
    if (parsed.operation == ControlOperation::Status) {
      return self->reply(id, bytesOf(dumpCompact(self->parts_.status())));
    }
    auto replied = [weak, id](std::optional<Bytes> reply) {
      if (auto server = weak.lock()) server->reply(id, reply.value_or(Bytes{}));
    };
    if (self->parts_.watch) return self->parts_.watch(std::move(parsed.body), std::move(replied));
    self->parts_.provider->handleAppMessage(std::move(parsed.body), std::move(replied));
  });
}

// Any thread: the reply is written on the loop.
void ControlServer::reply(std::uint64_t id, Bytes bytes) {
  parts_.loop->post([weak = weak_from_this(), id, bytes = std::move(bytes)]() mutable {
    auto self = weak.lock();
    if (!self) return;
    const auto found = self->connections_.find(id);
    if (found == self->connections_.end()) return;
    // Held here: a finished reply drops the connection from the table.
    const auto connection = found->second;
    connection->reply(std::move(bytes));
  });
}

void ControlServer::drop(std::uint64_t id) { connections_.erase(id); }

}  // namespace tarnwick::host
