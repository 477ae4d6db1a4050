#include "relay/RelayEngine.h"

#include <utility>

#include "platform/Log.h"
#include "relay/DirectLeg.h"
#include "relay/RelayHandshake.h"

namespace tarnwick {

RelayEngine::RelayEngine(std::shared_ptr<Runtime> runtime,
                         std::shared_ptr<NWConnectionFactory> connections,
                         std::weak_ptr<RelayContext> context, Timing timing,
                         std::shared_ptr<NWConnectionFactory> probeConnections,
                         std::shared_ptr<StreamSplicer> splicer)
    : runtime_(runtime),
      services_(std::make_shared<const RelayServices>(RelayServices{
          connections, context, timing,
          FrontDoorProbe::create(std::move(runtime),
                                 probeConnections ? std::move(probeConnections) : connections,
                                 context, timing.probeTimeout),
          std::move(splicer)})) {}

void RelayEngine::setFrontDoor(std::string host, std::uint16_t port) {
  services_->probe->setFrontDoor(host, port);
  MutexLock lock(mutex_);
  frontDoorHost_ = std::move(host);
  frontDoorPort_ = port;
}

void RelayEngine::relay(std::shared_ptr<NEAppProxyTCPFlow> tcpFlow, FlowTarget target,
                        std::int64_t pid, std::string signingID, std::string trace) {
  auto queue = runtime_->makeQueue(kRelayQueueLabel, QualityOfService::UserInitiated);
  std::string host;
  std::uint16_t rawPort;
  {
    MutexLock lock(mutex_);
    host = frontDoorHost_;
    rawPort = frontDoorPort_;
  }
  RelayEventFields fields{pid, std::move(signingID), std::move(target)};
  const auto port = NWEndpointPort::make(rawPort);
  if (!port) {
    proxyLog().error("relay: invalid front-door port %hu — failing open", rawPort);
    DirectLeg::dial(services_, std::move(tcpFlow), std::move(fields),
                    FailOpenReason::InvalidFrontPort, std::move(queue));
    return;
  }
  RelayHandshake::start(services_, NWEndpoint::hostPort(std::move(host), *port), std::move(queue),
                        std::move(tcpFlow), std::move(fields), std::move(trace));
}

void RelayEngine::dialDirect(std::shared_ptr<NEAppProxyTCPFlow> flow, FlowTarget target,
                             std::int64_t pid, std::string signingID, FailOpenReason reason,
                             std::shared_ptr<DispatchQueue> queue) {
  DirectLeg::dial(services_, std::move(flow),
                  RelayEventFields{pid, std::move(signingID), std::move(target)}, reason,
                  std::move(queue));
}

}  // namespace tarnwick
