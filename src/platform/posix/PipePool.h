#pragma once
// Pipes for splicing one socket's bytes into another (handed-back connections, relays past
// their commitment). A direction holds a pipe only while bytes are in it; an idle connection
// holds none, so a thousand idle connections do not cost two thousand pipes. One thread only:
// each event loop has its own pool.

#include <optional>
#include <vector>

#include "platform/posix/UniqueFd.h"

namespace tarnwick {

struct Pipe {
  UniqueFd read;
  UniqueFd write;
  std::size_t capacity = 0;  // bytes it holds before a splice into it would block
};

class PipePool {
 public:
  // A larger pipe moves more per splice and wakes the loop less often; its pages are only
  // taken while bytes are in it.
  static constexpr std::size_t kPipeBytes = 256 * 1024;

  explicit PipePool(std::size_t keep = 64) : keep_(keep) {}

  // A pipe from the pool or a new one; absent when the process is out of descriptors.
  std::optional<Pipe> acquire();
  // Takes back an empty pipe.
  void release(Pipe pipe);

  std::size_t idleCount() const { return idle_.size(); }

 private:
  const std::size_t keep_;
  std::vector<Pipe> idle_;
};

}  // namespace tarnwick
