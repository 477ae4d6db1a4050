#pragma once
// Which process holds a socket, by the socket's inode. Answers come from a cache of every socket
// inode seen in /proc/PID/fd. Past the cache there are two ways, kept apart so that a caller can
// take the cheap one itself and leave the other to a thread that may block: the few processes
// that owned the latest connections (a long-running client opens one connection after another),
// and a walk of /proc. The walk takes the newest processes first (the highest PIDs; a connection
// usually comes from a process that just started), each from its newest descriptor down, and
// stops at the socket, recording every socket it passes on the way.
//
// A descriptor table is opened for the time of one scan, never kept: the map holds no
// descriptors, however many processes come and go. A recent owner found gone is forgotten.
// Used from one thread at a time.

#include <dirent.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace tarnwick::host {

class SocketOwnerMap {
 public:
  // `procRoot` is "/proc" except in tests; `capacity` bounds the cache (it is emptied when full).
  explicit SocketOwnerMap(std::string procRoot = "/proc", std::size_t capacity = 65536);

  // From the cache or the recent owners only: cheap, bounded by a few descriptor tables.
  std::optional<pid_t> knownOwnerOf(std::uint64_t inode);
  // From the cache, else by a walk of /proc; the owner a walk finds becomes a recent owner.
  std::optional<pid_t> walk(std::uint64_t inode);
  // Takes an owner found by another map's walk as a recent owner.
  void learn(std::uint64_t inode, pid_t pid);

  std::size_t cachedCountForTest() const { return owners_.size(); }

 private:
  struct CloseDirectory {
    void operator()(DIR* directory) const { ::closedir(directory); }
  };
  using FdDirectory = std::unique_ptr<DIR, CloseDirectory>;

  FdDirectory openFds(pid_t pid) const;
  // Records the process's sockets down to `inode`; true when it holds it.
  bool scanDirectory(pid_t pid, DIR* directory, std::uint64_t inode);
  void record(std::uint64_t inode, pid_t pid);
  void remember(pid_t pid);

  // How many recent owners are looked at before the walk.
  static constexpr std::size_t kRecentOwners = 8;

  const std::string proc_root_;
  const std::size_t capacity_;
  std::unordered_map<std::uint64_t, pid_t> owners_;
  std::vector<pid_t> recent_;  // most recent first
};

// The inode named by a descriptor link's text "socket:[12345]"; absent for anything else.
std::optional<std::uint64_t> socketInodeOfLink(std::string_view link);

}  // namespace tarnwick::host
