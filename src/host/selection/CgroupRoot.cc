#include "host/selection/CgroupRoot.h"

#include <fcntl.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

namespace tarnwick::host {
namespace {

// The mount point of a cgroup2 file system mounted at the hierarchy's root, from
// /proc/self/mountinfo: "id parent major:minor root mountpoint options ... - type source ...".
std::string mountedCgroup2Root() {
  std::ifstream mountinfo("/proc/self/mountinfo");
  for (std::string line; std::getline(mountinfo, line);) {
    std::istringstream fields(line);
    std::string id, parent, device, root, mountPoint;
    fields >> id >> parent >> device >> root >> mountPoint;
    const std::size_t separator = line.find(" - ");
    if (root != "/" || separator == std::string::npos) continue;
    std::istringstream after(line.substr(separator + 3));
    std::string type;
    after >> type;
    // Mount points with blanks are escaped (\040); such a path is not worth decoding here.
    if (type == "cgroup2" && mountPoint.find('\\') == std::string::npos) return mountPoint;
  }
  return {};
}

UniqueFd privateCgroup2Mount(std::string& whyNot) {
  const UniqueFd context(::fsopen("cgroup2", FSOPEN_CLOEXEC));
  if (!context || ::fsconfig(context.get(), FSCONFIG_CMD_CREATE, nullptr, nullptr, 0) != 0) {
    whyNot = std::string("cgroup v2 unavailable: ") + std::strerror(errno);
    return {};
  }
  const UniqueFd mount(::fsmount(context.get(), FSMOUNT_CLOEXEC, 0));
  if (!mount) {
    whyNot = std::string("cgroup v2 unavailable: ") + std::strerror(errno);
    return {};
  }
  // The mount descriptor is a path-only one; programs attach through a directory opened on it.
  UniqueFd root(::openat(mount.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!root) whyNot = std::string("cgroup v2 unavailable: ") + std::strerror(errno);
  return root;
}

}  // namespace

UniqueFd openCgroupRoot(std::string& whyNot) {
  const std::string mounted = mountedCgroup2Root();
  if (!mounted.empty()) {
    UniqueFd root(::open(mounted.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (root) return root;
  }
  return privateCgroup2Mount(whyNot);
}

}  // namespace tarnwick::host
