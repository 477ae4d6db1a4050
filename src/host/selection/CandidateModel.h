#pragma once
// The kernel's candidate set, modelled in memory: the same rules the BPF program applies at
// fork, exec and exit (CandidateRules.h), over processes a caller describes. Tests run the
// userspace procedure (CandidateReconciler) against it and compare the result with the
// provider's own decision; nothing in the running host uses it.
//
// Not thread-safe.

#include <cstdint>
#include <unordered_map>

#include "host/selection/CandidateStore.h"
#include "host/selection/ProcessTree.h"

namespace tarnwick::host {

class CandidateModel : public CandidateStore {
 public:
  // The fork hook: `child` (a new process) inherits from `parent`.
  void onFork(const ProcessNode& parent, const ProcessNode& child);
  // The exec hook, once `process` runs its new executable. True when the kernel would tell
  // userspace (the new executable is watched).
  bool onExec(const ProcessNode& process) const;
  // The exit hook, for the last thread of a process.
  void onExit(std::int64_t pid);

  // The flags a socket hook sees for `process`: 0 when it is not a candidate.
  std::uint32_t effectiveFlags(const ProcessNode& process) const;

  std::optional<CandidateEntry> find(std::int64_t pid) const override;
  void store(std::int64_t pid, const CandidateEntry& entry) override;
  void erase(std::int64_t pid) override;
  std::vector<std::pair<std::int64_t, CandidateEntry>> entries() const override;
  void addWatchedExecutables(const ExecutableKeySet& keys) override;
  void retainWatchedExecutables(const ExecutableKeySet& keys) override;
  void addWatchedPIDs(const std::unordered_set<std::int64_t>& pids) override;
  void retainWatchedPIDs(const std::unordered_set<std::int64_t>& pids) override;

 private:
  bool runsWatched(const ProcessNode& process) const;

  std::unordered_map<std::int64_t, CandidateEntry> entries_;
  ExecutableKeySet watched_;
  std::unordered_set<std::int64_t> watched_pids_;
};

}  // namespace tarnwick::host
