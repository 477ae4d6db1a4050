#pragma once
// The processes of the machine at one moment, as much of them as candidate selection needs:
// parent, start time and the executable file each runs. Read from /proc, or built by a test.

#include <cstdint>
#include <optional>
#include <unordered_map>

#include "host/selection/ExecutableKey.h"

namespace tarnwick::host {

struct ProcessNode {
  std::int64_t pid = 0;
  std::int64_t parentPID = 0;
  std::uint64_t startTime = 0;              // clock ticks after boot, as /proc shows it
  std::optional<ExecutableKey> executable;  // absent for kernel threads and zombies
};

// False only when `pid` is known to have no child now. An exec leaves one thread, whose
// children list then holds every child the process has.
bool mayHaveChildren(std::int64_t pid);

class ProcessTree {
 public:
  // Every process /proc shows now. Each is read through its own /proc directory, so a PID
  // reused during the scan never mixes two processes' records.
  static ProcessTree read();

  void add(const ProcessNode& node) { nodes_[node.pid] = node; }
  const ProcessNode* find(std::int64_t pid) const;
  const std::unordered_map<std::int64_t, ProcessNode>& nodes() const { return nodes_; }

  // True when one of at most `maxDepth` ancestors of `pid` (never `pid` itself) runs one of
  // `executables`. The walk stops where the ancestry gate's does: at PID 0 or 1, at a process
  // that is its own parent, or at one that is gone.
  bool hasAncestorRunning(std::int64_t pid, const ExecutableKeySet& executables,
                          std::int64_t maxDepth) const;

 private:
  std::unordered_map<std::int64_t, ProcessNode> nodes_;
};

}  // namespace tarnwick::host
