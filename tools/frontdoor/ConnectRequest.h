#pragma once
// The CONNECT request head a relaying client sends: the request line naming the destination and
// the optional identity headers of the agent behind the flow.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "HostPort.h"

namespace tarnwick::frontdoor {

// The head, its terminating empty line included, may take at most this many bytes.
inline constexpr std::size_t kMaxHeadBytes = 8192;
inline constexpr std::string_view kHeadTerminator = "\r\n\r\n";

struct ConnectRequest {
  HostPort destination;
  // The identity headers' values, trimmed; empty when the header is absent.
  std::string pid;
  std::string signingId;
  std::string trace;

  bool operator==(const ConnectRequest&) const = default;
};

// Parses a head without its terminator: "CONNECT host:port HTTP/1.x" and header lines, each
// ended by CR LF. Header names match case-insensitively; the first of repeated identity headers
// counts; other headers are ignored. Anything malformed gives no request.
std::optional<ConnectRequest> parseConnectRequest(std::string_view head);

}  // namespace tarnwick::frontdoor
