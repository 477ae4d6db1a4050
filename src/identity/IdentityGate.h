#pragma once
// Identity bindings: guards flows watched only by PID against PID reuse. The first flow seen
// under a watched PID binds the PID to that process's PID version and signing identifier; later
// flows must present the same version and no conflicting identifier.
//
// Owned by the provider. Flows are classified on framework threads while watch-list updates
// prune the bindings; one lock guards the table and makes check-and-bind atomic.

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "platform/Mutex.h"

namespace tarnwick {

class IdentityGate {
 public:
  // True lets the PID match stand. A negative `currentPidVersion` (an unreadable audit token)
  // is refused at once and binds nothing.
  bool allowPIDMatch(std::int64_t pid, std::int64_t currentPidVersion,
                     std::string_view currentSigningID) TW_EXCLUDES(mutex_);

  // Removes the bindings of every PID not in `watchedPIDs`.
  void pruneTo(const std::unordered_set<std::int64_t>& watchedPIDs) TW_EXCLUDES(mutex_);
  void forget(std::int64_t pid) TW_EXCLUDES(mutex_);
  std::int64_t recordedCount() const TW_EXCLUDES(mutex_);

 private:
  struct Identity {
    std::int64_t pidVersion;
    std::string signingID;  // may be empty; never filled in later
  };

  mutable Mutex mutex_;
  std::unordered_map<std::int64_t, Identity> by_pid_ TW_GUARDED_BY(mutex_);
};

}  // namespace tarnwick
