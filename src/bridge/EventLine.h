#pragma once
// The wire form of one event to the daemon: compact JSON followed by exactly one line feed.

#include <optional>
#include <string>

#include "platform/Json.h"

namespace tarnwick::EventLine {

// Absent when the platform's JSON writer would refuse the value: a top level that is neither an
// object nor an array, or a number that is not finite anywhere inside it.
std::optional<std::string> frame(const Json& event);

}  // namespace tarnwick::EventLine
