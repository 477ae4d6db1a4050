#pragma once
// Reads the first bytes a TLS client sends, a ClientHello inside a TLS record, and extracts the
// server name it asks for (server_name extension) and the application protocols it offers
// (ALPN). No state, no I/O; every read is checked against the buffer, and a truncated, malformed
// or foreign input gives SNIParser::empty (before the extension block) or what the extensions
// read so far carried. Any thread.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace tarnwick {

struct SNIParseResult {
  std::optional<std::string> serverName;  // the first host_name entry, when valid UTF-8
  std::optional<std::string> ja3;         // never filled
  std::vector<std::string> alpn;          // protocol names in the order offered

  bool operator==(const SNIParseResult&) const = default;
};

struct SNIParser {
  SNIParser() = delete;

  static inline const SNIParseResult empty{};

  // One pass over the header and the two extensions of interest; the only allocations are the
  // returned texts and list.
  static SNIParseResult parse(std::span<const std::uint8_t> data);

 private:
  static std::optional<std::string> parseServerNameExtension(std::span<const std::uint8_t> data,
                                                             std::size_t from, std::size_t to);
  static std::vector<std::string> parseALPNExtension(std::span<const std::uint8_t> data,
                                                     std::size_t from, std::size_t to);
};

}  // namespace tarnwick
