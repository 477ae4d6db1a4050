#include "host/PipePool.h"

#include <fcntl.h>
#include <unistd.h>

namespace tarnwick::host {

std::optional<Pipe> PipePool::acquire() {
  if (!idle_.empty()) {
    Pipe pipe = std::move(idle_.back());
    idle_.pop_back();
    return pipe;
  }
  int ends[2];
  if (::pipe2(ends, O_NONBLOCK | O_CLOEXEC) != 0) return std::nullopt;
  return Pipe{UniqueFd(ends[0]), UniqueFd(ends[1])};
}

void PipePool::release(Pipe pipe) {
  if (idle_.size() < keep_) idle_.push_back(std::move(pipe));
}

}  // namespace tarnwick::host
