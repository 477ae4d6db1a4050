#pragma once
// The request head a client of the front door sends. A relaying client sends CONNECT, naming the
// destination and carrying the optional identity headers of the agent behind the flow. Any other
// request (OPTIONS *, a GET without an absolute URI) is what a liveness probe sends: the front
// door answers it at once, without dialling anywhere.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "HostPort.h"

namespace tarnwick::frontdoor {

// The head, its terminating empty line included, may take at most this many bytes.
inline constexpr std::size_t kMaxHeadBytes = 8192;
inline constexpr std::string_view kHeadTerminator = "\r\n\r\n";

struct RequestHead {
  // Set for CONNECT only: the destination its authority names.
  std::optional<HostPort> destination;
  // The identity headers' values, trimmed; empty when the header is absent.
  std::string pid;
  std::string signingId;
  std::string trace;

  bool isConnect() const { return destination.has_value(); }
  bool operator==(const RequestHead&) const = default;
};

// Parses a head without its terminator: "METHOD TARGET HTTP/1.x" and header lines, each ended by
// CR LF. The method is an HTTP token and the target printable ASCII; a CONNECT target must be
// "host:port". Header names match case-insensitively; the first of repeated identity headers
// counts; other headers are ignored. Anything malformed gives no head.
std::optional<RequestHead> parseRequestHead(std::string_view head);

}  // namespace tarnwick::frontdoor
