#pragma once
// Who may use the control socket: root, and the members of one group when the operator names
// it. The file's mode already keeps others out; the peer's credentials, taken by the kernel at
// connect time, are checked on every connection as well, so a loosened mode or a descriptor
// passed on to another program grants nothing.

#include <sys/types.h>

#include <optional>
#include <string>

namespace tarnwick::host {

struct ControlPeer {
  pid_t pid = 0;
  uid_t uid = static_cast<uid_t>(-1);  // unknown until read
  gid_t gid = static_cast<gid_t>(-1);
};

class ControlAccess {
 public:
  // Root only, or root and the members of `group` (primary or supplementary).
  explicit ControlAccess(std::optional<gid_t> group = std::nullopt) : group_(group) {}

  // The credentials of the process at the other end of the connected Unix socket `fd`.
  static std::optional<ControlPeer> peerOf(int fd);

  // Whether the peer of `fd` may use the socket; `peer` is filled when its credentials are
  // known.
  bool permits(int fd, ControlPeer& peer) const;

  std::optional<gid_t> group() const { return group_; }

 private:
  bool inGroup(int fd, const ControlPeer& peer) const;

  const std::optional<gid_t> group_;
};

// The group named by `name`, or by its decimal ID; absent with `error` set when there is none.
std::optional<gid_t> lookUpGroup(const std::string& name, std::string& error);

}  // namespace tarnwick::host
