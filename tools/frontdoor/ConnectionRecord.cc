#include "ConnectionRecord.h"

namespace tarnwick::frontdoor {
namespace {

// alsoEscaped names characters that separate parts of the value, such as the comma between
// protocol names, so that a part cannot pretend to be two.
void appendEscaped(std::string& line, std::string_view value, std::string_view alsoEscaped = {}) {
  constexpr std::string_view kHex = "0123456789abcdef";
  for (unsigned char c : value) {
    if (c > ' ' && c < 0x7f && c != '\\' &&
        alsoEscaped.find(static_cast<char>(c)) == alsoEscaped.npos) {
      line.push_back(static_cast<char>(c));
    } else {
      line.append("\\x").push_back(kHex[c >> 4]);
      line.push_back(kHex[c & 0xf]);
    }
  }
}

void appendField(std::string& line, std::string_view key, std::string_view value) {
  line.append(" ").append(key).append("=");
  if (value.empty()) {
    line.append("-");
  } else {
    appendEscaped(line, value);
  }
}

void appendProtocols(std::string& line, const std::vector<std::string>& protocols) {
  line.append(" alpn=");
  if (protocols.empty()) line.append("-");
  for (std::size_t i = 0; i < protocols.size(); ++i) {
    if (i > 0) line.push_back(',');
    appendEscaped(line, protocols[i], ",");
  }
}

}  // namespace

std::string formatConnectionLine(const ConnectionRecord& record) {
  std::string line = "conn";
  appendField(line, "pid", record.pid);
  appendField(line, "signing", record.signingId);
  appendField(line, "trace", record.trace);
  appendField(line, "dest", record.destination);
  appendField(line, "sni", record.serverName.value_or(""));
  appendProtocols(line, record.alpn);
  appendField(line, "up", std::to_string(record.bytesUp));
  appendField(line, "down", std::to_string(record.bytesDown));
  appendField(line, "result", record.result);
  return line;
}

}  // namespace tarnwick::frontdoor
