#pragma once
// The endpoint to dial for a flow's real destination.

#include <optional>

#include "platform/Network.h"
#include "relay/FlowTarget.h"

namespace tarnwick {

// The target's host text and its port text read as an unsigned 16-bit decimal number (a leading
// '+' allowed) that the endpoint layer accepts; absent when the port text is no such port.
std::optional<NWEndpoint> destinationEndpoint(const FlowTarget& target);

}  // namespace tarnwick
