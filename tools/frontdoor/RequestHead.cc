#include "RequestHead.h"

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

bool isVisible(char c) { return c > ' ' && c < 0x7f; }

// HTTP's token characters, of which methods and header names are made.
bool isTokenChar(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) ||
         std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

bool isToken(std::string_view text) {
  return !text.empty() && std::ranges::all_of(text, isTokenChar);
}

// "METHOD TARGET HTTP/1.x": false when malformed; a CONNECT also sets the destination.
bool takeRequestLine(std::string_view line, RequestHead& request) {
  const auto methodEnd = line.find(' ');
  if (methodEnd == std::string_view::npos) return false;
  const std::string_view method = line.substr(0, methodEnd);
  line.remove_prefix(methodEnd + 1);
  const auto targetEnd = line.find(' ');
  if (targetEnd == std::string_view::npos) return false;
  const std::string_view target = line.substr(0, targetEnd);
  const std::string_view version = line.substr(targetEnd + 1);
  if (!isToken(method) || target.empty() || !std::ranges::all_of(target, isVisible)) return false;
  if (version != "HTTP/1.1" && version != "HTTP/1.0") return false;
  if (method != "CONNECT") return true;
  request.destination = splitHostPort(target);
  return request.destination.has_value();
}

// False for a line that is not "name: value".
bool takeHeader(std::string_view line, RequestHead& request) {
  const auto colon = line.find(':');
  if (colon == std::string_view::npos) return false;
  const std::string_view name = line.substr(0, colon);
  if (!isToken(name)) return false;
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

std::optional<RequestHead> parseRequestHead(std::string_view head) {
  const auto firstEnd = head.find(kLineEnd);
  RequestHead request;
  if (!takeRequestLine(head.substr(0, firstEnd), request)) return std::nullopt;
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
