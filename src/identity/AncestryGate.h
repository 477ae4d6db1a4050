#pragma once
// Process ancestry: whether a process that is not watched itself descends from a watched agent,
// judged by the signing identifiers of its ancestors. Answers are cached per PID and tied to the
// PID version, so a reused PID is never answered from an old entry.
//
// Owned by the provider; isWatchedDescendant() runs on framework threads, dropCache() on the
// watch-list update path. The lock guards only the cache and is never held during the walk, so
// slow lookups never block other queries and the watch gate's lock never nests inside it.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>

#include "identity/WatchGate.h"
#include "platform/Mutex.h"

namespace tarnwick {

class AncestryGate {
 public:
  using ParentLookup = std::function<std::optional<std::int64_t>(std::int64_t pid)>;
  using SigningLookup = std::function<std::optional<std::string>(std::int64_t pid)>;

  static constexpr std::int64_t kDefaultMaxDepth = 24;
  static constexpr std::int64_t kDefaultCacheCap = 4096;

  // The lookups are injectable so the walk can run against a synthetic process table.
  explicit AncestryGate(std::int64_t maxDepth = kDefaultMaxDepth,
                        std::int64_t cacheCap = kDefaultCacheCap,
                        ParentLookup parentPIDOf = realParentPID,
                        SigningLookup signingIDOf = realSigningID);

  // True when one of at most maxDepth ancestors (never `pid` itself) has a watched signing
  // identifier. Both answers are cached; the cache is emptied whole when it reaches cacheCap.
  bool isWatchedDescendant(std::int64_t pid, std::int64_t pidVersion, const WatchGate& watchGate)
      TW_EXCLUDES(mutex_);

  // Every cached answer depends on the signing list: called whenever the watch list changes.
  void dropCache() TW_EXCLUDES(mutex_);

  // The live parent PID from the kernel's process table; absent for a process that is gone, for
  // PIDs outside the 32-bit range and for a parent below 1.
  static std::optional<std::int64_t> realParentPID(std::int64_t pid);
  // The canonical path of the process's executable, which stands for its signing identifier.
  static std::optional<std::string> realSigningID(std::int64_t pid);

 private:
  struct Cached {
    std::int64_t pidVersion;
    bool isDescendant;
  };

  bool walk(std::int64_t startPID, const WatchGate& watchGate) const;

  const std::int64_t max_depth_;
  const ParentLookup parent_pid_of_;
  const SigningLookup signing_id_of_;
  Mutex mutex_;
  std::unordered_map<std::int64_t, Cached> cache_ TW_GUARDED_BY(mutex_);
  const std::int64_t cache_cap_;
};

}  // namespace tarnwick
