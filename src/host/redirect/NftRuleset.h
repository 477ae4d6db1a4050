#pragma once
// Turns the provider's network settings into the text of one nftables transaction: a table of
// family inet owned by this process (the kernel drops it when the process ends, however it
// ends), with an output nat chain that lets the host's own marked connections (all the mark's bits
// set, other bits free) and the excluded networks pass and redirects the included TCP to the host's
// listener.

#include <cstdint>
#include <optional>
#include <string>

#include "platform/NetworkExtension.h"

namespace tarnwick::host {

struct NftRulesetResult {
  std::optional<std::string> script;  // absent when a rule cannot be expressed
  std::string error;
};

struct NftRuleTarget {
  std::string tableName;
  std::uint32_t socketMark = 0;
  std::uint16_t listenPort = 0;
};

NftRulesetResult nftScriptFor(const NETransparentProxyNetworkSettings& settings,
                              const NftRuleTarget& target);

// Removes the table; used on a clean stop.
std::string nftDeleteScript(const std::string& tableName);

}  // namespace tarnwick::host
