#include "host/redirect/NftRuleset.h"

#include <arpa/inet.h>

#include <cstdio>
#include <vector>

namespace tarnwick::host {
namespace {

// A rule's match on one side (remote or local), e.g. "ip daddr 10.0.0.0/8 tcp dport 443".
struct Match {
  std::string text;
  std::string error;
};

std::optional<int> familyOf(const std::string& host) {
  unsigned char buffer[sizeof(in6_addr)];
  if (inet_pton(AF_INET, host.c_str(), buffer) == 1) return AF_INET;
  if (inet_pton(AF_INET6, host.c_str(), buffer) == 1) return AF_INET6;
  return std::nullopt;
}

// The port text "0" or "" means any port.
std::optional<std::string> portMatch(const std::string& port, const char* direction) {
  if (port.empty() || port == "0") return std::string();
  for (char c : port) {
    if (c < '0' || c > '9') return std::nullopt;
  }
  if (port.size() > 5 || std::stoul(port) > 65535) return std::nullopt;
  return std::string(" tcp ") + direction + " " + port;
}

Match endpointMatch(const std::optional<NWHostEndpoint>& network, int prefix, bool remote) {
  if (!network) return {};
  const auto family = familyOf(network->hostname);
  if (!family) return {{}, "network " + network->hostname + " is not an IP address"};
  const int maximum = *family == AF_INET ? 32 : 128;
  if (prefix < 0 || prefix > maximum) {
    return {{}, "prefix " + std::to_string(prefix) + " does not fit " + network->hostname};
  }
  const auto port = portMatch(network->port, remote ? "dport" : "sport");
  if (!port) return {{}, "port " + network->port + " of " + network->hostname + " is not a port"};
  std::string text = *family == AF_INET ? "ip " : "ip6 ";
  text += remote ? "daddr " : "saddr ";
  text += network->hostname + "/" + std::to_string(prefix);
  return {text + *port, {}};
}

// Only outbound traffic reaches an output chain; inbound rules do not apply there.
bool appliesToOutput(const NENetworkRule& rule) {
  return rule.direction != NETrafficDirection::Inbound;
}

// The rule's matches, or an error. The listener takes TCP only, so a UDP-only rule yields none.
std::optional<std::string> ruleMatches(const NENetworkRule& rule, std::string& error) {
  const Match remote = endpointMatch(rule.remoteNetwork, rule.remotePrefix, true);
  const Match local = endpointMatch(rule.localNetwork, rule.localPrefix, false);
  if (!remote.error.empty() || !local.error.empty()) {
    error = remote.error.empty() ? local.error : remote.error;
    return std::nullopt;
  }
  std::string text = "meta l4proto tcp";
  for (const Match* match : {&remote, &local}) {
    if (!match->text.empty()) text += " " + match->text;
  }
  return text;
}

std::string hex(std::uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08x", value);
  return text;
}

}  // namespace

NftRulesetResult nftScriptFor(const NETransparentProxyNetworkSettings& settings,
                              const NftRuleTarget& target) {
  const std::string mark = hex(target.socketMark);
  std::vector<std::string> rules{"meta mark & " + mark + " == " + mark + " return"};
  std::string error;
  for (const auto& rule : settings.excludedNetworkRules) {
    if (!appliesToOutput(rule) || rule.protocol == NENetworkRuleProtocol::UDP) continue;
    const auto matches = ruleMatches(rule, error);
    if (!matches) return {std::nullopt, "excluded rule: " + error};
    rules.push_back(*matches + " return");
  }
  for (const auto& rule : settings.includedNetworkRules) {
    if (!appliesToOutput(rule) || rule.protocol == NENetworkRuleProtocol::UDP) continue;
    const auto matches = ruleMatches(rule, error);
    if (!matches) return {std::nullopt, "included rule: " + error};
    rules.push_back(*matches + " redirect to :" + std::to_string(target.listenPort));
  }
  std::string script = "table inet " + target.tableName + " {\n  flags owner;\n" +
                       "  chain output {\n    type nat hook output priority -100; policy accept;\n";
  for (const auto& rule : rules) script += "    " + rule + "\n";
  script += "  }\n}\n";
  return {std::move(script), {}};
}

std::string nftDeleteScript(const std::string& tableName) {
  return "delete table inet " + tableName + "\n";
}

}  // namespace tarnwick::host
