#include "host/owner/ProcessMetaDataCache.h"

#include "identity/AuditToken.h"

namespace tarnwick::host {
namespace {

NEFlowMetaData metaDataFrom(pid_t pid, const ProcessSnapshot& snapshot) {
  return {snapshot.executable.value_or(""), auditTokenFor(pid, snapshot)};
}

}  // namespace

NEFlowMetaData ProcessMetaDataCache::metaDataOf(pid_t pid) {
  if (pid <= 0) return {};
  if (auto found = entries_.find(pid); found != entries_.end()) {
    if (found->second.directory.executable() == found->second.snapshot.executable) {
      return metaDataFrom(pid, found->second.snapshot);
    }
    entries_.erase(found);
  }
  auto directory = ProcessDirectory::open(pid);
  auto snapshot = directory.snapshot();
  if (!snapshot) return {};
  NEFlowMetaData metaData = metaDataFrom(pid, *snapshot);
  // Without an executable there is nothing to tell a live process from a gone one by.
  if (snapshot->executable) {
    if (entries_.size() >= capacity_) entries_.clear();
    entries_.emplace(pid, Entry{std::move(directory), std::move(*snapshot)});
  }
  return metaData;
}

}  // namespace tarnwick::host
