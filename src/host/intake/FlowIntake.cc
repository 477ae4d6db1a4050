#include "host/intake/FlowIntake.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "host/HostLog.h"
#include "host/intake/SocketFlow.h"
#include "host/owner/OwnerWalker.h"
#include "host/redirect/OriginalDestination.h"
#include "platform/posix/Sockets.h"

namespace tarnwick::host {
namespace {

constexpr const char* kLoopbacks[2] = {"127.0.0.1", "::1"};

UniqueFd openSpare() { return UniqueFd(::open("/dev/null", O_RDONLY | O_CLOEXEC)); }

std::string listenFailure(const SocketAddress& address, const std::string& error) {
  if (errno != EADDRINUSE) return "cannot listen on " + formatAddress(address) + ": " + error;
  return "port " + std::to_string(portOf(address)) + " is taken on " + formatAddress(address) +
         " by another program: choose another --listen-port, or leave it out and the system "
         "picks a free one";
}

}  // namespace

std::shared_ptr<FlowIntake> FlowIntake::create(Parts parts) {
  return std::shared_ptr<FlowIntake>(new FlowIntake(std::move(parts)));
}

FlowIntake::FlowIntake(Parts parts) : parts_(std::move(parts)), spare_(openSpare()) {}

FlowIntake::~FlowIntake() { close(); }

bool FlowIntake::loopbackIPv6Available() {
  std::string error;
  return bindTcpSocket(*literalAddress(kLoopbacks[1], 0), error).valid();
}

// Bound exclusively, so a port another process listens on, shared or not, is refused; the
// sockets close at once and never listened, so the port is free again for the intakes.
std::optional<std::uint16_t> FlowIntake::reservePort(std::uint16_t port, bool ipv6,
                                                     std::string& error) {
  std::array<UniqueFd, 2> probes;
  for (std::size_t i = 0; i < (ipv6 ? 2u : 1u); ++i) {
    const auto address = literalAddress(kLoopbacks[i], port);
    probes[i] = bindTcpSocket(*address, error);
    if (!probes[i]) {
      error = listenFailure(*address, error);
      return std::nullopt;
    }
    // Port 0: the port the first address is given becomes the second address's too.
    if (port == 0) port = portOf(localAddress(probes[i].get()).value_or(*address));
  }
  return port;
}

bool FlowIntake::listen(std::uint16_t port, std::string& error) {
  if (loop_id_ == 0) loop_id_ = parts_.loop->registerHandler(weak_from_this());
  for (std::size_t i = 0; i < listenerCount(); ++i) {
    const auto address = literalAddress(kLoopbacks[i], port);
    UniqueFd listener = bindTcpSocket(*address, error, PortSharing::Shared);
    // Accepted connections inherit it: the host never holds back a client's small segments.
    if (listener) setNoDelay(listener.get());
    if (listener && ::listen(listener.get(), SOMAXCONN) != 0) {
      error = std::string("listen: ") + std::strerror(errno);
      listener.reset();
    }
    if (!listener) {
      error = listenFailure(*address, error);
      close();
      return false;
    }
    listeners_[i] = std::move(listener);
  }
  port_ = port;
  for (std::size_t i = 0; i < listenerCount(); ++i) {
    parts_.loop->add(listeners_[i].get(), loop_id_, static_cast<std::uint32_t>(i), EPOLLIN);
  }
  return true;
}

void FlowIntake::close() {
  for (auto& listener : listeners_) {
    if (listener) parts_.loop->remove(listener.get());
    listener.reset();
  }
}

void FlowIntake::onIoEvent(std::uint32_t tag, std::uint32_t) {
  if (tag < listeners_.size() && listeners_[tag]) acceptFrom(tag);
}

// Every waiting connection is accepted first; the slower work of naming each one's process
// follows, so a burst of connections is taken off the listener's queue at once.
void FlowIntake::acceptFrom(std::size_t index) {
  const int listener = listeners_[index].get();
  const auto self = literalAddress(kLoopbacks[index], port_);
  std::vector<Accepted> accepted;
  for (;;) {
    SocketAddress peer;
    peer.length = sizeof peer.storage;
    UniqueFd client(::accept4(listener, reinterpret_cast<sockaddr*>(&peer.storage), &peer.length,
                              SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (client) {
      // A connection made to the listener itself has itself as its destination.
      auto origin = parts_.originOf(client.get(), *self, peer);
      if (!origin || sameSocketAddress(origin->tuple.destination, *self)) {
        hostLog().error(
            "intake: a connection this interceptor did not redirect (no record of it, or aimed "
            "at the listener itself) — reset");
        parts_.counters->countUnplaced();
        resetAndClose(client);
        continue;
      }
      accepted.push_back({std::move(client), std::move(*origin)});
      continue;
    }
    if (errno == EINTR || errno == ECONNABORTED) continue;
    if (errno == EMFILE || errno == ENFILE) shedOne(listener);
    break;
  }
  for (Accepted& one : accepted) {
    if (one.origin.owner) {
      offer(std::move(one.client), one.origin.tuple.destination, std::move(*one.origin.owner),
            true);
    } else {
      identifyAndOffer(std::move(one.client), one.origin.tuple);
    }
  }
}

void FlowIntake::identifyAndOffer(UniqueFd client, const OriginalTuple& tuple) {
  auto held = std::make_shared<UniqueFd>(std::move(client));
  const SocketAddress& destination = tuple.destination;
  parts_.identify(tuple.client, destination,
                  [weak = weak_from_this(), held, destination](NEFlowMetaData metaData) {
                    if (auto self = weak.lock()) {
                      self->offer(std::move(*held), destination, std::move(metaData), false);
                    }
                  });
}

void FlowIntake::offer(UniqueFd client, const SocketAddress& destination, NEFlowMetaData metaData,
                       bool recorded) {
  // Without its process the provider cannot tell whether the flow is watched; it will hand it
  // back, and that must not go unnoticed. A process looked for after the fact may be found gone
  // already, its executable unreadable: no better.
  if (!metaData.sourceAppAuditToken || (!recorded && metaData.sourceAppSigningIdentifier.empty())) {
    parts_.counters->countUnplaced();
    hostLog().error(
        "intake: no process found for a connection to %{public}s — handed back uninspected",
        formatAddress(destination));
  }
  auto queue = parts_.runtime->makeQueue("dev.fernquill.tarnwick.host.flow",
                                         QualityOfService::UserInitiated);
  auto flow = SocketFlow::create(parts_.loop, std::move(client), hostEndpointOf(destination),
                                 std::move(metaData), std::move(queue), parts_.counters);
  if (parts_.provider->handleNewFlow(flow)) return parts_.taken->add(flow);
  parts_.counters->countHandedBack();
  if (auto socket = flow->takeSocket()) parts_.carrier->carry(std::move(*socket), destination);
}

void FlowIntake::shedOne(int listener) {
  hostLog().error("intake: out of file descriptors — dropping a connection");
  parts_.counters->countUnplaced();
  spare_.reset();
  UniqueFd dropped(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
  resetAndClose(dropped);
  spare_ = openSpare();
}

namespace {

// One identifier per lane thread: its caches are the lane's own and need no lock.
FlowIdentifier& laneIdentifier() {
  thread_local FlowIdentifier identifier;
  return identifier;
}

}  // namespace

FlowIntake::Identify realIdentification(std::shared_ptr<HostLoop> loop,
                                        std::shared_ptr<OwnerWalker> walker) {
  return [loop = std::move(loop), walker = std::move(walker)](const SocketAddress& client,
                                                              const SocketAddress& destination,
                                                              FlowIntake::Identified then) {
    FlowIdentifier::QuickAnswer answer = laneIdentifier().identifyWithoutWalk(client, destination);
    if (!answer.walkFor) return then(std::move(answer.metaData));
    walker->find(*answer.walkFor, [loop, inode = *answer.walkFor,
                                   then = std::move(then)](std::optional<pid_t> owner) {
      loop->post([inode, owner, then] { then(laneIdentifier().ownerFound(inode, owner)); });
    });
  };
}

}  // namespace tarnwick::host
