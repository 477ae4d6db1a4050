#pragma once
// The watched executables by path, and the file each path names now. A package upgrade renames
// a new file over a watched path; inotify on the paths' directories tells, and drain() then
// reads every path again, so the set of watched files follows.
//
// add(), retain() and drain() run on one thread at a time (the host's loop); keys() and
// pathFor() on any thread. The lock guards the paths and their files and is never held during a
// system call.

#include <optional>
#include <string>
#include <unordered_map>

#include "host/selection/ExecutableKey.h"
#include "identity/WatchGate.h"
#include "platform/Mutex.h"
#include "platform/posix/UniqueFd.h"

namespace tarnwick::host {

class WatchedExecutables {
 public:
  WatchedExecutables();

  // Readable when a watched directory changed; then call drain().
  int fd() const { return inotify_.get(); }

  // Watches `paths` besides those watched already.
  void add(const WatchGate::SigningSet& paths);
  // Watches only those of `paths` that are watched already.
  void retain(const WatchGate::SigningSet& paths);
  // Takes what inotify has to say; true when some path now names another file than before.
  bool drain();

  ExecutableKeySet keys() const TW_EXCLUDES(mutex_);
  // The watched path that names `key`, if one does.
  std::optional<std::string> pathFor(const ExecutableKey& key) const TW_EXCLUDES(mutex_);

 private:
  using PathFiles = std::unordered_map<std::string, std::optional<ExecutableKey>>;

  // Reads the file of every watched path and watches their directories; true on any change.
  bool refresh(const WatchGate::SigningSet& paths);
  void watchDirectories(const WatchGate::SigningSet& paths);

  UniqueFd inotify_;
  // Directory → inotify watch descriptor; touched by the loop's thread only.
  std::unordered_map<std::string, int> directories_;
  mutable Mutex mutex_;
  PathFiles files_ TW_GUARDED_BY(mutex_);
};

}  // namespace tarnwick::host
