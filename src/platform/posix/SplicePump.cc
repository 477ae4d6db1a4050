#include "platform/posix/SplicePump.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>

namespace tarnwick {
namespace {

constexpr unsigned kSpliceFlags = SPLICE_F_MOVE | SPLICE_F_NONBLOCK;

bool wouldBlock() { return errno == EAGAIN || errno == EWOULDBLOCK; }

}  // namespace

// A splice that brings less than it asked for has emptied the source, and one that takes less
// than it offered has filled the destination: neither is tried again until the loop reports
// that side ready, which saves a splice that would only say "try later".
SplicePump::Step SplicePump::pump(int from, int to, PipePool& pipes, bool passEnd) {
  Step step;
  bool drained = false;
  bool full = false;
  for (;;) {
    const bool canRead = !ended_ && !drained;
    if (canRead && !pipe_) {
      pipe_ = pipes.acquire();
      if (!pipe_) return {step.moved, EMFILE, true};
    }
    if (canRead && buffered_ < pipe_->capacity) {
      drained = !fill(from, step);
      if (step.error != 0) return step;
    } else if (buffered_ == 0 || full) {
      break;
    }
    if (buffered_ > 0 && !full) {
      full = !drain(to, step);
      if (step.error != 0) return step;
    }
    if ((drained || ended_) && (buffered_ == 0 || full)) break;
  }
  finish(to, pipes, passEnd);
  return step;
}

bool SplicePump::fill(int from, Step& step) {
  const std::size_t room = pipe_->capacity - buffered_;
  const ssize_t in = ::splice(from, nullptr, pipe_->write.get(), nullptr, room, kSpliceFlags);
  if (in < 0 && !wouldBlock()) {
    step.error = errno;
    step.atSource = true;
    return false;
  }
  ended_ = in == 0;
  if (in > 0) buffered_ += static_cast<std::size_t>(in);
  return in > 0 && static_cast<std::size_t>(in) == room;
}

bool SplicePump::drain(int to, Step& step) {
  const ssize_t out = ::splice(pipe_->read.get(), nullptr, to, nullptr, buffered_, kSpliceFlags);
  if (out < 0 && !wouldBlock()) {
    step.error = errno;
    return false;
  }
  if (out > 0) {
    buffered_ -= static_cast<std::size_t>(out);
    step.moved += static_cast<std::size_t>(out);
  }
  return out >= 0 && buffered_ == 0;
}

void SplicePump::finish(int to, PipePool& pipes, bool passEnd) {
  if (buffered_ == 0 && pipe_) {
    pipes.release(std::move(*pipe_));
    pipe_.reset();
  }
  if (ended_ && buffered_ == 0 && !done_) {
    if (passEnd) ::shutdown(to, SHUT_WR);
    done_ = true;
  }
}

}  // namespace tarnwick
