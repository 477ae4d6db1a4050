#pragma once
// An IPv4 or IPv6 network: the destinations kernel-side selection leaves alone.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/NetworkExtension.h"

namespace tarnwick::host {

struct IpPrefix {
  int family = 0;                        // AF_INET or AF_INET6
  std::array<std::uint8_t, 16> bytes{};  // an IPv4 network fills the first four
  int length = 0;

  // Absent when `address` is not an IP literal or `length` does not fit its family.
  static std::optional<IpPrefix> parse(std::string_view address, int length);
};

// The networks of the provider's excluded rules that apply to outbound traffic. A rule that is
// not a plain network (a port, a local side, a host name) cannot be judged by prefix alone:
// `error` then names it, and it is left out.
std::vector<IpPrefix> excludedPrefixesOf(const NETransparentProxyNetworkSettings& settings,
                                         std::string& error);

}  // namespace tarnwick::host
