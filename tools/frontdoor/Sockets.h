#pragma once
// The few socket operations the front door needs, all on non-blocking, close-on-exec TCP
// sockets. Failures come back as errno values, never as exceptions.

#include <string>

#include "SocketAddress.h"
#include "UniqueFd.h"

namespace tarnwick::frontdoor {

// A TCP socket bound to the address (address reuse on; IPv6 sockets IPv6 only), not listening
// yet. On failure the socket is invalid and error says why.
UniqueFd bindTcpSocket(const SocketAddress& address, std::string& error);

// A connect begun on a new socket: usually still in progress, finished by writability and
// connectError(); error is set when it failed at once.
struct DialStart {
  UniqueFd fd;
  int error = 0;
};
DialStart startDial(const SocketAddress& address);

// The outcome of a finished non-blocking connect: 0 or an errno value.
int connectError(int fd);

// Small writes such as an acknowledgement must leave at once, not wait for more data.
void setNoDelay(int fd);

}  // namespace tarnwick::frontdoor
