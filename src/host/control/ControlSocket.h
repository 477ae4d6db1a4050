#pragma once
// The control socket's file. It is made with mode 0600 from the start (the process's umask is
// narrowed around the bind, so there is no moment at which it is open to others), 0660 and the
// operator's group when one is named. What is already at the path decides the rest: a socket
// someone still listens on belongs to a running instance and is never removed; a socket nobody
// listens on was left by one that died and is replaced; anything else is not ours to touch.
//
// Any thread; the umask is the process's, so two binds must not overlap (the host makes one).

#include <sys/types.h>

#include <optional>
#include <string>

#include "platform/posix/UniqueFd.h"

namespace tarnwick::host {

// The address of a Unix socket at `path`: empty or too long paths have none.
bool fitsUnixSocketAddress(const std::string& path);

// Whether a control socket could be made at `path` now; when not, `error` says why in words an
// operator acts on ("... exists and is not a socket", "... is in use by a running interceptor").
bool controlSocketPathUsable(const std::string& path, std::string& error);

// A listening socket bound at `path` as above; invalid, with `error` set and no file left
// behind, on failure.
UniqueFd bindControlSocket(const std::string& path, std::optional<gid_t> group, std::string& error);

}  // namespace tarnwick::host
