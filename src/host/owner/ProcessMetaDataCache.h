#pragma once
// What a flow's metadata says about the process that opened it: the signing identifier (on
// Linux the canonical path of the executable) and the 32-byte audit token. PID 0, or a process
// that cannot be inspected, gives empty metadata: no identifier, no token.
//
// A process is read in full (start time, IDs, executable) the first time one of its connections
// is seen, and remembered with its /proc directory held open. Its next connections cost one
// read of the executable link through that directory, which fails once the process has gone (a
// reused PID is read afresh) and shows when the process has run a new program (read afresh too,
// since a set-user-ID program changes its IDs). IDs a process changes by itself later, without
// a new program, are not seen until it is read afresh.
//
// Used from one thread at a time (each lane has its own).

#include <sys/types.h>

#include <cstddef>
#include <unordered_map>

#include "platform/NetworkExtension.h"
#include "platform/ProcessTable.h"

namespace tarnwick::host {

class ProcessMetaDataCache {
 public:
  // At most `capacity` processes are remembered; the cache is emptied when full.
  explicit ProcessMetaDataCache(std::size_t capacity = 512) : capacity_(capacity) {}

  NEFlowMetaData metaDataOf(pid_t pid);

 private:
  struct Entry {
    ProcessDirectory directory;
    ProcessSnapshot snapshot;
  };

  const std::size_t capacity_;
  std::unordered_map<pid_t, Entry> entries_;
};

}  // namespace tarnwick::host
