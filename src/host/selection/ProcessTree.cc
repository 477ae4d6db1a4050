#include "host/selection/ProcessTree.h"

#include <dirent.h>

#include <fstream>
#include <memory>
#include <string>

#include "platform/Text.h"

namespace tarnwick::host {

bool mayHaveChildren(std::int64_t pid) {
  const std::string task = std::to_string(pid);
  std::ifstream children("/proc/" + task + "/task/" + task + "/children");
  // Kernels built without the children list give no answer.
  return !children || children.peek() != std::ifstream::traits_type::eof();
}

ProcessTree ProcessTree::read() {
  ProcessTree tree;
  const std::unique_ptr<DIR, int (*)(DIR*)> proc(::opendir("/proc"), ::closedir);
  if (!proc) return tree;
  while (const dirent* entry = ::readdir(proc.get())) {
    const auto pid = parseDecimal<std::int64_t>(entry->d_name);
    if (!pid) continue;
    const ProcessDirectory directory = ProcessDirectory::open(*pid);
    const auto stat = directory.stat();
    if (!stat) continue;
    const auto file = directory.executableFile();
    tree.add({*pid, stat->parentPID, stat->startTime,
              file ? std::optional(executableKeyFor(*file)) : std::nullopt});
  }
  return tree;
}

const ProcessNode* ProcessTree::find(std::int64_t pid) const {
  const auto found = nodes_.find(pid);
  return found == nodes_.end() ? nullptr : &found->second;
}

bool ProcessTree::hasAncestorRunning(std::int64_t pid, const ExecutableKeySet& executables,
                                     std::int64_t maxDepth) const {
  std::int64_t current = pid;
  for (std::int64_t depth = 0; depth < maxDepth; ++depth) {
    const ProcessNode* node = find(current);
    if (!node || node->parentPID < 2 || node->parentPID == current) return false;
    const ProcessNode* parent = find(node->parentPID);
    if (!parent) return false;
    if (parent->executable && executables.contains(*parent->executable)) return true;
    current = parent->pid;
  }
  return false;
}

}  // namespace tarnwick::host
