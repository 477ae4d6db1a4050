#pragma once
// The relay events the daemon receives: "relay.open", "relay.failopen", "relay.close" and
// "relay.midstream_idle". All carry the same six keys ("kind", "pid", "signing_id", "dest_host",
// "dest_port", "ts"); "relay.failopen" adds "reason" and "relay.open" adds "trace" (set by the
// caller).

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Json.h"
#include "relay/FailOpenReason.h"
#include "relay/FlowTarget.h"

namespace tarnwick {

class RelayContext;

// Who and where one relayed flow is: what every event about it carries.
struct RelayEventFields {
  std::int64_t pid = 0;
  std::string signingID;
  FlowTarget target;
};

// The port text read as a signed decimal integer (a leading '+' allowed), 0 when it is not one.
std::int64_t eventDestPort(std::string_view portText);

Json relayEvent(std::string_view kind, std::int64_t pid, std::string_view signingID,
                const FlowTarget& target, std::int64_t ts);
Json failOpenEvent(std::int64_t pid, std::string_view signingID, const FlowTarget& target,
                   std::string_view reason, std::int64_t ts);

// Builds the event with "ts" from the provider's clock and sends it through the provider's
// bridge; nothing when the provider is gone.
void sendRelayEvent(const std::weak_ptr<RelayContext>& context, std::string_view kind,
                    const RelayEventFields& fields);
void sendFailOpenEvent(const std::weak_ptr<RelayContext>& context, FailOpenReason reason,
                       const RelayEventFields& fields);

}  // namespace tarnwick
