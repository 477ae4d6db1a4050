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

Bytes makePreamble(const FlowTarget& target, std::int64_t pid, std::string_view signingID,
                   std::string_view trace) {
  const bool bracket = target.host.find(':') != std::string::npos && !target.host.starts_with('[');
  std::string out = "CONNECT ";
  out.append(bracket ? "[" + target.host + "]" : target.host);
  out.append(":");
  out.append(target.port);
  out.append(" HTTP/1.1\r\n");
  if (pid != 0) appendHeader(out, "X-Brask-Pid", std::to_string(pid));
  if (!signingID.empty()) appendHeader(out, "X-Brask-Signing-Id", signingID);
  if (!trace.empty()) appendHeader(out, "X-Brask-Trace", trace);
  out.append("\r\n");
  return bytesOf(out);
}

}  // namespace tarnwick
