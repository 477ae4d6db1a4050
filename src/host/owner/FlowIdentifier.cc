#include "host/owner/FlowIdentifier.h"

namespace tarnwick::host {

FlowIdentifier::QuickAnswer FlowIdentifier::identifyWithoutWalk(const SocketAddress& client,
                                                                const SocketAddress& destination) {
  const auto inode = diag_.inodeOf(client, destination);
  // Inode 0: the socket has no owner any more (closed, or already in TIME_WAIT).
  if (!inode || *inode == 0) return {};
  if (const auto pid = owners_.knownOwnerOf(*inode)) return {processes_.metaDataOf(*pid), {}};
  return {{}, *inode};
}

NEFlowMetaData FlowIdentifier::ownerFound(std::uint64_t inode, std::optional<pid_t> pid) {
  if (!pid) return {};
  owners_.learn(inode, *pid);
  return processes_.metaDataOf(*pid);
}

NEFlowMetaData FlowIdentifier::identify(const SocketAddress& client,
                                        const SocketAddress& destination) {
  QuickAnswer answer = identifyWithoutWalk(client, destination);
  if (!answer.walkFor) return std::move(answer.metaData);
  const auto pid = owners_.walk(*answer.walkFor);
  return pid ? processes_.metaDataOf(*pid) : NEFlowMetaData{};
}

}  // namespace tarnwick::host
