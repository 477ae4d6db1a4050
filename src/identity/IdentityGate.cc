#include "identity/IdentityGate.h"

namespace tarnwick {

bool IdentityGate::allowPIDMatch(std::int64_t pid, std::int64_t currentPidVersion,
                                 std::string_view currentSigningID) {
  if (currentPidVersion < 0) return false;
  MutexLock lock(mutex_);
  const auto [it, bound] =
      by_pid_.try_emplace(pid, Identity{currentPidVersion, std::string(currentSigningID)});
  if (bound) return true;
  const Identity& recorded = it->second;
  if (recorded.pidVersion != currentPidVersion) return false;
  return recorded.signingID.empty() || currentSigningID.empty() ||
         recorded.signingID == currentSigningID;
}

void IdentityGate::pruneTo(const std::unordered_set<std::int64_t>& watchedPIDs) {
  MutexLock lock(mutex_);
  std::erase_if(by_pid_, [&](const auto& entry) { return !watchedPIDs.contains(entry.first); });
}

void IdentityGate::forget(std::int64_t pid) {
  MutexLock lock(mutex_);
  by_pid_.erase(pid);
}

std::int64_t IdentityGate::recordedCount() const {
  MutexLock lock(mutex_);
  return static_cast<std::int64_t>(by_pid_.size());
}

}  // namespace tarnwick
