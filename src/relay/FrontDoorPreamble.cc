#include "relay/FrontDoorPreamble.h"

#include <string>

namespace tarnwick {
namespace {

void appendHeader(std::string& out, std::string_view name, std::string_view value) {
  out.append(name);
  out.append(": ");
  out.append(value);
  out.append("\r\n");
}

}  // namespace

std::string authorityOf(std::string_view host, std::string_view port) {
  const bool bracket = host.find(':') != std::string_view::npos && !host.starts_with('[');
  std::string out;
  if (bracket) out.append("[");
  out.append(host);
  if (bracket) out.append("]");
  out.append(":");
  out.append(port);
  return out;
}

Bytes makePreamble(const FlowTarget& target, std::int64_t pid, std::string_view signingID,
                   std::string_view trace) {
  std::string out = "CONNECT " + authorityOf(target.host, target.port) + " HTTP/1.1\r\n";
  if (pid != 0) appendHeader(out, "X-Brask-Pid", std::to_string(pid));
  if (!signingID.empty()) appendHeader(out, "X-Brask-Signing-Id", signingID);
  if (!trace.empty()) appendHeader(out, "X-Brask-Trace", trace);
  out.append("\r\n");
  return bytesOf(out);
}

Bytes makeProbeRequest(std::string_view host, std::uint16_t port) {
  return bytesOf("OPTIONS * HTTP/1.1\r\nHost: " + authorityOf(host, std::to_string(port)) +
                 "\r\n\r\n");
}

}  // namespace tarnwick
