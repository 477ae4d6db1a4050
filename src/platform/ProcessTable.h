#pragma once
// The live process table of Linux, read from /proc: what the process-identity gates need to know
// about a running process. Every lookup folds failure (no such process, no permission, a kernel
// thread, a malformed record) into an absent result and never blocks for long.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/posix/UniqueFd.h"

namespace tarnwick {

struct ProcessStat {
  std::int64_t parentPID;
  // Clock ticks after boot at which the process started; a reused PID gets a later one.
  std::uint64_t startTime;
};

// A file as stat() names it: the device (in the C library's encoding) and the inode.
struct FileIdentity {
  std::uint64_t device;
  std::uint64_t inode;
};

struct ProcessCredentials {
  std::uint32_t auditUser;  // the login UID, 4294967295 when unset
  std::uint32_t effectiveUID;
  std::uint32_t effectiveGID;
  std::uint32_t realUID;
  std::uint32_t realGID;
  std::uint32_t session;  // the audit session, 4294967295 when unset
};

// Fields 4 (parent PID) and 22 (start time) of a /proc/PID/stat line. The command name in field
// 2 may hold blanks and parentheses, so the fields are counted after the last ')'.
std::optional<ProcessStat> parseProcessStat(std::string_view line);

std::optional<ProcessStat> readProcessStat(std::int64_t pid);

// The canonical path of the process's executable, made valid UTF-8; absent for kernel threads,
// zombies and processes this one may not inspect. A process whose file has since been deleted or
// replaced (an upgrade) keeps the path it was started from.
std::optional<std::string> readExecutablePath(std::int64_t pid);

std::optional<ProcessCredentials> readProcessCredentials(std::int64_t pid);

// What identifies a flow's process, read at one moment through one ProcessDirectory.
struct ProcessSnapshot {
  ProcessStat stat;
  ProcessCredentials credentials;
  std::optional<std::string> executable;  // absent for kernel threads and zombies
};

// An open /proc/PID directory. Every record read through it belongs to the very process it was
// opened for: a reused PID gets a directory of its own, and this one reads nothing once its
// process has gone. So the records need no second look at the start time, and a kept directory
// tells cheaply whether its process still runs. Each one holds a descriptor: whoever keeps them
// keeps only a few, and lets go of those whose process has gone.
class ProcessDirectory {
 public:
  // Invalid when the process cannot be inspected.
  static ProcessDirectory open(std::int64_t pid);

  bool valid() const { return fd_.valid(); }
  std::optional<ProcessSnapshot> snapshot() const;
  std::optional<ProcessStat> stat() const;
  // The file the process runs, even when its path has been removed or replaced since.
  std::optional<FileIdentity> executableFile() const;
  // Absent once the process has gone (and for kernel threads and zombies).
  std::optional<std::string> executable() const;

 private:
  explicit ProcessDirectory(UniqueFd fd) : fd_(std::move(fd)) {}
  UniqueFd fd_;
};

std::optional<ProcessSnapshot> readProcessSnapshot(std::int64_t pid);

}  // namespace tarnwick
