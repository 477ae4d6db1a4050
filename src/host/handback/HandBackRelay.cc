#include "host/handback/HandBackRelay.h"

#include <sys/epoll.h>

#include "platform/posix/Sockets.h"

namespace tarnwick::host {
std::shared_ptr<HandBackRelay> HandBackRelay::create(std::shared_ptr<HostLoop> loop,
                                                     PipePool& pipes, UniqueFd client,
                                                     Finished finished) {
  std::shared_ptr<HandBackRelay> relay(
      new HandBackRelay(std::move(loop), pipes, std::move(client), std::move(finished)));
  relay->id_ = relay->loop_->registerHandler(relay->weak_from_this());
  return relay;
}

HandBackRelay::HandBackRelay(std::shared_ptr<HostLoop> loop, PipePool& pipes, UniqueFd client,
                             Finished finished)
    : loop_(std::move(loop)),
      pipes_(pipes),
      client_(std::move(client)),
      finished_(std::move(finished)) {}

HandBackRelay::~HandBackRelay() { loop_->unregisterHandler(id_); }

void HandBackRelay::dial(const SocketAddress& destination, const DialOptions& options) {
  DialStart start = startDial(destination, options.mark, options.connectTimeout);
  if (!start.fd) return finish(/*reset=*/true);
  destination_ = std::move(start.fd);
  setInterest(Destination, EPOLLOUT);
}

// Only the directions this side's readiness can move are pumped: an event on one side costs no
// futile splice on the other.
void HandBackRelay::onIoEvent(std::uint32_t tag, std::uint32_t events) {
  if (connecting_) {
    if (tag == Destination) onConnected();
    return;
  }
  if ((events & EPOLLERR) != 0 && connectError(socketOf(static_cast<Side>(tag)).get()) != 0) {
    return finish(/*reset=*/true);
  }
  const bool readable = (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0;
  const bool writable = (events & (EPOLLOUT | EPOLLHUP | EPOLLERR)) != 0;
  for (Direction* direction : {&upstream_, &downstream_}) {
    const bool moves = (readable && direction->from == tag) || (writable && direction->to == tag);
    if (moves && !pump(*direction)) return;
  }
  if (upstream_.pump.done() && downstream_.pump.done()) return finish(/*reset=*/false);
  updateInterest();
}

void HandBackRelay::onConnected() {
  if (connectError(destination_.get()) != 0) return finish(/*reset=*/true);
  connecting_ = false;
  keepConnectedForever(destination_.get());
  setNoDelay(destination_.get());
  // The client may already have sent its request; it waits in the socket for this first pump.
  if (!pump(upstream_)) return;
  updateInterest();
}

// When the other direction is done too, closing both sockets next ends this one as well, so
// its end need not be passed on by itself.
bool HandBackRelay::pump(Direction& direction) {
  const Direction& other = &direction == &upstream_ ? downstream_ : upstream_;
  const SplicePump::Step step = direction.pump.pump(
      socketOf(direction.from).get(), socketOf(direction.to).get(), pipes_, !other.pump.done());
  return step.error == 0 || fail();
}

// A side is read only while its direction's pipe is empty, and written only while bytes wait:
// a pipe that is full by page count never leaves a readable socket spinning the loop.
void HandBackRelay::updateInterest() {
  std::uint32_t wanted[2] = {0, 0};
  for (const Direction* direction : {&upstream_, &downstream_}) {
    if (direction->pump.wantsRead()) wanted[direction->from] |= EPOLLIN;
    if (direction->pump.wantsWrite()) wanted[direction->to] |= EPOLLOUT;
  }
  setInterest(Client, wanted[Client]);
  setInterest(Destination, wanted[Destination]);
}

// A side with nothing to wait for leaves the epoll set, so its hang-up cannot spin the loop.
void HandBackRelay::setInterest(Side side, std::uint32_t wanted) {
  auto& current = interest_[side];
  const int fd = socketOf(side).get();
  if (wanted == 0) {
    if (current) loop_->remove(fd);
    current.reset();
  } else if (!current) {
    loop_->add(fd, id_, side, wanted);
    current = wanted;
  } else if (*current != wanted) {
    loop_->modify(fd, id_, side, wanted);
    current = wanted;
  }
}

bool HandBackRelay::fail() {
  finish(/*reset=*/true);
  return false;
}

void HandBackRelay::finish(bool reset) {
  for (Side side : {Client, Destination}) {
    if (interest_[side]) loop_->remove(socketOf(side).get());
    interest_[side].reset();
    if (reset) {
      resetAndClose(socketOf(side));
    } else {
      socketOf(side).reset();
    }
  }
  if (auto finished = std::exchange(finished_, nullptr)) finished(id_);
}

}  // namespace tarnwick::host
