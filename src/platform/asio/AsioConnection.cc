#include "platform/asio/AsioConnection.h"

#include <sys/socket.h>

#include <cerrno>
#include <string>
#include <string_view>
#include <utility>

namespace tarnwick {
namespace {

// An IPv4 or IPv6 literal, the latter with or without brackets; absent for a host name.
std::optional<asio::ip::address> addressLiteral(std::string_view host) {
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  }
  asio::error_code error;
  const asio::ip::address address = asio::ip::make_address(std::string(host), error);
  if (error) return std::nullopt;
  return address;
}

}  // namespace

NWError AsioConnection::errorOf(const asio::error_code& error) {
  if (error.category() == asio::system_category()) return NWError::fromErrno(error.value());
  return {EIO, error.message()};
}

AsioConnection::AsioConnection(asio::io_context& context, NWEndpoint endpoint,
                               NWParameters parameters, Duration connectTimeout)
    : endpoint_(std::move(endpoint)),
      parameters_(std::move(parameters)),
      connectTimeout_(connectTimeout),
      resolver_(context),
      socket_(context),
      connectTimer_(context) {}

void AsioConnection::setStateUpdateHandler(StateHandler handler) {
  MutexLock lock(mutex_);
  // The replaced handler is destroyed after the lock is released (declared before it).
  std::swap(stateHandler_, handler);
}

void AsioConnection::start(std::shared_ptr<DispatchQueue> queue) {
  {
    MutexLock lock(mutex_);
    if (queue_ || state_ != Kind::Setup) return;
    queue_ = std::move(queue);
    state_ = Kind::Preparing;
    postStateLocked(NWConnectionState::of(Kind::Preparing));
    beginConnectLocked();
  }
  flushOutbox();
}

void AsioConnection::send(std::optional<Bytes> content, bool isComplete,
                          SendCompletion completion) {
  {
    MutexLock lock(mutex_);
    if (state_ == Kind::Cancelled || state_ == Kind::Failed) {
      // Like a send queued before the end, one made after a connection that never became ready
      // is dropped: its bytes never leave, and a completion would read as a failed write.
      if (completion && everReady_) {
        postLocked([c = std::move(completion)] { c(NWError::fromErrno(ECANCELED)); });
      }
    } else {
      if (content && content->empty()) content.reset();
      sends_.push_back({std::move(content), isComplete, std::move(completion)});
      writeNextLocked();
    }
  }
  flushOutbox();
}

void AsioConnection::receive(std::size_t minimumIncompleteLength, std::size_t maximumLength,
                             ReceiveCompletion completion) {
  {
    MutexLock lock(mutex_);
    if (state_ == Kind::Cancelled || state_ == Kind::Failed) {
      postLocked(
          [c = std::move(completion)] { c(std::nullopt, false, NWError::fromErrno(ECANCELED)); });
    } else {
      const std::size_t maximum = std::max<std::size_t>(maximumLength, 1);
      const std::size_t minimum = std::clamp<std::size_t>(minimumIncompleteLength, 1, maximum);
      receives_.push_back({minimum, maximum, std::move(completion)});
      readNextLocked();
    }
  }
  flushOutbox();
}

void AsioConnection::cancel() { cancelWith(/*abortive=*/false); }

Detachable AsioConnection::detachable() {
  MutexLock lock(mutex_);
  return detachableLocked();
}

Detachable AsioConnection::detachableLocked() {
  if (state_ != Kind::Ready || !socket_.is_open() || readEnded_ || readError_) {
    return Detachable::Never;
  }
  const bool busy =
      !sends_.empty() || writing_ || owed_ > 0 || !inbound_.empty() || receives_.size() > 1;
  return busy ? Detachable::NotNow : Detachable::Now;
}

// Cancelling the moved socket's waits ends the pending wait for readability, whose handler finds
// the connection cancelled.
std::optional<asio::ip::tcp::socket> AsioConnection::takeSocket() {
  std::optional<tcp::socket> taken;
  {
    MutexLock lock(mutex_);
    if (detachableLocked() != Detachable::Now) return std::nullopt;
    state_ = Kind::Cancelled;
    receives_.clear();
    taken.emplace(std::move(socket_));
    asio::error_code ignored;
    taken->cancel(ignored);
    postStateLocked(NWConnectionState::of(Kind::Cancelled));
  }
  flushOutbox();
  return taken;
}

std::optional<DetachedSocket> AsioConnection::detachSocket() {
  std::optional<tcp::socket> taken = takeSocket();
  if (!taken) return std::nullopt;
  asio::error_code error;
  const int fd = taken->release(error);
  if (error) return std::nullopt;
  return DetachedSocket(UniqueFd(fd));
}

void AsioConnection::forceCancel() { cancelWith(/*abortive=*/true); }

// An abortive close lingers for no time, so closing the socket sends a reset.
void AsioConnection::cancelWith(bool abortive) {
  StateHandler dropped;
  {
    MutexLock lock(mutex_);
    if (state_ == Kind::Cancelled) return;
    const bool wasReady = state_ == Kind::Ready;
    state_ = Kind::Cancelled;
    if (abortive && socket_.is_open()) {
      asio::error_code ignored;
      socket_.set_option(asio::socket_base::linger(true, 0), ignored);
    }
    stopSocketLocked();
    abandonPendingLocked(wasReady);
    if (queue_) {
      postStateLocked(NWConnectionState::of(Kind::Cancelled));
    } else {
      dropped = std::exchange(stateHandler_, nullptr);
    }
  }
  flushOutbox();
}

void AsioConnection::beginConnectLocked() {
  connectTimer_.expires_after(connectTimeout_);
  connectTimer_.async_wait([self = shared_from_this()](const asio::error_code& error) {
    self->onConnectTimeout(error);
  });
  if (auto literal = addressLiteral(endpoint_.host)) {
    candidates_.emplace_back(*literal, endpoint_.port.rawValue());
    connectNextLocked();
    return;
  }
  resolver_.async_resolve(endpoint_.host, std::to_string(endpoint_.port.rawValue()),
                          tcp::resolver::numeric_service,
                          [self = shared_from_this()](const asio::error_code& error,
                                                      const tcp::resolver::results_type& results) {
                            self->onResolved(error, results);
                          });
}

void AsioConnection::onResolved(const asio::error_code& error,
                                const tcp::resolver::results_type& results) {
  {
    MutexLock lock(mutex_);
    if (state_ != Kind::Preparing) return;
    if (error) {
      // Resolution failures have no errno of their own; the resolver's text says what happened.
      failLocked({EHOSTUNREACH, "cannot resolve " + endpoint_.host + ": " + error.message()});
    } else {
      for (const auto& entry : results) candidates_.push_back(entry.endpoint());
      connectNextLocked();
    }
  }
  flushOutbox();
}

void AsioConnection::connectNextLocked() {
  while (nextCandidate_ < candidates_.size()) {
    const tcp::endpoint candidate = candidates_[nextCandidate_++];
    if (auto error = openSocketLocked(candidate.protocol())) {
      lastConnectError_ = std::move(error);
      continue;
    }
    socket_.async_connect(candidate, [self = shared_from_this()](const asio::error_code& e) {
      self->onConnected(e);
    });
    return;
  }
  failLocked(lastConnectError_.value_or(NWError::fromErrno(EHOSTUNREACH)));
}

std::optional<NWError> AsioConnection::openSocketLocked(const tcp& protocol) {
  asio::error_code error;
  socket_.close(error);
  socket_.open(protocol, error);
  if (!error) socket_.set_option(tcp::no_delay(true), error);
  if (!error) socket_.non_blocking(true, error);
  if (error) return errorOf(error);
  if (parameters_.socketMark) {
    const std::uint32_t mark = *parameters_.socketMark;
    if (::setsockopt(socket_.native_handle(), SOL_SOCKET, SO_MARK, &mark, sizeof mark) != 0) {
      return NWError::fromErrno(errno);
    }
  }
  return std::nullopt;
}

void AsioConnection::onConnected(const asio::error_code& error) {
  {
    MutexLock lock(mutex_);
    if (state_ != Kind::Preparing) return;
    if (error) {
      lastConnectError_ = errorOf(error);
      connectNextLocked();
    } else {
      becomeReadyLocked();
    }
  }
  flushOutbox();
}

void AsioConnection::onConnectTimeout(const asio::error_code& error) {
  {
    MutexLock lock(mutex_);
    if (error || state_ != Kind::Preparing) return;
    failLocked(NWError::fromErrno(ETIMEDOUT));
  }
  flushOutbox();
}

void AsioConnection::becomeReadyLocked() {
  state_ = Kind::Ready;
  everReady_ = true;
  connectTimer_.cancel();
  candidates_.clear();
  postStateLocked(NWConnectionState::of(Kind::Ready));
  writeNextLocked();
  readNextLocked();
}

void AsioConnection::failLocked(NWError error) {
  state_ = Kind::Failed;
  stopSocketLocked();
  abandonPendingLocked(/*wasReady=*/false);
  postStateLocked(NWConnectionState::failed(std::move(error)));
}

// Pending operations finish with operation_aborted and find the state moved on.
void AsioConnection::stopSocketLocked() {
  asio::error_code ignored;
  connectTimer_.cancel();
  resolver_.cancel();
  socket_.close(ignored);
  candidates_.clear();
}

void AsioConnection::postLocked(Work work, bool owed) {
  if (owed) ++owed_;
  outbox_.push_back({std::move(work), owed});
}

// The handler is read when the state is delivered, so one removed meanwhile is not called. The
// cancelled state is the last: delivering it drops the handler.
void AsioConnection::postStateLocked(NWConnectionState state) {
  postLocked([self = shared_from_this(), state = std::move(state)] {
    StateHandler handler;
    {
      MutexLock lock(self->mutex_);
      if (state.kind == Kind::Cancelled) {
        handler = std::exchange(self->stateHandler_, nullptr);
      } else {
        handler = self->stateHandler_;
      }
    }
    if (handler) handler(state);
  });
}

void AsioConnection::flushOutbox() {
  std::shared_ptr<DispatchQueue> queue;
  {
    MutexLock lock(mutex_);
    if (drainPosted_ || outbox_.empty() || !queue_) return;
    drainPosted_ = true;
    queue = queue_;
  }
  queue->async([self = shared_from_this()] { self->drainOutbox(); });
}

// A completion is settled just before it runs, so what it does next (hand the socket over,
// say) sees only the completions still on their way after it.
void AsioConnection::drainOutbox() {
  std::vector<Outgoing> work;
  {
    MutexLock lock(mutex_);
    work.swap(outbox_);
    drainPosted_ = false;
  }
  for (auto& item : work) {
    if (item.owed) {
      MutexLock lock(mutex_);
      --owed_;
    }
    item.work();
  }
}

}  // namespace tarnwick
