#include "relay/RelayEnding.h"

#include <cerrno>

#include "platform/Log.h"

namespace tarnwick {

NEError relayResetError() { return {ECONNRESET, "reset carried from the other side"}; }

void closeLegs(const RelayEnding& ending, NEAppProxyTCPFlow& flow, NWConnection& upstream,
               const FlowTarget& target, StreamSplice* splice) {
  using Kind = RelayEnding::Kind;
  if (ending.kind != Kind::Clean) {
    const bool agentCut = ending.kind == Kind::AgentCut;
    proxyLog().error(
        "relay: %{public}s side of %{public}s:%{public}s cut short (%{public}s) — reset carried "
        "to the %{public}s",
        agentCut ? "agent" : "upstream", target.host, target.port, ending.detail,
        agentCut ? "upstream" : "agent");
  }
  if (splice) {
    using Closing = StreamSplice::Closing;
    splice->close(ending.kind == Kind::AgentCut      ? Closing::ResetUpstream
                  : ending.kind == Kind::UpstreamCut ? Closing::ResetAgent
                                                     : Closing::Orderly);
  }
  if (ending.kind == Kind::AgentCut) {
    upstream.forceCancel();
  } else {
    upstream.cancel();
  }
  flow.closeReadWithError(std::nullopt);
  flow.closeWriteWithError(
      ending.kind == Kind::UpstreamCut ? std::optional<NEError>(relayResetError()) : std::nullopt);
}

}  // namespace tarnwick
