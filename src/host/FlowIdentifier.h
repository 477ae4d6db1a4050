#pragma once
// Names the process behind an intercepted connection: sock_diag gives the client socket's inode
// from the exact 4-tuple, the socket-owner map gives the PID, and the PID gives the metadata.
// An unidentified process yields empty metadata (PID 0, no audit token).
// Used from one thread at a time (each lane has its own); it reads /proc.

#include "host/ProcessMetaDataCache.h"
#include "host/SocketDiag.h"
#include "host/SocketOwnerMap.h"
#include "platform/NetworkExtension.h"

namespace tarnwick::host {

class FlowIdentifier {
 public:
  explicit FlowIdentifier(std::string procRoot = "/proc") : owners_(std::move(procRoot)) {}

  // `client` is the client socket's own address, `destination` the one it connected to.
  NEFlowMetaData identify(const SocketAddress& client, const SocketAddress& destination);

 private:
  SocketDiag diag_;
  SocketOwnerMap owners_;
  ProcessMetaDataCache processes_;
};

}  // namespace tarnwick::host
