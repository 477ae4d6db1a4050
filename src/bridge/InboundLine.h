#pragma once
// What one line from the daemon asks of the extension. The policy push is the only message acted
// upon; every other line is ignored without a trace.

#include <optional>
#include <string_view>

#include "platform/Json.h"

namespace tarnwick::InboundLine {

// The policy document of a "policy.push" line: the whole object, "kind" included. Absent for an
// empty line, a line that is not one JSON object, an object without a text "kind", and any other
// kind.
std::optional<Json> policyPush(std::string_view line);

}  // namespace tarnwick::InboundLine
