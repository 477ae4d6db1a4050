#include "relay/DestinationEndpoint.h"

#include "platform/Text.h"

namespace tarnwick {

std::optional<NWEndpoint> destinationEndpoint(const FlowTarget& target) {
  const auto number = parseDecimal<std::uint16_t>(target.port, LeadingPlus::Accepted);
  if (!number) return std::nullopt;
  const auto port = NWEndpointPort::make(*number);
  if (!port) return std::nullopt;
  return NWEndpoint::hostPort(target.host, *port);
}

}  // namespace tarnwick
