#include "ConnectRequest.h"

#include <algorithm>
#include <cctype>

namespace tarnwick::frontdoor {
namespace {

constexpr std::string_view kLineEnd = "\r\n";

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return std::ranges::equal(
      a, b, [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
}

std::string_view trimBlanks(std::string_view text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::optional<HostPort> parseRequestLine(std::string_view line) {
  constexpr std::string_view kMethod = "CONNECT ";
  if (!line.starts_with(kMethod)) return std::nullopt;
  line.remove_prefix(kMethod.size());
  const auto space = line.find(' ');
  if (space == std::string_view::npos) return std::nullopt;
  const std::string_view version = line.substr(space + 1);
  if (version != "HTTP/1.1" && version != "HTTP/1.0") return std::nullopt;
  return splitHostPort(line.substr(0, space));
}

bool isTokenChar(char c) { return c > ' ' && c < 0x7f && c != ':'; }

// False for a line that is not "name: value".
bool takeHeader(std::string_view line, ConnectRequest& request) {
  const auto colon = line.find(':');
  if (colon == 0 || colon == std::string_view::npos) return false;
  const std::string_view name = line.substr(0, colon);
  if (!std::ranges::all_of(name, isTokenChar)) return false;
  const std::string_view value = trimBlanks(line.substr(colon + 1));
  std::string* slot = nullptr;
  if (equalsIgnoringCase(name, "X-Brask-Pid")) {
    slot = &request.pid;
  } else if (equalsIgnoringCase(name, "X-Brask-Signing-Id")) {
    slot = &request.signingId;
  } else if (equalsIgnoringCase(name, "X-Brask-Trace")) {
    slot = &request.trace;
  }
  if (slot != nullptr && slot->empty()) slot->assign(value);
  return true;
}

}  // namespace

std::optional<ConnectRequest> parseConnectRequest(std::string_view head) {
  const auto firstEnd = head.find(kLineEnd);
  auto destination = parseRequestLine(head.substr(0, firstEnd));
  if (!destination) return std::nullopt;
  ConnectRequest request{std::move(*destination), {}, {}, {}};
  if (firstEnd == std::string_view::npos) return request;
  std::string_view rest = head.substr(firstEnd + kLineEnd.size());
  while (true) {
    const auto end = rest.find(kLineEnd);
    if (!takeHeader(rest.substr(0, end), request)) return std::nullopt;
    if (end == std::string_view::npos) return request;
    rest.remove_prefix(end + kLineEnd.size());
  }
}

}  // namespace tarnwick::frontdoor
