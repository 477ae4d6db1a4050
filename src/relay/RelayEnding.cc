#include "relay/RelayEnding.h"

#include <cerrno>

#include "platform/Log.h"

namespace tarnwick {

NEError relayResetError() { return {ECONNRESET, "reset carried from the other side"}; }

namespace {

void logCut(const RelayEnding& ending, const FlowTarget& target) {
  using Kind = RelayEnding::Kind;
  if (ending.kind != Kind::Clean) {
    const bool agentCut = ending.kind == Kind::AgentCut;
    proxyLog().error(
        "relay: %{public}s side of %{public}s:%{public}s cut short (%{public}s) — reset carried "
        "to the %{public}s",
        agentCut ? "agent" : "upstream", target.host, target.port, ending.detail,
        agentCut ? "upstream" : "agent");
  }
}

void closeFlow(const RelayEnding& ending, NEAppProxyTCPFlow& flow) {
  flow.closeReadWithError(std::nullopt);
  flow.closeWriteWithError(ending.kind == RelayEnding::Kind::UpstreamCut
                               ? std::optional<NEError>(relayResetError())
                               : std::nullopt);
}

}  // namespace

void closeLegs(const RelayEnding& ending, NEAppProxyTCPFlow& flow, NWConnection& upstream,
               const FlowTarget& target) {
  using Kind = RelayEnding::Kind;
  logCut(ending, target);
  if (ending.kind == Kind::AgentCut) {
    upstream.forceCancel();
  } else {
    upstream.cancel();
  }
  closeFlow(ending, flow);
}

void closeSplicedLegs(const RelayEnding& ending, NEAppProxyTCPFlow& flow, StreamSplice& splice,
                      const FlowTarget& target) {
  using Kind = RelayEnding::Kind;
  using Closing = StreamSplice::Closing;
  logCut(ending, target);
  splice.close(ending.kind == Kind::AgentCut      ? Closing::ResetUpstream
               : ending.kind == Kind::UpstreamCut ? Closing::ResetAgent
                                                  : Closing::Orderly);
  closeFlow(ending, flow);
}

}  // namespace tarnwick
