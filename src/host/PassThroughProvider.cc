#include "host/PassThroughProvider.h"

namespace tarnwick::host {
namespace {

NENetworkRule outboundTCP(std::optional<NWHostEndpoint> network, int prefix) {
  NENetworkRule rule;
  rule.remoteNetwork = std::move(network);
  rule.remotePrefix = prefix;
  rule.protocol = NENetworkRuleProtocol::TCP;
  rule.direction = NETrafficDirection::Outbound;
  return rule;
}

}  // namespace

void PassThroughProvider::startProxy(std::optional<Json>, StartCompletion completion) {
  auto settings = std::make_shared<NETransparentProxyNetworkSettings>();
  settings->tunnelRemoteAddress = "127.0.0.1";
  settings->includedNetworkRules = {outboundTCP(std::nullopt, 0)};
  for (const auto& [network, prefix] : {std::pair{"127.0.0.0", 8},
                                        {"::1", 128},
                                        {"169.254.0.0", 16},
                                        {"10.0.0.0", 8},
                                        {"172.16.0.0", 12},
                                        {"192.168.0.0", 16}}) {
    settings->excludedNetworkRules.push_back(outboundTCP(NWHostEndpoint{network, "0"}, prefix));
  }
  setTunnelNetworkSettings(std::move(settings), std::move(completion));
}

void PassThroughProvider::stopProxy(NEProviderStopReason, std::function<void()> completion) {
  completion();
}

bool PassThroughProvider::handleNewFlow(std::shared_ptr<NEAppProxyFlow>) { return false; }

void PassThroughProvider::handleAppMessage(Bytes, AppMessageCompletion completion) {
  if (completion) completion(bytesOf("{\"ok\":false}"));
}

}  // namespace tarnwick::host
