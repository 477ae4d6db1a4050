#pragma once
// Finds the owners of sockets that no lane's caches know, by walking /proc on a thread of its
// own. A walk reads the descriptor table of every process until it meets the socket; on a busy
// host that is milliseconds, and a lane that walked would hold up every flow it carries. The
// walker keeps its own socket-owner map, so the sockets one walk passed answer later lookups
// from its cache.
//
// find(): any thread. The answers come on the walker's thread, in the order asked.

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "host/owner/SocketOwnerMap.h"
#include "platform/Dispatch.h"

namespace tarnwick::host {

class OwnerWalker {
 public:
  using Found = std::function<void(std::optional<pid_t> owner)>;

  // `queue` is a blocking queue (a thread of its own).
  explicit OwnerWalker(std::shared_ptr<DispatchQueue> queue, std::string procRoot = "/proc");

  void find(std::uint64_t inode, Found found);

 private:
  const std::shared_ptr<DispatchQueue> queue_;
  // Touched only on queue_.
  const std::shared_ptr<SocketOwnerMap> owners_;
};

}  // namespace tarnwick::host
