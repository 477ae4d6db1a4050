#include "platform/posix/PipePool.h"

#include <fcntl.h>
#include <unistd.h>

namespace tarnwick {

std::optional<Pipe> PipePool::acquire() {
  if (!idle_.empty()) {
    Pipe pipe = std::move(idle_.back());
    idle_.pop_back();
    return pipe;
  }
  int ends[2];
  if (::pipe2(ends, O_NONBLOCK | O_CLOEXEC) != 0) return std::nullopt;
  // The kernel may grant less than asked (or keep its default); what it reports is what holds.
  ::fcntl(ends[1], F_SETPIPE_SZ, static_cast<int>(kPipeBytes));
  const int capacity = ::fcntl(ends[1], F_GETPIPE_SZ);
  return Pipe{UniqueFd(ends[0]), UniqueFd(ends[1]),
              static_cast<std::size_t>(capacity > 0 ? capacity : 4096)};
}

void PipePool::release(Pipe pipe) {
  if (idle_.size() < keep_) idle_.push_back(std::move(pipe));
}

}  // namespace tarnwick
