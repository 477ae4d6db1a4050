#pragma once
// What a flow's metadata says about the process that opened it: the signing identifier (on
// Linux the canonical path of the executable) and the 32-byte audit token. PID 0, or a process
// that cannot be inspected, gives empty metadata: no identifier, no token.
//
// A process is read in full (start time, IDs, executable) the first time one of its connections
// is seen and remembered. Its next connections cost a check that it is still the same process
// running the same program: its start time and executable read afresh (a reused PID starts
// later; a new program, possibly set-user-ID, reads afresh in full). IDs a process changes by
// itself later, without a new program, are not seen until it is read in full again.
//
// The few processes whose connections came last keep their /proc directory open, which makes the
// check one read of the executable link through it: one that fails once the process has gone,
// and then the directory is let go at once. At most kHeldDirectories are held, so processes that
// come and go never cost descriptors beyond that; every miss also lets go of the directories of
// processes that have gone meanwhile.
//
// Used from one thread at a time (each lane has its own).

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <unordered_map>
#include <vector>

#include "platform/NetworkExtension.h"
#include "platform/ProcessTable.h"

namespace tarnwick::host {

class ProcessMetaDataCache {
 public:
  static constexpr std::size_t kHeldDirectories = 8;

  // At most `capacity` processes are remembered; the cache is emptied when full.
  explicit ProcessMetaDataCache(std::size_t capacity = 512) : capacity_(capacity) {}

  NEFlowMetaData metaDataOf(pid_t pid);

 private:
  struct Entry {
    ProcessSnapshot snapshot;
    std::optional<ProcessDirectory> directory;  // held for the most recent processes only
  };

  // Whether the entry still describes the process now behind its PID.
  bool stillCurrent(pid_t pid, Entry& entry);
  // Makes the entry one of the most recent, holding `directory` for it.
  void hold(pid_t pid, Entry& entry, ProcessDirectory directory);
  // Makes the held entry the most recent; the least recent beyond the bound lets go of its own.
  void touch(pid_t pid);
  void forget(pid_t pid);
  // Lets go of every held directory whose process has gone.
  void releaseGone();

  const std::size_t capacity_;
  std::unordered_map<pid_t, Entry> entries_;
  std::vector<pid_t> held_;  // the entries holding a directory, most recent first
};

}  // namespace tarnwick::host
