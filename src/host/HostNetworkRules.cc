#include "host/HostNetworkRules.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdint>

namespace tarnwick::host {
namespace {

const std::vector<IPv4Network>& privateRanges() {
  static const std::vector<IPv4Network> ranges{
      {"10.0.0.0", 8}, {"172.16.0.0", 12}, {"192.168.0.0", 16}};
  return ranges;
}

std::optional<std::uint32_t> ipv4Of(const std::string& text) {
  in_addr address{};
  if (inet_pton(AF_INET, text.c_str(), &address) != 1) return std::nullopt;
  return ntohl(address.s_addr);
}

std::uint32_t maskOf(int prefix) { return prefix == 0 ? 0 : ~std::uint32_t{0} << (32 - prefix); }

// Whether the rule's whole remote network lies in one private IPv4 range.
bool isPrivateIPv4Rule(const NENetworkRule& rule) {
  if (!rule.remoteNetwork) return false;
  const auto first = ipv4Of(rule.remoteNetwork->hostname);
  if (!first) return false;
  return std::any_of(privateRanges().begin(), privateRanges().end(), [&](const IPv4Network& range) {
    return rule.remotePrefix >= range.prefix &&
           (*first & maskOf(range.prefix)) == *ipv4Of(range.address);
  });
}

NENetworkRule excludedTCP(std::string network, int prefix) {
  return {NWHostEndpoint{std::move(network), "0"},
          prefix,
          std::nullopt,
          0,
          NENetworkRuleProtocol::TCP,
          NETrafficDirection::Outbound};
}

std::optional<IPv4Network> parseNetwork(std::string_view item) {
  const auto slash = item.find('/');
  if (slash == std::string_view::npos || slash + 1 == item.size() || item.size() - slash > 3) {
    return std::nullopt;
  }
  int prefix = 0;
  for (char c : item.substr(slash + 1)) {
    if (c < '0' || c > '9') return std::nullopt;
    prefix = prefix * 10 + (c - '0');
  }
  std::string address(item.substr(0, slash));
  const auto first = ipv4Of(address);
  if (!first || prefix > 32 || (*first & ~maskOf(prefix)) != 0) return std::nullopt;
  return IPv4Network{std::move(address), prefix};
}

}  // namespace

std::vector<IPv4Network> defaultPrivateIPv4Networks() { return privateRanges(); }

std::optional<std::vector<IPv4Network>> parseIPv4Networks(std::string_view text) {
  std::vector<IPv4Network> networks;
  if (text == "none") return networks;
  while (true) {
    const auto comma = text.find(',');
    const auto network = parseNetwork(text.substr(0, comma));
    if (!network) return std::nullopt;
    networks.push_back(*network);
    if (comma == std::string_view::npos) return networks;
    text.remove_prefix(comma + 1);
  }
}

NETransparentProxyNetworkSettings hostNetworkRules(
    const NETransparentProxyNetworkSettings& provider,
    const std::vector<IPv4Network>& privateIPv4) {
  NETransparentProxyNetworkSettings rules = provider;
  std::erase_if(rules.excludedNetworkRules, isPrivateIPv4Rule);
  for (const IPv4Network& network : privateIPv4) {
    rules.excludedNetworkRules.push_back(excludedTCP(network.address, network.prefix));
  }
  rules.excludedNetworkRules.push_back(excludedTCP("fe80::", 10));
  return rules;
}

}  // namespace tarnwick::host
