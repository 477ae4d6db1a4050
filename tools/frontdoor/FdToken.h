#pragma once
// The tokens the front door gives its fds in the event loop: an owner id and the fd's role, so a
// handler looks its owner up by id and an event that arrives in the same batch as its owner's end
// finds nothing rather than freed memory.

#include <cstdint>

namespace tarnwick::frontdoor {

// What an fd is to its owner. Connections own Client, Upstream and Timer fds under their id;
// the front door's own fds use the Server role.
enum class FdRole : std::uint64_t { Client = 0, Upstream = 1, Timer = 2, Server = 3 };

inline std::uint64_t makeToken(std::uint64_t id, FdRole role) {
  return (id << 2) | static_cast<std::uint64_t>(role);
}
inline std::uint64_t tokenId(std::uint64_t token) { return token >> 2; }
inline FdRole tokenRole(std::uint64_t token) { return static_cast<FdRole>(token & 3); }

}  // namespace tarnwick::frontdoor
