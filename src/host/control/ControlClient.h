#pragma once
// The client side of the control socket, for the watch and status commands: sends one request,
// ends its write side and reads the reply to the end, all within a time limit, so a stuck or
// absent interceptor is reported instead of waited on. Blocks the calling thread.

#include <chrono>
#include <optional>
#include <string>

#include "host/control/ControlRequest.h"

namespace tarnwick::host {

inline constexpr std::chrono::seconds kControlReplyTimeout{5};

// The reply to `operation` with `body`, or absent with a one-line reason.
std::optional<Bytes> sendControlRequest(const std::string& path, ControlOperation operation,
                                        const Bytes& body, std::string& error,
                                        std::chrono::milliseconds timeout = kControlReplyTimeout);

}  // namespace tarnwick::host
