#include "policy/SNIParser.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "platform/Text.h"

namespace tarnwick {
namespace {

constexpr std::uint8_t kHandshakeRecord = 22;
constexpr std::uint8_t kClientHello = 1;
constexpr std::uint16_t kServerNameExtension = 0;
constexpr std::uint16_t kALPNExtension = 16;
constexpr std::uint8_t kHostName = 0;
// Record header (5), handshake header (4), client version (2) and random (32).
constexpr std::size_t kSessionIDOffset = 43;

std::size_t u16At(std::span<const std::uint8_t> data, std::size_t at) {
  return static_cast<std::size_t>(data[at]) << 8 | data[at + 1];
}

std::optional<std::string> utf8Text(std::span<const std::uint8_t> data, std::size_t from,
                                    std::size_t to) {
  const std::string_view text(reinterpret_cast<const char*>(data.data()) + from, to - from);
  // Host names and protocol names are nearly always ASCII, which needs no sequence decoding.
  const bool ascii = std::all_of(text.begin(), text.end(),
                                 [](char c) { return static_cast<unsigned char>(c) < 0x80; });
  if (!ascii && !isValidUTF8(text)) return std::nullopt;
  return std::string(text);
}

}  // namespace

SNIParseResult SNIParser::parse(std::span<const std::uint8_t> data) {
  const std::size_t n = data.size();
  if (n < kSessionIDOffset) return empty;
  if (data[0] != kHandshakeRecord || data[5] != kClientHello) return empty;

  std::size_t p = kSessionIDOffset;
  if (n < p + 1) return empty;
  p += 1 + data[p];  // session ID
  if (n < p + 2) return empty;
  p += 2 + u16At(data, p);  // cipher suites
  if (p >= n) return empty;
  p += 1 + data[p];  // compression methods
  if (n < p + 2) return empty;
  const std::size_t end = p + 2 + u16At(data, p);
  p += 2;
  if (n < end) return empty;

  SNIParseResult result;
  while (p + 4 <= end) {
    const std::size_t type = u16At(data, p);
    const std::size_t bodyEnd = p + 4 + u16At(data, p + 2);
    if (bodyEnd > end) break;
    if (type == kServerNameExtension) {
      result.serverName = parseServerNameExtension(data, p + 4, bodyEnd);
    } else if (type == kALPNExtension) {
      result.alpn = parseALPNExtension(data, p + 4, bodyEnd);
    }
    p = bodyEnd;
  }
  return result;
}

std::optional<std::string> SNIParser::parseServerNameExtension(std::span<const std::uint8_t> data,
                                                               std::size_t from, std::size_t to) {
  if (to < from + 2) return std::nullopt;
  std::size_t p = from + 2;  // the list length is not checked
  while (true) {
    if (to < p + 3) return std::nullopt;
    const std::uint8_t nameType = data[p];
    const std::size_t nameEnd = p + 3 + u16At(data, p + 1);
    if (to < nameEnd) return std::nullopt;
    if (nameType == kHostName) return utf8Text(data, p + 3, nameEnd);
    p = nameEnd;
  }
}

std::vector<std::string> SNIParser::parseALPNExtension(std::span<const std::uint8_t> data,
                                                       std::size_t from, std::size_t to) {
  std::vector<std::string> protocols;
  if (to < from + 2) return protocols;
  // Entries that fit in the body, walking the one-byte lengths; the list length is not checked.
  const auto forEachEntry = [&](auto&& visit) {
    for (std::size_t p = from + 2; p < to;) {
      const std::size_t nameEnd = p + 1 + data[p];
      if (nameEnd > to) return;
      visit(p + 1, nameEnd);
      p = nameEnd;
    }
  };
  std::size_t count = 0;
  forEachEntry([&](std::size_t, std::size_t) { ++count; });
  protocols.reserve(count);  // one allocation for the list, however many names it holds
  forEachEntry([&](std::size_t nameFrom, std::size_t nameTo) {
    if (auto name = utf8Text(data, nameFrom, nameTo)) protocols.push_back(std::move(*name));
  });
  return protocols;
}

}  // namespace tarnwick
