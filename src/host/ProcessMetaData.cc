#include "host/ProcessMetaData.h"

#include "identity/AuditToken.h"

namespace tarnwick::host {

NEFlowMetaData processMetaData(pid_t pid) {
  if (pid <= 0) return {};
  auto token = auditTokenForPID(pid);
  // Read through the token, so the path belongs to the very process the token names.
  std::string signingID = signingIDFromAuditTokenData(token).value_or("");
  return {std::move(signingID), std::move(token)};
}

}  // namespace tarnwick::host
