#include "host/selection/ExecutableKey.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace tarnwick::host {

ExecutableKey executableKeyFor(const FileIdentity& file) {
  const auto device = static_cast<dev_t>(file.device);
  return {(static_cast<std::uint64_t>(major(device)) << 20) | minor(device), file.inode};
}

std::optional<ExecutableKey> executableKeyOf(const std::string& path) {
  struct stat file {};
  if (::stat(path.c_str(), &file) != 0) return std::nullopt;
  return executableKeyFor({file.st_dev, file.st_ino});
}

}  // namespace tarnwick::host
