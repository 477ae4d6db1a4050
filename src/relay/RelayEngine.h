#pragma once
// The relay engine: carries each watched TCP flow that the provider has taken over and opened.
// relay() gets the flow into the front door (RelayHandshake), which hands it to a RelaySession
// or, on any failure, fails open to the direct leg (DirectLeg); every path ends in one of the two.
//
// Owned by the provider. Relay objects hold the provider only weakly, through RelayContext, and
// skip every provider call once it is gone. Methods may be called from any thread.

#include <cstdint>
#include <memory>
#include <string>

#include "platform/Dispatch.h"
#include "platform/Mutex.h"
#include "platform/Network.h"
#include "platform/NetworkExtension.h"
#include "relay/FailOpenReason.h"
#include "relay/FlowTarget.h"
#include "relay/RelayContext.h"
#include "relay/RelayServices.h"
#include "relay/RelayTiming.h"

namespace tarnwick {

class RelayEngine {
 public:
  using Timing = RelayTiming;

  // One serial queue of this label per relayed flow.
  static constexpr const char* kRelayQueueLabel = "dev.fernquill.tarnwick.proxyex.relay.flow";

  // Probes of the front door's health dial through `probeConnections`, or `connections` when
  // absent. With a `splicer`, sessions that can no longer fail over hand their bytes to it.
  RelayEngine(std::shared_ptr<Runtime> runtime, std::shared_ptr<NWConnectionFactory> connections,
              std::weak_ptr<RelayContext> context, Timing timing = {},
              std::shared_ptr<NWConnectionFactory> probeConnections = nullptr,
              std::shared_ptr<StreamSplicer> splicer = nullptr);

  // The front door, from the provider's configuration; applies to relays started after it.
  void setFrontDoor(std::string host, std::uint16_t port);

  // Takes over `tcpFlow`, already opened. Returns at once; within the handshake budget the flow
  // is either carried by a session through the front door or dialled directly, on a new relay
  // queue. A front-door port the endpoint layer refuses fails open at once ("invalid-front-port")
  // without touching the circuit breaker.
  void relay(std::shared_ptr<NEAppProxyTCPFlow> tcpFlow, FlowTarget target, std::int64_t pid,
             std::string signingID, std::string trace);

  // Fails the flow open: "relay.failopen" with `reason`, then a direct dial on `queue` carried by
  // two byte pumps until either side ends ("relay.close"). Returns at once.
  void dialDirect(std::shared_ptr<NEAppProxyTCPFlow> flow, FlowTarget target, std::int64_t pid,
                  std::string signingID, FailOpenReason reason,
                  std::shared_ptr<DispatchQueue> queue);

 private:
  const std::shared_ptr<Runtime> runtime_;
  const std::shared_ptr<const RelayServices> services_;

  Mutex mutex_;
  std::string frontDoorHost_ TW_GUARDED_BY(mutex_) = "127.0.0.1";
  std::uint16_t frontDoorPort_ TW_GUARDED_BY(mutex_) = 0;
};

}  // namespace tarnwick
