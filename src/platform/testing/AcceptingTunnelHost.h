#pragma once
// A tunnel host that accepts whatever network settings a provider hands it, at once: for tests
// and benchmarks that run a provider without the Linux host around it.

#include <memory>

#include "platform/NetworkExtension.h"

namespace tarnwick {

class AcceptingTunnelHost : public NETunnelHost {
 public:
  void applyTunnelNetworkSettings(std::shared_ptr<const NETransparentProxyNetworkSettings>,
                                  SettingsCompletion completion) override {
    completion(std::nullopt);
  }
};

}  // namespace tarnwick
