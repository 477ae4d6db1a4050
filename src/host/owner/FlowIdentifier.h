#pragma once
// Names the process behind an intercepted connection: sock_diag gives the client socket's inode
// from the exact 4-tuple, the socket-owner map gives the PID, and the PID gives the metadata.
// An unidentified process yields empty metadata (PID 0, no audit token).
// Used from one thread at a time (each lane has its own); it reads /proc.

#include <optional>

#include "host/owner/ProcessMetaDataCache.h"
#include "host/owner/SocketDiag.h"
#include "host/owner/SocketOwnerMap.h"
#include "platform/NetworkExtension.h"

namespace tarnwick::host {

class FlowIdentifier {
 public:
  // What the caches tell at once: the metadata, or the socket whose owner only a walk of /proc
  // can find (then `metaData` is empty until ownerFound()).
  struct QuickAnswer {
    NEFlowMetaData metaData;
    std::optional<std::uint64_t> walkFor;
  };

  explicit FlowIdentifier(std::string procRoot = "/proc") : owners_(std::move(procRoot)) {}

  // `client` is the client socket's own address, `destination` the one it connected to.
  QuickAnswer identifyWithoutWalk(const SocketAddress& client, const SocketAddress& destination);
  // The metadata for a walk's answer about `inode`, which is remembered for later connections.
  NEFlowMetaData ownerFound(std::uint64_t inode, std::optional<pid_t> pid);
  // Both, walking here when needed.
  NEFlowMetaData identify(const SocketAddress& client, const SocketAddress& destination);

 private:
  SocketDiag diag_;
  SocketOwnerMap owners_;
  ProcessMetaDataCache processes_;
};

}  // namespace tarnwick::host
