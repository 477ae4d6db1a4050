#pragma once
// The network rules the host applies, from the ones the provider hands over: the provider's
// rules, with two changes that belong to this host.
// - The private IPv4 ranges the provider leaves alone (10/8, 172.16/12, 192.168/16) are the
//   operator's setting here: where agents reach inspected services on a private network, the
//   operator lists fewer ranges (or none).
// - IPv6 link-local destinations (fe80::/10) are always left alone: a redirect would lose the
//   address's scope, and the connection could not be dialled again.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/NetworkExtension.h"

namespace tarnwick::host {

struct IPv4Network {
  std::string address;  // dotted quad, the network's first address
  int prefix = 0;

  bool operator==(const IPv4Network&) const = default;
};

// 10.0.0.0/8, 172.16.0.0/12 and 192.168.0.0/16.
std::vector<IPv4Network> defaultPrivateIPv4Networks();

// A comma-separated list of IPv4 networks ("10.0.0.0/8,192.168.0.0/16"), or "none" for the
// empty list; absent when an item is not a network address with a prefix of 0 to 32.
std::optional<std::vector<IPv4Network>> parseIPv4Networks(std::string_view text);

NETransparentProxyNetworkSettings hostNetworkRules(
    const NETransparentProxyNetworkSettings& provider, const std::vector<IPv4Network>& privateIPv4);

}  // namespace tarnwick::host
