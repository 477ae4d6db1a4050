#pragma once
// What the front door tells about one connection when it ends, as one log line:
//   conn pid=4242 signing=/usr/bin/curl trace=9f3c dest=example.com:443 sni=example.com
//        alpn=h2,http/1.1 up=517 down=4096 result=closed
// (one line; wrapped here). An absent value is "-". Values come from the network, so every
// byte outside printable ASCII, the blank and the backslash included, is written as \xNN: a
// line stays one line with space-separated fields whatever a client sends.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarnwick::frontdoor {

struct ConnectionRecord {
  std::string pid;
  std::string signingId;
  std::string trace;
  std::string destination;  // "host:port" as requested, IPv6 bracketed
  std::optional<std::string> serverName;
  std::vector<std::string> alpn;
  std::uint64_t bytesUp = 0;    // from the client after its request head
  std::uint64_t bytesDown = 0;  // from the destination to the client
  std::string_view result = "-";
};

std::string formatConnectionLine(const ConnectionRecord& record);

}  // namespace tarnwick::frontdoor
