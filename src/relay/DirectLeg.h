#pragma once
// The fail-open leg: a flow the front door could not take is announced to the daemon as failed
// open, dialled straight to its real destination and carried there, uninspected, by two byte
// pumps. No retry, no timeout, no idle watchdog, nothing told to the circuit breaker.
//
// An end of stream is passed on as a half-close (the agent's shuts the destination's write side,
// the destination's closes the flow's write side), and the leg ends once both directions have
// ended: a client that half-closes still gets its reply. A reset or error on either side ends the
// leg at once with a reset of the other side. Either way both sides are closed and one
// "relay.close" goes out.
//
// Keeps itself alive from the dial until it ends (or finds the provider gone); every callback
// holds it weakly. The connection's callbacks run on the relay queue, the flow's on the
// framework's threads, so the two pumps run concurrently and share only the ends and the finish
// flag.

#include <atomic>
#include <memory>

#include "platform/Dispatch.h"
#include "platform/Mutex.h"
#include "platform/Network.h"
#include "platform/NetworkExtension.h"
#include "relay/FailOpenReason.h"
#include "relay/RelayEnding.h"
#include "relay/RelayEvent.h"
#include "relay/RelayServices.h"

namespace tarnwick {

class DirectLeg : public std::enable_shared_from_this<DirectLeg> {
 public:
  // Sends "relay.failopen" with `reason` and dials the target on `queue`; a target port that is
  // not a port closes the flow instead, with no event. Returns at once.
  static void dial(std::shared_ptr<const RelayServices> services,
                   std::shared_ptr<NEAppProxyTCPFlow> flow, RelayEventFields fields,
                   FailOpenReason reason, std::shared_ptr<DispatchQueue> queue);

  // Closes both directions of the agent's flow, with no error.
  static void closeFlow(NEAppProxyTCPFlow& flow);

 private:
  DirectLeg(std::shared_ptr<const RelayServices> services, std::shared_ptr<NEAppProxyTCPFlow> flow,
            std::shared_ptr<NWConnection> connection, RelayEventFields fields);

  void onState(const NWConnectionState& state);
  // Agent to destination: one flow read, or the send that follows it, outstanding at a time.
  void pumpFlowToConn();
  void onFlowRead(std::optional<Bytes> data, std::optional<NEError> error);
  void onAgentEndPassed(const std::optional<NWError>& error);
  // Destination to agent: one receive, or the write that follows it, outstanding at a time.
  void pumpConnToFlow();
  void onReceive(std::optional<Bytes> content, bool isComplete, std::optional<NWError> error);
  void onDestinationEnded(const std::optional<NWError>& error);
  // Ends the leg; only the first call acts.
  void finishRelay(const RelayEnding& ending);
  // The provider, or nothing, in which case the leg stops where it is and lets itself go.
  std::shared_ptr<RelayContext> providerOrStop();
  void letGo();

  const std::shared_ptr<const RelayServices> services_;
  const std::shared_ptr<NEAppProxyTCPFlow> flow_;
  const std::shared_ptr<NWConnection> connection_;
  const RelayEventFields fields_;
  std::atomic<bool> finished_{false};

  Mutex mutex_;
  // This leg, while it runs.
  std::shared_ptr<DirectLeg> keepAlive_ TW_GUARDED_BY(mutex_);
  // Each direction's end of stream, once passed on.
  bool agentEnded_ TW_GUARDED_BY(mutex_) = false;
  bool destinationEnded_ TW_GUARDED_BY(mutex_) = false;
};

}  // namespace tarnwick
