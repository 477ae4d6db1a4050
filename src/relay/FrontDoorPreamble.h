#pragma once
// What the relay sends the front door. The HTTP CONNECT preamble that asks the front door for a
// tunnel to the flow's real destination and tells it who the agent is. Every value goes out byte
// for byte as handed in: the front door is local and trusted, and the bytes must match what the
// flow reported.

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/Bytes.h"
#include "relay/FlowTarget.h"

namespace tarnwick {

// "CONNECT host:port HTTP/1.1" (a bare IPv6 literal bracketed), then X-Brask-Pid (PID not 0),
// X-Brask-Signing-Id (not empty) and X-Brask-Trace (not empty) in that order, then the empty
// line. Pure.
Bytes makePreamble(const FlowTarget& target, std::int64_t pid, std::string_view signingID,
                   std::string_view trace);

// "host:port", a bare IPv6 literal bracketed.
std::string authorityOf(std::string_view host, std::string_view port);

// The liveness probe: a request any HTTP proxy answers at once, without dialling anywhere, since
// it names no other server: "OPTIONS * HTTP/1.1", a Host header naming the front door itself, and
// the empty line.
Bytes makeProbeRequest(std::string_view host, std::uint16_t port);

}  // namespace tarnwick
