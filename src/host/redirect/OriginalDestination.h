#pragma once
// Where a redirected connection was really going, as the kernel's NAT recorded it, and how the
// host names it to the provider.

#include <optional>

#include "host/redirect/ConntrackTuples.h"
#include "platform/NetworkExtension.h"
#include "platform/posix/SocketAddress.h"

namespace tarnwick::host {

// The destination before the redirect (SO_ORIGINAL_DST or IP6T_SO_ORIGINAL_DST, by the accepted
// socket's family); absent when the connection was not redirected.
std::optional<SocketAddress> originalDestination(int fd, int family);

// The connection `fd`, accepted at `local` from `peer`, as its client made it: the tracked
// original tuple, or else the client as seen and the original destination. Absent when the
// connection was not redirected. Call from the lanes (each keeps its own conntrack handle).
std::optional<OriginalTuple> redirectedTuple(int fd, const SocketAddress& local,
                                             const SocketAddress& peer);

// The flow's remote endpoint: the address as an IP literal (IPv6 without brackets) and the port
// as decimal text. An IPv4-mapped IPv6 address is named as the IPv4 address it carries.
NWHostEndpoint hostEndpointOf(const SocketAddress& address);

// True when both name the same address and port.
bool sameSocketAddress(const SocketAddress& a, const SocketAddress& b);

}  // namespace tarnwick::host
