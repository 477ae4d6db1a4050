#pragma once
// Asks the kernel (netlink sock_diag) which socket owns one exact TCP 4-tuple, and returns its
// inode: the one fact that ties a connection to the process holding it. One request names the
// socket; no table of all sockets is dumped.
// Used from one thread at a time (the identification worker).

#include <cstdint>
#include <optional>

#include "platform/posix/SocketAddress.h"
#include "platform/posix/UniqueFd.h"

namespace tarnwick::host {

class SocketDiag {
 public:
  SocketDiag();

  // The inode of the TCP socket bound to `source` and connected to `destination`; absent when
  // the kernel knows no such socket (or the two addresses' families differ).
  std::optional<std::uint64_t> inodeOf(const SocketAddress& source,
                                       const SocketAddress& destination);

 private:
  bool ensureSocket();

  UniqueFd netlink_;
  std::uint32_t sequence_ = 0;
};

}  // namespace tarnwick::host
