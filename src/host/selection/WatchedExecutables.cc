#include "host/selection/WatchedExecutables.h"

#include <sys/inotify.h>

#include <array>
#include <cerrno>
#include <filesystem>

namespace tarnwick::host {
namespace {

// A rename over the path, a new file at it, or its removal.
constexpr std::uint32_t kPathEvents = IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE;

std::string directoryOf(const std::string& path) {
  return std::filesystem::path(path).parent_path().string();
}

}  // namespace

WatchedExecutables::WatchedExecutables() : inotify_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {}

void WatchedExecutables::add(const WatchGate::SigningSet& paths) {
  WatchGate::SigningSet all = paths;
  {
    MutexLock lock(mutex_);
    for (const auto& [path, key] : files_) all.insert(path);
  }
  refresh(all);
}

void WatchedExecutables::retain(const WatchGate::SigningSet& paths) {
  WatchGate::SigningSet kept;
  {
    MutexLock lock(mutex_);
    for (const auto& [path, key] : files_) {
      if (paths.contains(path)) kept.insert(path);
    }
  }
  refresh(kept);
}

bool WatchedExecutables::drain() {
  std::array<char, 4096> buffer;
  bool changed = false;
  while (::read(inotify_.get(), buffer.data(), buffer.size()) > 0) changed = true;
  if (!changed) return false;
  WatchGate::SigningSet all;
  {
    MutexLock lock(mutex_);
    for (const auto& [path, key] : files_) all.insert(path);
  }
  return refresh(all);
}

ExecutableKeySet WatchedExecutables::keys() const {
  MutexLock lock(mutex_);
  ExecutableKeySet keys;
  for (const auto& [path, key] : files_) {
    if (key) keys.insert(*key);
  }
  return keys;
}

std::optional<std::string> WatchedExecutables::pathFor(const ExecutableKey& key) const {
  MutexLock lock(mutex_);
  for (const auto& [path, file] : files_) {
    if (file == key) return path;
  }
  return std::nullopt;
}

bool WatchedExecutables::refresh(const WatchGate::SigningSet& paths) {
  watchDirectories(paths);
  PathFiles files;
  for (const std::string& path : paths) files.emplace(path, executableKeyOf(path));
  MutexLock lock(mutex_);
  const bool changed = files != files_;
  files_ = std::move(files);
  return changed;
}

void WatchedExecutables::watchDirectories(const WatchGate::SigningSet& paths) {
  std::unordered_map<std::string, int> directories;
  for (const std::string& path : paths) {
    const std::string directory = directoryOf(path);
    if (directories.contains(directory)) continue;
    auto kept = directories_.find(directory);
    const int watch = kept != directories_.end()
                          ? kept->second
                          : ::inotify_add_watch(inotify_.get(), directory.c_str(), kPathEvents);
    if (kept != directories_.end()) directories_.erase(kept);
    if (watch >= 0) directories.emplace(directory, watch);
  }
  for (const auto& [directory, watch] : directories_) ::inotify_rm_watch(inotify_.get(), watch);
  directories_ = std::move(directories);
}

}  // namespace tarnwick::host
