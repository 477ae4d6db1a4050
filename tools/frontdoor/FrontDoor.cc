#include "FrontDoor.h"

#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/posix/SocketAddress.h"
#include "platform/posix/Sockets.h"

namespace tarnwick::frontdoor {
namespace {

// Reads of up to this much at a time; the one buffer serves every connection in turn.
constexpr std::size_t kScratchBytes = 64 * 1024;
// Bounds the time one busy listener keeps the loop from the connections it already has.
constexpr int kAcceptsPerWakeup = 64;
// As deep as the kernel allows (net.core.somaxconn caps it): a burst of connects from one busy
// program waits there while the loop catches up, where an overflow would drop SYNs and hold each
// of them back a second or more.
constexpr int kListenBacklog = 65535;

// The front door's own fds, under id 0.
enum class ServerFd : std::uint64_t { Listener = 0, Stop = 1, Resolver = 2 };

std::uint64_t serverToken(ServerFd fd) {
  return (static_cast<std::uint64_t>(fd) << 2) | static_cast<std::uint64_t>(FdRole::Server);
}

}  // namespace

std::unique_ptr<FrontDoor> FrontDoor::create(const FrontDoorConfig& config, LineSink sink,
                                             std::string& error) {
  std::unique_ptr<FrontDoor> frontDoor(new FrontDoor(config, std::move(sink)));
  if (!frontDoor->open(error)) return nullptr;
  return frontDoor;
}

FrontDoor::FrontDoor(const FrontDoorConfig& config, LineSink sink)
    : config_(config),
      sink_(std::move(sink)),
      stop_event_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      scratch_(kScratchBytes),
      context_{loop_, resolver_, scratch_, config_} {}

FrontDoor::~FrontDoor() = default;

bool FrontDoor::open(std::string& error) {
  if (!loop_.valid() || !stop_event_ || resolver_.readyFd() < 0) {
    error = std::string("event loop: ") + std::strerror(errno);
    return false;
  }
  const auto addresses = resolveAddresses(config_.listen.host, config_.listen.port);
  if (addresses.empty()) {
    error = "cannot resolve listen host '" + config_.listen.host + "'";
    return false;
  }
  listener_ = bindTcpSocket(addresses.front(), error);
  if (!listener_) return false;
  // The mark must be settable now, or every relay would fail later with a 502.
  if (config_.upstreamMark && ::setsockopt(listener_.get(), SOL_SOCKET, SO_MARK,
                                           &*config_.upstreamMark, sizeof(std::uint32_t)) != 0) {
    error = std::string("cannot set socket mark: ") + std::strerror(errno);
    return false;
  }
  if (config_.mode != FrontDoorMode::Refuse && ::listen(listener_.get(), kListenBacklog) != 0) {
    error = std::string("listen: ") + std::strerror(errno);
    return false;
  }
  bound_address_ = formatAddress(localAddress(listener_.get()).value_or(addresses.front()));
  if (config_.mode != FrontDoorMode::Refuse) {
    loop_.add(listener_.get(), serverToken(ServerFd::Listener), EPOLLIN);
  }
  loop_.add(stop_event_.get(), serverToken(ServerFd::Stop), EPOLLIN);
  loop_.add(resolver_.readyFd(), serverToken(ServerFd::Resolver), EPOLLIN);
  return true;
}

void FrontDoor::run() {
  while (!stopping_) {
    for (const epoll_event& event : loop_.wait()) dispatch(event);
  }
  stopAll();
}

void FrontDoor::stop() {
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = ::write(stop_event_.get(), &one, sizeof one);
}

void FrontDoor::dispatch(const epoll_event& event) {
  const std::uint64_t token = event.data.u64;
  if (tokenRole(token) == FdRole::Server) {
    switch (static_cast<ServerFd>(tokenId(token))) {
      case ServerFd::Listener:
        return acceptClients();
      case ServerFd::Stop:
        stopping_ = true;
        return;
      case ServerFd::Resolver:
        return deliverLookups();
    }
    return;
  }
  const auto found = connections_.find(tokenId(token));
  if (found == connections_.end()) return;  // ended earlier in this batch
  found->second->onEvent(tokenRole(token), event.events);
  retireIfFinished(found->first);
}

void FrontDoor::acceptClients() {
  for (int i = 0; i < kAcceptsPerWakeup; ++i) {
    UniqueFd client(::accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!client) {
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        pauseAccepting(errno);
      }
      return;  // EAGAIN, or a client that gave up while queued
    }
    const std::uint64_t id = next_id_++;
    connections_.emplace(id,
                         std::make_unique<FrontDoorConnection>(context_, id, std::move(client)));
  }
}

// Out of descriptors: the pending client would be reported again and again by the level-triggered
// listener, so stop listening for it until a connection ends and frees some.
void FrontDoor::pauseAccepting(int error) {
  if (accepting_paused_) return;
  accepting_paused_ = true;
  loop_.modify(listener_.get(), serverToken(ServerFd::Listener), 0);
  sink_(std::string("accept paused: ") + std::strerror(error));
}

void FrontDoor::deliverLookups() {
  for (auto& lookup : resolver_.takeFinished()) {
    const auto found = connections_.find(lookup.id);
    if (found == connections_.end()) continue;
    found->second->onResolved(std::move(lookup.addresses));
    retireIfFinished(lookup.id);
  }
}

void FrontDoor::retireIfFinished(std::uint64_t id) {
  const auto found = connections_.find(id);
  if (found == connections_.end() || !found->second->finished()) return;
  sink_(formatConnectionLine(found->second->record()));
  connections_.erase(found);
  if (accepting_paused_) {
    accepting_paused_ = false;
    loop_.modify(listener_.get(), serverToken(ServerFd::Listener), EPOLLIN);
  }
}

void FrontDoor::stopAll() {
  std::vector<std::uint64_t> ids;
  ids.reserve(connections_.size());
  for (const auto& [id, connection] : connections_) ids.push_back(id);
  for (const auto id : ids) {
    connections_[id]->stop();
    retireIfFinished(id);
  }
}

}  // namespace tarnwick::frontdoor
