#include "host/HandBackRelay.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>

#include "platform/posix/Sockets.h"

namespace tarnwick::host {
namespace {

// A pipe's default capacity; splicing in more than that at once would only block.
constexpr std::size_t kPipeBytes = 64 * 1024;
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

void HandBackRelay::dial(const SocketAddress& destination, std::optional<std::uint32_t> mark) {
  DialStart start = startDial(destination, mark);
  if (!start.fd) return finish(/*reset=*/true);
  destination_ = std::move(start.fd);
  setInterest(Destination, EPOLLOUT);
}

void HandBackRelay::onIoEvent(std::uint32_t tag, std::uint32_t events) {
  if (connecting_) {
    if (tag == Destination) onConnected();
    return;
  }
  if ((events & EPOLLERR) != 0 && connectError(socketOf(static_cast<Side>(tag)).get()) != 0) {
    return finish(/*reset=*/true);
  }
  if (!pump(upstream_) || !pump(downstream_)) return;
  if (upstream_.done && downstream_.done) return finish(/*reset=*/false);
  updateInterest();
}

void HandBackRelay::onConnected() {
  if (connectError(destination_.get()) != 0) return finish(/*reset=*/true);
  connecting_ = false;
  setNoDelay(destination_.get());
  setNoDelay(client_.get());
  // The client may already have sent its request; it waits in the socket for this first pump.
  if (!pump(upstream_) || !pump(downstream_)) return;
  updateInterest();
}

bool HandBackRelay::pump(Direction& direction) {
  const int from = socketOf(direction.from).get();
  const int to = socketOf(direction.to).get();
  for (bool progressed = true; progressed;) {
    progressed = false;
    if (!direction.ended && direction.buffered < kPipeBytes) {
      if (!direction.pipe) direction.pipe = pipes_.acquire();
      if (!direction.pipe) return fail();
      const ssize_t in = ::splice(from, nullptr, direction.pipe->write.get(), nullptr,
                                  kPipeBytes - direction.buffered, kSpliceFlags);
      if (in < 0 && !wouldBlock()) return fail();
      if (in >= 0) {
        direction.ended = in == 0;
        direction.buffered += static_cast<std::size_t>(in);
        progressed = true;
      }
    }
    if (direction.buffered > 0) {
      const ssize_t out = ::splice(direction.pipe->read.get(), nullptr, to, nullptr,
                                   direction.buffered, kSpliceFlags);
      if (out < 0 && !wouldBlock()) return fail();
      if (out > 0) {
        direction.buffered -= static_cast<std::size_t>(out);
        progressed = true;
      }
    }
  }
  if (direction.buffered == 0 && direction.pipe) {
    pipes_.release(std::move(*direction.pipe));
    direction.pipe.reset();
  }
  if (direction.ended && direction.buffered == 0 && !direction.done) {
    ::shutdown(to, SHUT_WR);
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
