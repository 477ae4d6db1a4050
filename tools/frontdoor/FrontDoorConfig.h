#pragma once
// Everything one front door is started with. The command line fills the first four; the
// timeouts are fixed there and shortened only by tests.

#include <cstdint>
#include <optional>
#include <string>

#include "FrontDoorMode.h"
#include "HostPort.h"

namespace tarnwick::frontdoor {

struct FrontDoorConfig {
  HostPort listen{"127.0.0.1", 8443};  // host: a literal or a name; port 0 (tests) picks one
  FrontDoorMode mode = FrontDoorMode::Normal;
  // The slow-ack wait. Longer than the 2.5 s a relaying client gives its whole handshake, so
  // that by default the mode shows the client giving up.
  double ackDelaySeconds = 3.0;
  // SO_MARK for every upstream socket. An interceptor on the same host leaves sockets with its
  // mark alone, so the front door's own connections go straight out instead of being redirected
  // back into the interceptor and carried by it. Setting a mark needs CAP_NET_ADMIN.
  std::optional<std::uint32_t> upstreamMark = std::nullopt;
  // A destination that swallows SYNs would otherwise hold a connection for the kernel's
  // minutes-long retry schedule before the 502.
  double dialTimeoutSeconds = 10.0;
  // After a final answer (400, 407, 502, garbage, ack-then-close) the client's remaining bytes
  // are read and dropped for at most this long, so that closing does not reset the connection
  // before the client has read the answer.
  double lingerSeconds = 2.0;
};

}  // namespace tarnwick::frontdoor
