#include "host/FlowIdentifier.h"


namespace tarnwick::host {

NEFlowMetaData FlowIdentifier::identify(const SocketAddress& client,
                                        const SocketAddress& destination) {
  const auto inode = diag_.inodeOf(client, destination);
  // Inode 0: the socket has no owner any more (closed, or already in TIME_WAIT).
  if (!inode || *inode == 0) return {};
  const auto pid = owners_.ownerOf(*inode);
  if (!pid) return {};
  return processes_.metaDataOf(*pid);
}

}  // namespace tarnwick::host
