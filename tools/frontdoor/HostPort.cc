#include "HostPort.h"

#include "platform/Text.h"

namespace tarnwick::frontdoor {
namespace {

// Printable, blank-free ASCII only: anything else cannot name a host we could dial and would
// only make the log ambiguous.
bool plausibleHost(std::string_view host) {
  if (host.empty()) return false;
  for (char c : host) {
    if (c <= ' ' || c > '~' || c == '[' || c == ']' || c == '/') return false;
  }
  return true;
}

}  // namespace

std::optional<HostPort> splitHostPort(std::string_view text) {
  std::string_view host;
  std::string_view rest;
  if (!text.empty() && text.front() == '[') {
    const auto close = text.find(']');
    if (close == std::string_view::npos) return std::nullopt;
    host = text.substr(1, close - 1);
    rest = text.substr(close + 1);
  } else {
    const auto colon = text.rfind(':');
    if (colon == std::string_view::npos) return std::nullopt;
    host = text.substr(0, colon);
    rest = text.substr(colon);
    if (host.find(':') != std::string_view::npos) return std::nullopt;
  }
  if (!plausibleHost(host) || rest.size() < 2 || rest.front() != ':') return std::nullopt;
  const auto port = parseDecimal<std::uint16_t>(rest.substr(1));
  if (!port || *port == 0) return std::nullopt;
  return HostPort{std::string(host), *port};
}

}  // namespace tarnwick::frontdoor
