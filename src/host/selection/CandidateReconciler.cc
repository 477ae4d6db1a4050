#include "host/selection/CandidateReconciler.h"

#include "host/selection/CandidateRules.h"

namespace tarnwick::host {

int CandidateReconciler::add(const WatchTargets& targets) {
  store_.addWatchedExecutables(targets.executables);
  store_.addWatchedPIDs(targets.pids);
  for (int pass = 1;; ++pass) {
    bool added = false;
    const ProcessTree tree = scan_();
    for (const auto& [pid, node] : tree.nodes()) {
      const std::uint32_t wanted = flagsFor(tree, node, targets);
      if (wanted == 0) continue;
      const auto entry = store_.find(pid);
      const bool current = entry && entry->startTime == node.startTime;
      const std::uint32_t flags = (current ? entry->flags : 0) | wanted;
      if (current && flags == entry->flags) continue;
      store_.store(pid, {node.startTime, flags});
      added = true;
    }
    if (!added || pass == kMaxAddPasses) return pass;
  }
}

void CandidateReconciler::prune(const WatchTargets& targets) {
  store_.retainWatchedExecutables(targets.executables);
  store_.retainWatchedPIDs(targets.pids);
  const ProcessTree tree = scan_();
  for (const auto& [pid, entry] : store_.entries()) {
    const ProcessNode* node = tree.find(pid);
    if (!node || node->startTime != entry.startTime) continue;
    const std::uint32_t flags = entry.flags & flagsFor(tree, *node, targets);
    if (flags == entry.flags) continue;
    if (flags == 0) {
      store_.erase(pid);
    } else {
      store_.store(pid, {entry.startTime, flags});
    }
  }
}

std::uint32_t CandidateReconciler::flagsFor(const ProcessTree& tree, const ProcessNode& node,
                                            const WatchTargets& targets) const {
  return tree.hasAncestorRunning(node.pid, targets.executables, max_depth_) ? TW_CANDIDATE_INHERITED
                                                                            : 0;
}

}  // namespace tarnwick::host
