#pragma once
// Makes real connections (AsioConnection) with one connect timeout, each on the calling
// thread's lane (or the next lane in turn), so a flow's connections share its lane.
// makeConnection(): any thread.

#include <memory>

#include "platform/Network.h"

namespace tarnwick {

class AsioRuntime;

class AsioConnectionFactory : public NWConnectionFactory {
 public:
  AsioConnectionFactory(std::shared_ptr<AsioRuntime> runtime, Duration connectTimeout);

  std::shared_ptr<NWConnection> makeConnection(const NWEndpoint& endpoint,
                                               const NWParameters& parameters) override;

 private:
  const std::shared_ptr<AsioRuntime> runtime_;
  const Duration connectTimeout_;
};

}  // namespace tarnwick
