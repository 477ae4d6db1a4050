#include "identity/AncestryGate.h"

#include <utility>

#include "platform/ProcessTable.h"

namespace tarnwick {

AncestryGate::AncestryGate(std::int64_t maxDepth, std::int64_t cacheCap, ParentLookup parentPIDOf,
                           SigningLookup signingIDOf)
    : max_depth_(maxDepth),
      parent_pid_of_(std::move(parentPIDOf)),
      signing_id_of_(std::move(signingIDOf)),
      cache_cap_(cacheCap) {}

bool AncestryGate::isWatchedDescendant(std::int64_t pid, std::int64_t pidVersion,
                                       const WatchGate& watchGate) {
  {
    MutexLock lock(mutex_);
    if (auto it = cache_.find(pid); it != cache_.end() && it->second.pidVersion == pidVersion) {
      return it->second.isDescendant;
    }
  }
  // Unlocked: two simultaneous queries for one PID may both walk, which is harmless.
  const bool answer = walk(pid, watchGate);
  MutexLock lock(mutex_);
  if (static_cast<std::int64_t>(cache_.size()) >= cache_cap_) cache_.clear();
  cache_.insert_or_assign(pid, Cached{pidVersion, answer});
  return answer;
}

void AncestryGate::dropCache() {
  MutexLock lock(mutex_);
  cache_.clear();
}

bool AncestryGate::walk(std::int64_t startPID, const WatchGate& watchGate) const {
  std::int64_t current = startPID;
  for (std::int64_t depth = 0; depth < max_depth_; ++depth) {
    const auto parent = parent_pid_of_(current);
    // 0 is the kernel and 1 the init process: the chain has reached its root.
    if (!parent || *parent < 2 || *parent == current) return false;
    const auto signingID = signing_id_of_(*parent);
    if (signingID && watchGate.signingMatches(*signingID)) return true;
    current = *parent;
  }
  return false;
}

std::optional<std::int64_t> AncestryGate::realParentPID(std::int64_t pid) {
  const auto stat = readProcessStat(pid);
  if (!stat || stat->parentPID < 1) return std::nullopt;
  return stat->parentPID;
}

std::optional<std::string> AncestryGate::realSigningID(std::int64_t pid) {
  return readExecutablePath(pid);
}

}  // namespace tarnwick
