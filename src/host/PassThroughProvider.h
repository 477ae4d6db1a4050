#pragma once
// A provider that takes no flow: it asks for all outbound TCP except loopback and private
// networks, hands every flow back and refuses watch sets. The host's tests build their provider
// on it, and it measures the hand-back path without any decision in the way.

#include "platform/NetworkExtension.h"

namespace tarnwick::host {

class PassThroughProvider : public NETransparentProxyProvider {
 public:
  void startProxy(std::optional<Json> options, StartCompletion completion) override;
  void stopProxy(NEProviderStopReason reason, std::function<void()> completion) override;
  bool handleNewFlow(std::shared_ptr<NEAppProxyFlow> flow) override;
  void handleAppMessage(Bytes message, AppMessageCompletion completion) override;
};

}  // namespace tarnwick::host
