#pragma once
// A machine made of process records: the kernel's candidate rules (CandidateModel) and the
// userspace procedure (CandidateReconciler) run over it as they run over the real one, beside
// the provider's own decision made with the real identity gates over the same processes.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "host/selection/CandidateModel.h"
#include "host/selection/CandidateReconciler.h"
#include "identity/AncestryGate.h"
#include "identity/AuditToken.h"
#include "identity/IdentityGate.h"
#include "identity/WatchGate.h"

namespace tarnwick::host {

inline const std::vector<std::string> kExecutables = {"/usr/bin/agent", "/bin/sh", "/usr/bin/curl",
                                                      "/usr/bin/python3", "/sbin/init"};

class SyntheticMachine {
 public:
  SyntheticMachine() { processes_[1] = {0, 1, kExecutables.size() - 1}; }

  // A new process forked by `parent`, running what its parent runs; its PID is the lowest free
  // one from `lowestPID` on, so PIDs are reused.
  std::int64_t fork(std::int64_t parent, std::int64_t lowestPID = 2) {
    std::int64_t pid = lowestPID;
    while (processes_.contains(pid)) ++pid;
    processes_[pid] = {parent, ++clock_, processes_.at(parent).executable};
    kernel_.onFork(node(parent), node(pid));
    return pid;
  }

  void exec(std::int64_t pid, std::size_t executable) {
    processes_.at(pid).executable = executable;
    // The kernel's notice makes the host add the children forked before.
    if (kernel_.onExec(node(pid))) reconciler_.add(targets());
  }

  // Children of a process that exits are reparented to init.
  void exit(std::int64_t pid) {
    processes_.erase(pid);
    kernel_.onExit(pid);
    for (auto& [child, process] : processes_) {
      if (process.parent == pid) process.parent = 1;
    }
  }

  // A watch-set change as the host makes it: add, the provider's update, prune.
  void watch(const WatchGate::SigningSet& paths, const WatchGate::PidSet& pids) {
    WatchGate::SigningSet allPaths = paths;
    allPaths.insert(paths_.begin(), paths_.end());
    WatchGate::PidSet allPids = pids;
    allPids.insert(pids_.begin(), pids_.end());
    paths_ = allPaths;
    pids_ = allPids;
    reconciler_.add(targets());
    watchGate_.update(paths, pids);
    identityGate_.pruneTo(pids);
    ancestryGate_.dropCache();
    paths_ = paths;
    pids_ = pids;
    reconciler_.prune(targets());
  }

  // The provider's decision for a flow of `pid`, step by step as the provider takes it.
  bool providerAccepts(std::int64_t pid) {
    const std::string signingID = pathOf(pid);
    const std::int64_t version = pidVersionForStartTime(processes_.at(pid).startTime);
    if (watchGate_.isWatched(signingID, pid)) {
      return watchGate_.signingMatches(signingID) ||
             identityGate_.allowPIDMatch(pid, version, signingID);
    }
    return ancestryGate_.isWatchedDescendant(pid, version, watchGate_);
  }
  bool kernelSelects(std::int64_t pid) const { return kernel_.effectiveFlags(node(pid)) != 0; }
  void forgetProviderAncestry() { ancestryGate_.dropCache(); }

  std::vector<std::int64_t> living() const {
    std::vector<std::int64_t> pids;
    for (const auto& [pid, process] : processes_) {
      if (pid != 1) pids.push_back(pid);
    }
    return pids;
  }
  bool hasChildren(std::int64_t pid) const {
    for (const auto& [child, process] : processes_) {
      if (process.parent == pid) return true;
    }
    return false;
  }
  std::int64_t depthOf(std::int64_t pid) const {
    std::int64_t depth = 0;
    for (; pid > 1; pid = processes_.at(pid).parent) ++depth;
    return depth;
  }
  std::size_t executableOf(std::int64_t pid) const { return processes_.at(pid).executable; }
  const WatchGate::PidSet& watchedPIDs() const { return pids_; }
  const WatchGate::SigningSet& watchedPaths() const { return paths_; }

 private:
  struct Process {
    std::int64_t parent;
    std::uint64_t startTime;
    std::size_t executable;
  };

  static ExecutableKey keyOf(std::size_t executable) { return {8 << 20 | 1, 100 + executable}; }

  std::string pathOf(std::int64_t pid) const {
    const auto found = processes_.find(pid);
    return found == processes_.end() ? std::string() : kExecutables[found->second.executable];
  }
  ProcessNode node(std::int64_t pid) const {
    const Process& process = processes_.at(pid);
    return {pid, process.parent, process.startTime, keyOf(process.executable)};
  }
  ProcessTree tree() const {
    ProcessTree tree;
    for (const auto& [pid, process] : processes_) tree.add(node(pid));
    return tree;
  }
  WatchTargets targets() const {
    WatchTargets targets;
    for (std::size_t i = 0; i < kExecutables.size(); ++i) {
      if (paths_.contains(kExecutables[i])) targets.executables.insert(keyOf(i));
    }
    targets.pids = {pids_.begin(), pids_.end()};
    return targets;
  }
  std::optional<std::int64_t> parentOf(std::int64_t pid) const {
    const auto found = processes_.find(pid);
    if (found == processes_.end()) return std::nullopt;
    return found->second.parent;
  }

  std::map<std::int64_t, Process> processes_;
  std::uint64_t clock_ = 1;
  WatchGate::SigningSet paths_;
  WatchGate::PidSet pids_;
  CandidateModel kernel_;
  CandidateReconciler reconciler_{kernel_, [this] { return tree(); }};
  WatchGate watchGate_;
  IdentityGate identityGate_;
  AncestryGate ancestryGate_{
      AncestryGate::kDefaultMaxDepth, AncestryGate::kDefaultCacheCap,
      [this](std::int64_t pid) { return parentOf(pid); },
      [this](std::int64_t pid) -> std::optional<std::string> { return pathOf(pid); }};
};

}  // namespace tarnwick::host
