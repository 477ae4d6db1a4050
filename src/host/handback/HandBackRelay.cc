#include "host/handback/HandBackRelay.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>

#include "platform/posix/Sockets.h"

namespace tarnwick::host {
namespace {

constexpr unsigned kSpliceFlags = SPLICE_F_MOVE | SPLICE_F_NONBLOCK;

bool wouldBlock() { return errno == EAGAIN || errno == EWOULDBLOCK; }

}  // namespace

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
  if (upstream_.done && downstream_.done) return finish(/*reset=*/false);
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

// Moves what can move now. A splice that brings less than it asked for has emptied the socket,
// and one that takes less than it offered has filled the other: neither is tried again until
// the loop reports the side ready, which saves a splice that would only say "try later".
bool HandBackRelay::pump(Direction& direction) {
  const int from = socketOf(direction.from).get();
  const int to = socketOf(direction.to).get();
  bool drained = false;
  bool full = false;
  for (;;) {
    const bool canRead = !direction.ended && !drained;
    if (canRead && !direction.pipe) {
      direction.pipe = pipes_.acquire();
      if (!direction.pipe) return fail();
    }
    if (canRead && direction.buffered < direction.pipe->capacity) {
      const std::size_t room = direction.pipe->capacity - direction.buffered;
      const ssize_t in =
          ::splice(from, nullptr, direction.pipe->write.get(), nullptr, room, kSpliceFlags);
      if (in < 0 && !wouldBlock()) return fail();
      drained = in < 0 || static_cast<std::size_t>(in) < room;
      direction.ended = in == 0;
      if (in > 0) direction.buffered += static_cast<std::size_t>(in);
    } else if (direction.buffered == 0 || full) {
      break;
    }
    if (direction.buffered > 0 && !full) {
      const ssize_t out = ::splice(direction.pipe->read.get(), nullptr, to, nullptr,
                                   direction.buffered, kSpliceFlags);
      if (out < 0 && !wouldBlock()) return fail();
      full = out < 0 || static_cast<std::size_t>(out) < direction.buffered;
      if (out > 0) direction.buffered -= static_cast<std::size_t>(out);
    }
    if ((drained || direction.ended) && (direction.buffered == 0 || full)) break;
  }
  if (direction.buffered == 0 && direction.pipe) {
    pipes_.release(std::move(*direction.pipe));
    direction.pipe.reset();
  }
  if (direction.ended && direction.buffered == 0 && !direction.done) {
    // When the other direction is done too, closing both sockets next ends this one as well.
    const Direction& other = &direction == &upstream_ ? downstream_ : upstream_;
    if (!other.done) ::shutdown(to, SHUT_WR);
    direction.done = true;
  }
  return true;
}

// A side is read only while its direction's pipe is empty, and written only while bytes wait:
// a pipe that is full by page count never leaves a readable socket spinning the loop.
void HandBackRelay::updateInterest() {
  std::uint32_t wanted[2] = {0, 0};
  for (const Direction* direction : {&upstream_, &downstream_}) {
    if (!direction->ended && direction->buffered == 0) wanted[direction->from] |= EPOLLIN;
    if (direction->buffered > 0) wanted[direction->to] |= EPOLLOUT;
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
