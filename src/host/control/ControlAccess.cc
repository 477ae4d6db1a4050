#include "host/control/ControlAccess.h"

#include <grp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "platform/Text.h"

namespace tarnwick::host {

std::optional<ControlPeer> ControlAccess::peerOf(int fd) {
  ucred credentials{};
  socklen_t length = sizeof credentials;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0 ||
      length != sizeof credentials) {
    return std::nullopt;
  }
  return ControlPeer{credentials.pid, credentials.uid, credentials.gid};
}

bool ControlAccess::permits(int fd, ControlPeer& peer) const {
  const auto known = peerOf(fd);
  if (!known) return false;
  peer = *known;
  return peer.uid == 0 || inGroup(fd, peer);
}

// The supplementary groups come from the kernel's record of the connecting process too, not
// from the group database, which a member removed since would still be in.
bool ControlAccess::inGroup(int fd, const ControlPeer& peer) const {
  if (!group_) return false;
  if (peer.gid == *group_) return true;
  std::vector<gid_t> groups(64);
  for (;;) {
    socklen_t length = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &length) == 0) {
      groups.resize(length / sizeof(gid_t));
      return std::find(groups.begin(), groups.end(), *group_) != groups.end();
    }
    // The kernel says how much room the list needs; NGROUPS_MAX bounds it.
    if (errno != ERANGE || length / sizeof(gid_t) <= groups.size()) return false;
    groups.resize(length / sizeof(gid_t));
  }
}

std::optional<gid_t> lookUpGroup(const std::string& name, std::string& error) {
  if (const auto id = parseDecimal<gid_t>(name)) return *id;
  std::vector<char> buffer(16384);
  group entry{};
  group* found = nullptr;
  const int failed = ::getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
  if (failed == 0 && found != nullptr) return found->gr_gid;
  error = "no group named \"" + name + "\"";
  return std::nullopt;
}

}  // namespace tarnwick::host
