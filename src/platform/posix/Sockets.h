#pragma once
// The few socket operations the front door needs, all on non-blocking, close-on-exec TCP
// sockets. Failures come back as errno values, never as exceptions.

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/posix/SocketAddress.h"
#include "platform/posix/UniqueFd.h"

namespace tarnwick {

// Whether other sockets may listen on the same port (SO_REUSEPORT), so that several threads
// each accept their share of its connections.
enum class PortSharing { Exclusive, Shared };

// A TCP socket bound to the address (address reuse on; IPv6 sockets IPv6 only), not listening
// yet. On failure the socket is invalid and error says why.
UniqueFd bindTcpSocket(const SocketAddress& address, std::string& error,
                       PortSharing sharing = PortSharing::Exclusive);

// A connect begun on a new socket: usually still in progress, finished by writability and
// connectError(); error is set when it failed at once.
struct DialStart {
  UniqueFd fd;
  int error = 0;
};
// With a mark, the socket carries it (SO_MARK) before it connects, or the dial fails. With a
// connect timeout, a destination that never answers fails the connect with ETIMEDOUT after it
// (TCP_USER_TIMEOUT; clear it with keepConnectedForever() once connected, or a stalled transfer
// would later be cut after as long).
DialStart startDial(const SocketAddress& address, std::optional<std::uint32_t> mark = std::nullopt,
                    std::chrono::milliseconds connectTimeout = {});
void keepConnectedForever(int fd);

// The outcome of a finished non-blocking connect: 0 or an errno value.
int connectError(int fd);

// Closes the socket with a reset (SO_LINGER 0) instead of an orderly end.
void resetAndClose(UniqueFd& fd);

// Small writes such as an acknowledgement must leave at once, not wait for more data.
void setNoDelay(int fd);

}  // namespace tarnwick
