#include "host/owner/SocketOwnerMap.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>
#include <vector>

#include "platform/Text.h"

namespace tarnwick::host {
namespace {

// The numeric entries of a directory, e.g. the PIDs under /proc or the fds under /proc/PID/fd.
std::vector<long> numericEntries(const std::string& path) {
  std::vector<long> entries;
  DIR* directory = ::opendir(path.c_str());
  if (directory == nullptr) return entries;
  while (const dirent* entry = ::readdir(directory)) {
    if (auto number = parseDecimal<long>(entry->d_name)) entries.push_back(*number);
  }
  ::closedir(directory);
  return entries;
}

}  // namespace

std::optional<std::uint64_t> socketInodeOfLink(std::string_view link) {
  constexpr std::string_view kPrefix = "socket:[";
  if (!link.starts_with(kPrefix) || !link.ends_with(']')) return std::nullopt;
  const auto number =
      parseDecimal<std::uint64_t>(link.substr(kPrefix.size(), link.size() - kPrefix.size() - 1));
  return number;
}

SocketOwnerMap::SocketOwnerMap(std::string procRoot, std::size_t capacity)
    : proc_root_(std::move(procRoot)), capacity_(capacity) {}

std::optional<pid_t> SocketOwnerMap::knownOwnerOf(std::uint64_t inode) {
  if (auto found = owners_.find(inode); found != owners_.end()) return found->second;
  for (std::size_t i = 0; i < recent_.size();) {
    const pid_t pid = recent_[i];
    const FdDirectory fds = openFds(pid);
    if (!fds) {
      recent_.erase(recent_.begin() + static_cast<std::ptrdiff_t>(i));  // gone
      continue;
    }
    if (scanDirectory(pid, fds.get(), inode)) {
      remember(pid);
      return pid;
    }
    ++i;
  }
  return std::nullopt;
}

std::optional<pid_t> SocketOwnerMap::walk(std::uint64_t inode) {
  if (auto found = owners_.find(inode); found != owners_.end()) return found->second;
  std::vector<long> pids = numericEntries(proc_root_);
  std::sort(pids.begin(), pids.end(), std::greater<>());
  for (long number : pids) {
    const auto pid = static_cast<pid_t>(number);
    const FdDirectory fds = number > 0 ? openFds(pid) : nullptr;
    if (fds && scanDirectory(pid, fds.get(), inode)) {
      remember(pid);
      return pid;
    }
  }
  return std::nullopt;
}

void SocketOwnerMap::learn(std::uint64_t inode, pid_t pid) {
  record(inode, pid);
  remember(pid);
}

// If a recent owner's PID comes back as a new process, its sockets are that process's: whoever
// holds the socket is its owner.
void SocketOwnerMap::remember(pid_t pid) {
  std::erase(recent_, pid);
  recent_.insert(recent_.begin(), pid);
  if (recent_.size() > kRecentOwners) recent_.pop_back();
}

SocketOwnerMap::FdDirectory SocketOwnerMap::openFds(pid_t pid) const {
  return FdDirectory(::opendir((proc_root_ + "/" + std::to_string(pid) + "/fd").c_str()));
}

// Newest descriptors first: a new socket usually takes the next number up, so the lookup for a
// connection just made tends to end at the first link read. Links are read relative to the open
// fd directory, without a path walk per descriptor.
bool SocketOwnerMap::scanDirectory(pid_t pid, DIR* directory, std::uint64_t inode) {
  std::vector<int> fds;
  while (const dirent* entry = ::readdir(directory)) {
    if (auto fd = parseDecimal<int>(entry->d_name)) fds.push_back(*fd);
  }
  std::sort(fds.begin(), fds.end(), std::greater<>());
  bool holds = false;
  char link[64];
  for (std::size_t i = 0; i < fds.size() && !holds; ++i) {
    const std::string name = std::to_string(fds[i]);
    const ssize_t length = ::readlinkat(::dirfd(directory), name.c_str(), link, sizeof link);
    if (length <= 0) continue;
    const auto socket = socketInodeOfLink(std::string_view(link, static_cast<std::size_t>(length)));
    if (!socket) continue;
    record(*socket, pid);
    holds = *socket == inode;
  }
  return holds;
}

void SocketOwnerMap::record(std::uint64_t inode, pid_t pid) {
  if (owners_.size() >= capacity_) owners_.clear();
  owners_.emplace(inode, pid);
}

}  // namespace tarnwick::host
