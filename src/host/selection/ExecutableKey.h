#pragma once
// An executable file as the kernel names it at exec: its device in the kernel's internal
// encoding and its inode number. A watched path is matched by the file it names, so the key of
// a path changes when a new file is renamed over it.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_set>

#include "platform/ProcessTable.h"

namespace tarnwick::host {

struct ExecutableKey {
  std::uint64_t device = 0;  // major << 20 | minor, as the kernel keeps it
  std::uint64_t inode = 0;

  bool operator==(const ExecutableKey&) const = default;
};

struct ExecutableKeyHash {
  std::size_t operator()(const ExecutableKey& key) const {
    return std::hash<std::uint64_t>{}(key.inode * 31 + key.device);
  }
};

using ExecutableKeySet = std::unordered_set<ExecutableKey, ExecutableKeyHash>;

// The C library encodes a device number differently from the kernel's internal dev_t.
ExecutableKey executableKeyFor(const FileIdentity& file);

// The key of the file `path` names (links followed); absent when it cannot be reached.
std::optional<ExecutableKey> executableKeyOf(const std::string& path);

}  // namespace tarnwick::host
