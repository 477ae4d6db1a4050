#include "host/owner/ProcessMetaDataCache.h"

#include <algorithm>

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
    if (stillCurrent(pid, found->second)) return metaDataFrom(pid, found->second.snapshot);
    forget(pid);
  }
  releaseGone();
  auto directory = ProcessDirectory::open(pid);
  auto snapshot = directory.snapshot();
  if (!snapshot) return {};
  NEFlowMetaData metaData = metaDataFrom(pid, *snapshot);
  // Without an executable there is nothing to tell a live process from a gone one by.
  if (snapshot->executable) {
    if (entries_.size() >= capacity_) {
      entries_.clear();
      held_.clear();
    }
    Entry& entry = entries_[pid];
    entry.snapshot = std::move(*snapshot);
    hold(pid, entry, std::move(directory));
  }
  return metaData;
}

bool ProcessMetaDataCache::stillCurrent(pid_t pid, Entry& entry) {
  if (entry.directory) {
    if (entry.directory->executable() != entry.snapshot.executable) return false;
    touch(pid);
    return true;
  }
  auto directory = ProcessDirectory::open(pid);
  const auto stat = directory.stat();
  if (!stat || stat->startTime != entry.snapshot.stat.startTime ||
      directory.executable() != entry.snapshot.executable) {
    return false;
  }
  hold(pid, entry, std::move(directory));
  return true;
}

void ProcessMetaDataCache::hold(pid_t pid, Entry& entry, ProcessDirectory directory) {
  entry.directory = std::move(directory);
  touch(pid);
}

void ProcessMetaDataCache::touch(pid_t pid) {
  std::erase(held_, pid);
  held_.insert(held_.begin(), pid);
  if (held_.size() <= kHeldDirectories) return;
  entries_[held_.back()].directory.reset();
  held_.pop_back();
}

void ProcessMetaDataCache::forget(pid_t pid) {
  std::erase(held_, pid);
  entries_.erase(pid);
}

void ProcessMetaDataCache::releaseGone() {
  const std::vector<pid_t> held = held_;
  for (const pid_t pid : held) {
    if (!entries_[pid].directory->executable()) forget(pid);
  }
}

}  // namespace tarnwick::host
