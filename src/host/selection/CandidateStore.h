#pragma once
// Where the candidate set lives: the kernel's maps, or the model that tests run the same
// userspace procedure against. Inherited candidates are kept per PID with the start time of the
// process the entry was made for; the watched executables and PIDs are kept beside them, since
// the kernel checks what a process runs and which PID it has against them live.

#include <cstdint>
#include <optional>
#include <unordered_set>
#include <utility>
#include <vector>

#include "host/selection/ExecutableKey.h"

namespace tarnwick::host {

struct CandidateEntry {
  std::uint64_t startTime = 0;
  std::uint32_t flags = 0;  // stored flags of CandidateRules.h

  bool operator==(const CandidateEntry&) const = default;
};

class CandidateStore {
 public:
  virtual ~CandidateStore() = default;

  virtual std::optional<CandidateEntry> find(std::int64_t pid) const = 0;
  virtual void store(std::int64_t pid, const CandidateEntry& entry) = 0;
  virtual void erase(std::int64_t pid) = 0;
  virtual std::vector<std::pair<std::int64_t, CandidateEntry>> entries() const = 0;

  virtual void addWatchedExecutables(const ExecutableKeySet& keys) = 0;
  // Drops every watched executable not in `keys`.
  virtual void retainWatchedExecutables(const ExecutableKeySet& keys) = 0;
  virtual void addWatchedPIDs(const std::unordered_set<std::int64_t>& pids) = 0;
  // Drops every watched PID not in `pids`.
  virtual void retainWatchedPIDs(const std::unordered_set<std::int64_t>& pids) = 0;
};

}  // namespace tarnwick::host
