#pragma once
// The parents of the processes whose sockets kernel-side selection recorded. The provider's
// ancestry walk reads a process's parent from /proc; a process that connected and exited before
// its flow was decided is gone from there, and its recorded parent lets the walk go on.
//
// Any thread; the lock guards the table and is held for one lookup or store.

#include <cstdint>
#include <optional>
#include <unordered_map>

#include "platform/Mutex.h"

namespace tarnwick::host {

class RecordedParents {
 public:
  // Emptied whole when it holds this many, as the ancestry cache is.
  static constexpr std::size_t kCapacity = 4096;

  void record(std::int64_t pid, std::int64_t parentPID) TW_EXCLUDES(mutex_);
  // The parent /proc shows for `pid`, or, once `pid` is gone, the one recorded for it.
  std::optional<std::int64_t> parentOf(std::int64_t pid) const TW_EXCLUDES(mutex_);

 private:
  mutable Mutex mutex_;
  std::unordered_map<std::int64_t, std::int64_t> parents_ TW_GUARDED_BY(mutex_);
};

}  // namespace tarnwick::host
