#include "platform/asio/AsioConnectionFactory.h"

#include "platform/asio/AsioConnection.h"
#include "platform/asio/AsioRuntime.h"

namespace tarnwick {

AsioConnectionFactory::AsioConnectionFactory(std::shared_ptr<AsioRuntime> runtime,
                                             Duration connectTimeout)
    : runtime_(std::move(runtime)), connectTimeout_(connectTimeout) {}

std::shared_ptr<NWConnection> AsioConnectionFactory::makeConnection(
    const NWEndpoint& endpoint, const NWParameters& parameters) {
  return std::make_shared<AsioConnection>(runtime_->pickLane().context(), endpoint, parameters,
                                          connectTimeout_);
}

std::shared_ptr<NWConnectionFactory> realConnectionFactory() {
  return realConnectionFactory(kRealConnectTimeout);
}

std::shared_ptr<NWConnectionFactory> realConnectionFactory(Duration connectTimeout) {
  return std::make_shared<AsioConnectionFactory>(processAsioRuntime(), connectTimeout);
}

}  // namespace tarnwick
