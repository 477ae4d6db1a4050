#include "host/selection/IpPrefix.h"

#include <arpa/inet.h>

namespace tarnwick::host {

std::optional<IpPrefix> IpPrefix::parse(std::string_view address, int length) {
  const std::string text(address);
  IpPrefix prefix;
  prefix.length = length;
  if (::inet_pton(AF_INET, text.c_str(), prefix.bytes.data()) == 1) {
    prefix.family = AF_INET;
  } else if (::inet_pton(AF_INET6, text.c_str(), prefix.bytes.data()) == 1) {
    prefix.family = AF_INET6;
  } else {
    return std::nullopt;
  }
  if (length < 0 || length > (prefix.family == AF_INET ? 32 : 128)) return std::nullopt;
  return prefix;
}

std::vector<IpPrefix> excludedPrefixesOf(const NETransparentProxyNetworkSettings& settings,
                                         std::string& error) {
  std::vector<IpPrefix> prefixes;
  for (const NENetworkRule& rule : settings.excludedNetworkRules) {
    if (rule.direction == NETrafficDirection::Inbound) continue;
    const auto& network = rule.remoteNetwork;
    const bool anyPort = network && (network->port.empty() || network->port == "0");
    const auto prefix = network && anyPort && !rule.localNetwork
                            ? IpPrefix::parse(network->hostname, rule.remotePrefix)
                            : std::nullopt;
    if (prefix) {
      prefixes.push_back(*prefix);
    } else {
      error = "excluded rule for " + (network ? network->hostname : std::string("any network")) +
              " is not a plain network";
    }
  }
  return prefixes;
}

}  // namespace tarnwick::host
