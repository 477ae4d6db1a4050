#include "host/selection/CandidateModel.h"

#include "host/selection/CandidateRules.h"

namespace tarnwick::host {

void CandidateModel::onFork(const ProcessNode& parent, const ProcessNode& child) {
  const std::uint32_t flags = tw_child_flags(effectiveFlags(parent));
  if (flags == 0) return;
  auto [entry, inserted] = entries_.try_emplace(child.pid, CandidateEntry{child.startTime, flags});
  if (inserted) return;
  if (entry->second.startTime == child.startTime) {
    entry->second.flags |= flags;
  } else {
    entry->second = {child.startTime, flags};
  }
}

bool CandidateModel::onExec(const ProcessNode& process) const {
  // Stored flags survive an exec as they are.
  return runsWatched(process);
}

void CandidateModel::onExit(std::int64_t pid) { entries_.erase(pid); }

std::uint32_t CandidateModel::effectiveFlags(const ProcessNode& process) const {
  const auto entry = find(process.pid);
  const std::uint32_t stored = entry && entry->startTime == process.startTime ? entry->flags : 0;
  return tw_effective_flags(stored, runsWatched(process), watched_pids_.contains(process.pid));
}

std::optional<CandidateEntry> CandidateModel::find(std::int64_t pid) const {
  const auto found = entries_.find(pid);
  if (found == entries_.end()) return std::nullopt;
  return found->second;
}

void CandidateModel::store(std::int64_t pid, const CandidateEntry& entry) { entries_[pid] = entry; }

void CandidateModel::erase(std::int64_t pid) { entries_.erase(pid); }

std::vector<std::pair<std::int64_t, CandidateEntry>> CandidateModel::entries() const {
  return {entries_.begin(), entries_.end()};
}

void CandidateModel::addWatchedExecutables(const ExecutableKeySet& keys) {
  watched_.insert(keys.begin(), keys.end());
}

void CandidateModel::retainWatchedExecutables(const ExecutableKeySet& keys) {
  std::erase_if(watched_, [&](const ExecutableKey& key) { return !keys.contains(key); });
}

void CandidateModel::addWatchedPIDs(const std::unordered_set<std::int64_t>& pids) {
  watched_pids_.insert(pids.begin(), pids.end());
}

void CandidateModel::retainWatchedPIDs(const std::unordered_set<std::int64_t>& pids) {
  std::erase_if(watched_pids_, [&](std::int64_t pid) { return !pids.contains(pid); });
}

bool CandidateModel::runsWatched(const ProcessNode& process) const {
  return process.executable && watched_.contains(*process.executable);
}

}  // namespace tarnwick::host
