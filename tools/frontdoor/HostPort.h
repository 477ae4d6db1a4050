#pragma once
// "host:port" texts as they appear on the command line and in CONNECT authorities. An IPv6
// literal must be bracketed there ("[::1]:8443"), because its own colons would make the port
// ambiguous.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/posix/SocketAddress.h"  // formatHostPort, the inverse of splitHostPort

namespace tarnwick::frontdoor {

struct HostPort {
  std::string host;  // without brackets
  std::uint16_t port = 0;

  bool operator==(const HostPort&) const = default;
};

// Splits "host:port" or "[v6]:port". Refuses an empty host, an unbracketed host with a colon,
// text after the closing bracket other than ":port", and a port that is not a decimal number
// from 1 to 65535.
std::optional<HostPort> splitHostPort(std::string_view text);

}  // namespace tarnwick::frontdoor
