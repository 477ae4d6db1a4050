#include "host/owner/OwnerWalker.h"

#include <utility>

namespace tarnwick::host {

OwnerWalker::OwnerWalker(std::shared_ptr<DispatchQueue> queue, std::string procRoot)
    : queue_(std::move(queue)), owners_(std::make_shared<SocketOwnerMap>(std::move(procRoot))) {}

// The lane has looked at its recent owners already, so the walker goes from its cache straight to
// the walk. The work holds the map, not the walker, so a walk already queued when the host lets
// go of the walker still answers.
void OwnerWalker::find(std::uint64_t inode, Found found) {
  queue_->async(
      [owners = owners_, inode, found = std::move(found)] { found(owners->walk(inode)); });
}

}  // namespace tarnwick::host
