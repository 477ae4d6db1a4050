// Flow intake: which new flows the provider takes over, and how a taken flow reaches the relay.

#include <utility>

#include "identity/AuditToken.h"
#include "platform/Log.h"
#include "provider/TraceID.h"
#include "provider/TransparentProxyProvider.h"
#include "relay/RelayEvent.h"

namespace tarnwick {

bool TransparentProxyProvider::handleNewFlow(std::shared_ptr<NEAppProxyFlow> flow) {
  if (auto udp = std::dynamic_pointer_cast<NEAppProxyUDPFlow>(flow)) {
    handleQUICFlow(*udp);
    return false;
  }
  auto tcp = std::dynamic_pointer_cast<NEAppProxyTCPFlow>(flow);
  if (!tcp) return false;

  const NEFlowMetaData meta = tcp->metaData();
  const std::string& signingID = meta.sourceAppSigningIdentifier;
  const std::int64_t pid = pidFromAuditTokenData(meta.sourceAppAuditToken);
  if (!shouldIntercept(signingID, pid, meta.sourceAppAuditToken)) return false;

  auto target = remoteHostPort(*tcp);
  if (!target) {
    proxyLog().error(
        "handleNewFlow: watched flow has no resolvable remote endpoint — passing through");
    return false;
  }
  if (frontDoorPort_.load() == 0) {
    proxyLog().error(
        "handleNewFlow: no front-door port configured — passing watched flow through (agent "
        "keeps working)");
    return false;
  }
  if (!circuitAllowsRelay()) {
    proxyLog().error(
        "handleNewFlow: front-door circuit OPEN (daemon front door wedging relays) — passing "
        "watched flow DIRECT (uninspected) so the agent keeps working");
    sendEvent(failOpenEvent(pid, signingID, *target,
                            failOpenReasonText(FailOpenReason::CircuitOpen),
                            currentTimestampNs()));
    return false;
  }

  std::string trace = TraceID::mint();
  proxyLog().info(
      "handleNewFlow: relaying watched flow signing=%{public}s pid=%ld trace=%{public}s → "
      "%{public}s:%s",
      signingID, pid, trace, target->host, target->port);
  Json open = relayEvent("relay.open", pid, signingID, *target, currentTimestampNs());
  open["trace"] = trace;
  sendEvent(std::move(open));
  openAndRelay(tcp, std::move(*target), pid, signingID, std::move(trace));
  return true;
}

void TransparentProxyProvider::openAndRelay(const std::shared_ptr<NEAppProxyTCPFlow>& flow,
                                            FlowTarget target, std::int64_t pid,
                                            std::string signingID, std::string trace) {
  flow->open(std::nullopt, [weak = weak_from_this(), flow, target = std::move(target), pid,
                            signingID = std::move(signingID),
                            trace = std::move(trace)](std::optional<NEError> error) mutable {
    auto self = weak.lock();
    if (!self) return;
    if (error) {
      proxyLog().error("handleNewFlow: flow.open failed: %{public}s", error->localizedDescription);
      return;
    }
    self->engine_->relay(std::move(flow), std::move(target), pid, std::move(signingID),
                         std::move(trace));
  });
}

std::optional<FlowTarget> TransparentProxyProvider::remoteHostPort(
    const NEAppProxyTCPFlow& flow) const {
  auto endpoint = flow.remoteEndpoint();
  if (!endpoint || endpoint->hostname.empty() || endpoint->port.empty()) return std::nullopt;
  return FlowTarget{endpoint->hostname, endpoint->port};
}

bool TransparentProxyProvider::shouldIntercept(const std::string& signingID, std::int64_t pid,
                                               const std::optional<Bytes>& auditToken) {
  if (watchGate_.isWatched(signingID, pid)) {
    if (watchGate_.signingMatches(signingID)) return true;
    const std::int64_t pidVersion = pidVersionFromAuditTokenData(auditToken);
    if (identityGate_.allowPIDMatch(pid, pidVersion, signingID)) return true;
    proxyLog().error(
        "shouldIntercept: watched-by-PID flow pid=%ld failed identity revalidation "
        "(pidversion=%ld, signing='%{public}s') — likely PID reuse; passing through (no MITM)",
        pid, pidVersion, signingID);
    return false;
  }
  const std::int64_t pidVersion = pidVersionFromAuditTokenData(auditToken);
  if (!ancestryGate_.isWatchedDescendant(pid, pidVersion, watchGate_)) return false;
  proxyLog().info(
      "shouldIntercept: pid=%ld is a descendant of a watched agent (signing='%{public}s' not "
      "itself watched) → intercepting agent-spawned egress",
      pid, signingID);
  return true;
}

void TransparentProxyProvider::handleQUICFlow(const NEAppProxyUDPFlow& flow) {
  const NEFlowMetaData meta = flow.metaData();
  const std::int64_t pid = pidFromAuditTokenData(meta.sourceAppAuditToken);
  const std::string& signingID = meta.sourceAppSigningIdentifier;
  if (!shouldIntercept(signingID, pid, meta.sourceAppAuditToken)) return;
  proxyLog().info(
      "handleQUICFlow: QUIC/UDP from watched pid=%ld — passed through DIRECT (fail-open); "
      "destination-gated downgrade is on-device work",
      pid);
  sendEvent(Json{{"kind", "quic.deny"},
                 {"pid", pid},
                 {"signing_id", signingID},
                 {"ts", currentTimestampNs()}});
}

}  // namespace tarnwick
