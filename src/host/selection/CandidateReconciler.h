#pragma once
// Brings a candidate set in line with a watch set, over the processes that run now. The kernel
// keeps the set current between watch-set changes (fork, exec, exit); this adds what it cannot
// know, the descendants that processes running a newly watched executable had already forked,
// and removes what a watch set no longer justifies.
//
// A change is made in two steps so the set never misses a process the provider accepts: add()
// while the provider still has the old watch set, prune() once it has the new one.
//
// Not thread-safe: one caller at a time (the host's loop, or a test).

#include <cstdint>
#include <functional>

#include "host/selection/CandidateStore.h"
#include "host/selection/ProcessTree.h"
#include "identity/AncestryGate.h"

namespace tarnwick::host {

struct WatchTargets {
  ExecutableKeySet executables;
  std::unordered_set<std::int64_t> pids;
};

class CandidateReconciler {
 public:
  using TreeSource = std::function<ProcessTree()>;

  // A scan may fork-race a pass; passes repeat until one adds nothing, but no more than this.
  static constexpr int kMaxAddPasses = 8;

  CandidateReconciler(CandidateStore& store, TreeSource scan,
                      std::int64_t maxDepth = AncestryGate::kDefaultMaxDepth)
      : store_(store), scan_(std::move(scan)), max_depth_(maxDepth) {}

  // Watches `targets` too: their executables and PIDs join the store's, then every running
  // process they make an inherited candidate gains its flag. A process forked from one being added,
  // before its parent's flags were in, is caught by the next pass's scan. Returns the passes it
  // took.
  int add(const WatchTargets& targets);

  // Watches only `targets`: the other executables and PIDs leave, and every process of one scan
  // loses the flags `targets` do not give it (an entry left without flags goes). Processes born
  // after the scan are left as the kernel made them.
  void prune(const WatchTargets& targets);

  // The stored flags `targets` give the process `node` of `tree`: inherited when one of its
  // ancestors, within the ancestry walk's depth, runs a watched executable.
  std::uint32_t flagsFor(const ProcessTree& tree, const ProcessNode& node,
                         const WatchTargets& targets) const;

 private:
  CandidateStore& store_;
  const TreeSource scan_;
  const std::int64_t max_depth_;
};

}  // namespace tarnwick::host
