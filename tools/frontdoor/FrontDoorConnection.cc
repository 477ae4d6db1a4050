#include "FrontDoorConnection.h"

#include <sys/socket.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>

#include "platform/posix/Sockets.h"
#include "policy/SNIParser.h"

namespace tarnwick::frontdoor {
namespace {

constexpr std::string_view kAcknowledgement = "HTTP/1.1 200 Connection established\r\n\r\n";
constexpr std::string_view kBadRequest = "HTTP/1.1 400 Bad Request\r\n\r\n";
constexpr std::string_view kRejected = "HTTP/1.1 407 Proxy Authentication Required\r\n\r\n";
constexpr std::string_view kBadGateway = "HTTP/1.1 502 Bad Gateway\r\n\r\n";
// The answer to anything but CONNECT. A prober takes any well-formed status as a sign of life,
// and an HTTP client is told plainly that nothing more will come.
constexpr std::string_view kMethodNotAllowed =
    "HTTP/1.1 405 Method Not Allowed\r\nAllow: CONNECT\r\nContent-Length: 0\r\n"
    "Connection: close\r\n\r\n";
// Neither HTTP nor UTF-8, and without the status a client looks for.
constexpr std::string_view kGarbage = "\xff\xfe\x01garbage\x7f\x80 no status here\r\n\r\n";

std::span<const std::uint8_t> bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::uint32_t readWrite(bool read, bool write) {
  return (read ? std::uint32_t{EPOLLIN} : 0U) | (write ? std::uint32_t{EPOLLOUT} : 0U);
}

bool wouldBlock(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }

FdRole otherSide(FdRole role) { return role == FdRole::Client ? FdRole::Upstream : FdRole::Client; }

// For a small answer on a fresh connection: the socket buffer takes it whole, and if the client
// is already gone there is no one left to tell.
void sendSmall(int fd, std::string_view text) {
  [[maybe_unused]] const auto sent = ::send(fd, text.data(), text.size(), MSG_NOSIGNAL);
}

}  // namespace

FrontDoorConnection::FrontDoorConnection(const ConnectionContext& context, std::uint64_t id,
                                         UniqueFd client)
    : context_(context), id_(id), client_(std::move(client)), client_events_(EPOLLIN) {
  setNoDelay(client_.get());
  context_.loop.add(client_.get(), makeToken(id_, FdRole::Client), *client_events_);
  // The up direction belongs to this connection, so the observer cannot outlive it.
  up_.observeFirstBytes([this](std::span<const std::uint8_t> bytes) {
    SNIParseResult hello = SNIParser::parse(bytes);
    record_.serverName = std::move(hello.serverName);
    record_.alpn = std::move(hello.alpn);
  });
}

void FrontDoorConnection::onEvent(FdRole role, std::uint32_t events) {
  if (role == FdRole::Timer) return onTimer();
  switch (phase_) {
    case Phase::ReadingHead:
      return readHead();
    case Phase::Waiting:
    case Phase::Resolving:
      return cutShort(FdRole::Client);  // the client's socket failed; nothing is read now
    case Phase::Dialing:
      return role == FdRole::Upstream ? onDialProgress(events) : cutShort(FdRole::Client);
    case Phase::Relaying:
      return relay(role, events);
    case Phase::Discarding:
    case Phase::Lingering:
      return discard();
    case Phase::Finished:
      return;
  }
}

void FrontDoorConnection::onResolved(std::vector<SocketAddress> addresses) {
  if (phase_ != Phase::Resolving) return;
  addresses_ = std::move(addresses);
  dialNext();
}

void FrontDoorConnection::stop() { finish("shutdown"); }

void FrontDoorConnection::readHead() {
  const auto scratch = context_.scratch;
  const ssize_t count = ::recv(client_.get(), scratch.data(), scratch.size(), 0);
  if (count < 0) {
    if (!wouldBlock(errno)) cutShort(FdRole::Client);
    return;
  }
  if (count == 0) {
    client_ended_ = true;
    if (context_.config.mode == FrontDoorMode::Silent) return finish("silent");
    if (head_.empty()) return finish("no-request");
    return answerAndClose(kBadRequest, "bad-request");
  }
  const auto chunk = scratch.first(static_cast<std::size_t>(count));
  // The terminator may straddle the previous read.
  const std::size_t searchFrom = head_.size() < 3 ? 0 : head_.size() - 3;
  const std::size_t taken = std::min(chunk.size(), kMaxHeadBytes - head_.size());
  head_.append(reinterpret_cast<const char*>(chunk.data()), taken);
  const auto end = head_.find(kHeadTerminator, searchFrom);
  if (end == std::string::npos) {
    if (head_.size() >= kMaxHeadBytes) onOversizedHead();
    return;
  }
  const std::size_t headBytes = end + kHeadTerminator.size();
  early_.assign(head_.begin() + static_cast<std::ptrdiff_t>(headBytes), head_.end());
  early_.insert(early_.end(), chunk.begin() + static_cast<std::ptrdiff_t>(taken), chunk.end());
  head_.resize(end);
  auto request = parseRequestHead(head_);
  std::string().swap(head_);
  onHead(std::move(request));
}

// The mode decides first, so a probe meets the same fault as a CONNECT would: a faulty front
// door fails its probe too.
void FrontDoorConnection::onHead(std::optional<RequestHead> request) {
  if (request) {
    record_.pid = std::move(request->pid);
    record_.signingId = std::move(request->signingId);
    record_.trace = std::move(request->trace);
    if (request->destination) {
      record_.destination = formatHostPort(request->destination->host, request->destination->port);
    }
    destination_ = std::move(request->destination);
  }
  const FrontDoorMode mode = context_.config.mode;
  if (mode == FrontDoorMode::Silent) return startDiscarding("silent");
  if (!request) return answerAndClose(kBadRequest, "bad-request");
  switch (mode) {
    case FrontDoorMode::Reject:
      return answerAndClose(kRejected, "rejected");
    case FrontDoorMode::AckThenClose:
      return answerAndClose(kAcknowledgement, "acked-closed");
    case FrontDoorMode::AckThenSilence:
      sendSmall(client_.get(), kAcknowledgement);
      return startDiscarding("acked-silent");
    case FrontDoorMode::Garbage:
      return answerAndClose(kGarbage, "garbage");
    case FrontDoorMode::SlowAck:
      if (context_.config.ackDelaySeconds > 0) {
        phase_ = Phase::Waiting;
        if (armTimer(context_.config.ackDelaySeconds)) return updateInterest();
      }
      return proceed();
    default:
      return proceed();
  }
}

void FrontDoorConnection::proceed() {
  disarmTimer();
  if (!destination_) return answerAndClose(kMethodNotAllowed, "not-connect");
  dialDestination();
}

void FrontDoorConnection::onOversizedHead() {
  std::string().swap(head_);
  if (context_.config.mode == FrontDoorMode::Silent) return startDiscarding("silent");
  answerAndClose(kBadRequest, "head-too-large");
}

void FrontDoorConnection::dialDestination() {
  if (auto literal = literalAddress(destination_->host, destination_->port)) {
    addresses_ = {*literal};
    return dialNext();
  }
  phase_ = Phase::Resolving;
  context_.resolver.request(id_, destination_->host, destination_->port);
  updateInterest();
}

void FrontDoorConnection::dialNext() {
  dropUpstream();
  disarmTimer();
  while (next_address_ < addresses_.size()) {
    DialStart start = startDial(addresses_[next_address_++], context_.config.upstreamMark);
    if (!start.fd) continue;
    upstream_ = std::move(start.fd);
    upstream_events_ = EPOLLOUT;
    context_.loop.add(upstream_.get(), makeToken(id_, FdRole::Upstream), *upstream_events_);
    phase_ = Phase::Dialing;
    armTimer(context_.config.dialTimeoutSeconds);
    return updateInterest();
  }
  answerAndClose(kBadGateway, "dial-failed");
}

void FrontDoorConnection::onDialProgress(std::uint32_t events) {
  if ((events & EPOLLOUT) == 0 || connectError(upstream_.get()) != 0) return dialNext();
  onConnected();
}

void FrontDoorConnection::onConnected() {
  disarmTimer();
  std::vector<SocketAddress>().swap(addresses_);
  setNoDelay(upstream_.get());
  phase_ = Phase::Relaying;
  if (down_.inject(client_.get(), bytesOf(kAcknowledgement)) != RelayDirection::Progress::Ok) {
    return cutShort(FdRole::Client);
  }
  const auto early = std::exchange(early_, {});
  if (up_.forward(upstream_.get(), early) != RelayDirection::Progress::Ok) {
    return cutShort(FdRole::Upstream);
  }
  updateInterest();
}

void FrontDoorConnection::relay(FdRole role, std::uint32_t events) {
  if ((events & EPOLLERR) != 0) return cutShort(role);
  const bool fromClient = role == FdRole::Client;
  const int self = fromClient ? client_.get() : upstream_.get();
  const int other = fromClient ? upstream_.get() : client_.get();
  RelayDirection& outgoing = fromClient ? up_ : down_;  // reads from self
  RelayDirection& incoming = fromClient ? down_ : up_;  // writes to self
  bool progressed = false;
  if ((events & (EPOLLIN | EPOLLHUP)) != 0 && outgoing.wantsRead()) {
    switch (outgoing.pump(self, other, context_.scratch)) {
      case RelayDirection::Progress::ReadFailed:
        return cutShort(role);
      case RelayDirection::Progress::WriteFailed:
        return cutShort(otherSide(role));
      case RelayDirection::Progress::Ok:
        progressed = true;
    }
  }
  if ((events & (EPOLLOUT | EPOLLHUP)) != 0 && incoming.wantsWrite()) {
    if (incoming.flush(self) != RelayDirection::Progress::Ok) return cutShort(role);
    progressed = true;
  }
  if (up_.finished() && down_.finished()) return finish("closed");
  // A hang-up without an error is no failure: the peer has sent its end and this side's end has
  // been passed on to it. What the socket still holds waits until the other side takes what is
  // kept for it.
  if (!progressed && (events & EPOLLHUP) != 0) park(role);
  updateInterest();
}

void FrontDoorConnection::startDiscarding(std::string_view result) {
  result_ = result;
  phase_ = Phase::Discarding;
  const auto early = std::exchange(early_, {});
  discarded_ += early.size();
  updateInterest();
}

void FrontDoorConnection::discard() {
  const auto scratch = context_.scratch;
  const ssize_t count = ::recv(client_.get(), scratch.data(), scratch.size(), 0);
  if (count < 0 && wouldBlock(errno)) return;
  if (count <= 0) return finish(result_);
  discarded_ += static_cast<std::size_t>(count);
}

void FrontDoorConnection::answerAndClose(std::string_view reply, std::string_view result) {
  result_ = result;
  sendSmall(client_.get(), reply);
  // A FIN after the answer, but the socket stays open: closing with unread bytes would reset
  // the connection and could destroy the answer before the client reads it.
  ::shutdown(client_.get(), SHUT_WR);
  discarded_ += early_.size();
  std::vector<std::uint8_t>().swap(early_);
  if (client_ended_ || !armTimer(context_.config.lingerSeconds)) return finish(result);
  phase_ = Phase::Lingering;
  updateInterest();
}

bool FrontDoorConnection::armTimer(double seconds) {
  if (!timer_) {
    timer_ = UniqueFd(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    if (!timer_) return false;
    context_.loop.add(timer_.get(), makeToken(id_, FdRole::Timer), EPOLLIN);
  }
  constexpr long long kNanosPerSecond = 1'000'000'000;
  // A zero value would disarm the timer instead of firing it at once.
  const long long nanos = std::max(1LL, std::llround(seconds * kNanosPerSecond));
  itimerspec deadline{};
  deadline.it_value.tv_sec = static_cast<time_t>(nanos / kNanosPerSecond);
  deadline.it_value.tv_nsec = static_cast<long>(nanos % kNanosPerSecond);
  return ::timerfd_settime(timer_.get(), 0, &deadline, nullptr) == 0;
}

void FrontDoorConnection::disarmTimer() {
  if (!timer_) return;
  context_.loop.remove(timer_.get());
  timer_.reset();
}

void FrontDoorConnection::onTimer() {
  std::uint64_t expirations = 0;
  if (::read(timer_.get(), &expirations, sizeof expirations) <= 0) return;
  switch (phase_) {
    case Phase::Waiting:
      return proceed();
    case Phase::Dialing:
      return dialNext();  // this address took too long; try the next
    case Phase::Lingering:
      return finish(result_);
    default:
      return disarmTimer();
  }
}

void FrontDoorConnection::cutShort(FdRole failed) {
  finish(failed == FdRole::Client ? "client-reset" : "destination-reset", Ending::Abortive);
}

// A level-triggered hang-up cannot be masked, so the socket leaves the loop until it is wanted.
void FrontDoorConnection::park(FdRole role) {
  if (!eventsOf(role)) return;
  context_.loop.remove(socketOf(role).get());
  eventsOf(role).reset();
}

void FrontDoorConnection::watch(FdRole role, std::uint32_t wants) {
  const UniqueFd& fd = socketOf(role);
  std::optional<std::uint32_t>& events = eventsOf(role);
  if (!fd || events == wants || (!events && wants == 0)) return;
  if (events) {
    context_.loop.modify(fd.get(), makeToken(id_, role), wants);
  } else {
    context_.loop.add(fd.get(), makeToken(id_, role), wants);
  }
  events = wants;
}

void FrontDoorConnection::dropUpstream() {
  if (!upstream_) return;
  context_.loop.remove(upstream_.get());
  upstream_.reset();
  upstream_events_.reset();
}

void FrontDoorConnection::updateInterest() {
  std::uint32_t clientWants = 0;
  std::uint32_t upstreamWants = 0;
  switch (phase_) {
    case Phase::ReadingHead:
    case Phase::Discarding:
    case Phase::Lingering:
      clientWants = EPOLLIN;
      break;
    case Phase::Dialing:
      upstreamWants = EPOLLOUT;
      break;
    case Phase::Relaying:
      clientWants = readWrite(up_.wantsRead(), down_.wantsWrite());
      upstreamWants = readWrite(down_.wantsRead(), up_.wantsWrite());
      break;
    default:
      break;
  }
  watch(FdRole::Client, clientWants);
  watch(FdRole::Upstream, upstreamWants);
}

// An abortive ending closes both sockets with a reset (SO_LINGER 0): a FIN would tell the peer
// that the transfer was complete.
void FrontDoorConnection::finish(std::string_view result, Ending ending) {
  if (phase_ == Phase::Finished) return;
  phase_ = Phase::Finished;
  record_.bytesUp = up_.bytesForwarded() + discarded_;
  record_.bytesDown = down_.bytesForwarded();
  record_.result = result;
  disarmTimer();
  for (const FdRole role : {FdRole::Upstream, FdRole::Client}) {
    UniqueFd& fd = socketOf(role);
    if (!fd) continue;
    context_.loop.remove(fd.get());
    if (ending == Ending::Abortive) resetAndClose(fd);
    fd.reset();
  }
}

}  // namespace tarnwick::frontdoor
