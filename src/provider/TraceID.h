#pragma once
// Trace identifiers: 16 lowercase hexadecimal characters from 8 random bytes, one per relayed
// flow. The same text goes to the daemon in "relay.open" and to the front door in the preamble,
// so the two views of a connection can be tied together. 64 random bits and nothing else: no
// time stamp, counter, process or host component.

#include <cstdint>
#include <span>
#include <string>

namespace tarnwick {

struct TraceID {
  TraceID() = delete;

  static constexpr std::int64_t byteCount = 8;

  // A fresh identifier from the system's secure random source. Any thread.
  static std::string mint();
  // Lowercase hexadecimal, high nibble first, no separators. Any thread.
  static std::string encodeHex(std::span<const std::uint8_t> bytes);
};

}  // namespace tarnwick
