#include "host/selection/RecordedParents.h"

#include "identity/AncestryGate.h"

namespace tarnwick::host {

void RecordedParents::record(std::int64_t pid, std::int64_t parentPID) {
  MutexLock lock(mutex_);
  if (parents_.size() >= kCapacity) parents_.clear();
  parents_[pid] = parentPID;
}

std::optional<std::int64_t> RecordedParents::parentOf(std::int64_t pid) const {
  if (auto live = AncestryGate::realParentPID(pid)) return live;
  MutexLock lock(mutex_);
  const auto found = parents_.find(pid);
  if (found == parents_.end() || found->second < 1) return std::nullopt;
  return found->second;
}

}  // namespace tarnwick::host
