#include "host/ProcessMetaData.h"

#include "identity/AuditToken.h"

namespace tarnwick::host {

// One snapshot: the token and the executable path come from the very same process.
NEFlowMetaData processMetaData(pid_t pid) {
  const auto snapshot = readProcessSnapshot(pid);
  if (!snapshot) return {};
  return {snapshot->executable.value_or(""), auditTokenFor(pid, *snapshot)};
}

}  // namespace tarnwick::host
