#include "relay/RelayEvent.h"

#include "platform/Text.h"
#include "relay/RelayContext.h"

namespace tarnwick {

std::int64_t eventDestPort(std::string_view portText) {
  return parseDecimal<std::int64_t>(portText, LeadingPlus::Accepted).value_or(0);
}

Json relayEvent(std::string_view kind, std::int64_t pid, std::string_view signingID,
                const FlowTarget& target, std::int64_t ts) {
  return Json{{"kind", kind},
              {"pid", pid},
              {"signing_id", signingID},
              {"dest_host", target.host},
              {"dest_port", eventDestPort(target.port)},
              {"ts", ts}};
}

Json failOpenEvent(std::int64_t pid, std::string_view signingID, const FlowTarget& target,
                   std::string_view reason, std::int64_t ts) {
  Json event = relayEvent("relay.failopen", pid, signingID, target, ts);
  event["reason"] = reason;
  return event;
}

void sendRelayEvent(const std::weak_ptr<RelayContext>& context, std::string_view kind,
                    const RelayEventFields& fields) {
  auto provider = context.lock();
  if (!provider) return;
  provider->sendEvent(relayEvent(kind, fields.pid, fields.signingID, fields.target,
                                 provider->currentTimestampNs()));
}

void sendFailOpenEvent(const std::weak_ptr<RelayContext>& context, FailOpenReason reason,
                       const RelayEventFields& fields) {
  auto provider = context.lock();
  if (!provider) return;
  provider->sendEvent(failOpenEvent(fields.pid, fields.signingID, fields.target,
                                    failOpenReasonText(reason), provider->currentTimestampNs()));
}

}  // namespace tarnwick
