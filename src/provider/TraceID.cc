#include "provider/TraceID.h"

#include <array>

#include "platform/SecureRandom.h"

namespace tarnwick {

std::string TraceID::mint() {
  std::array<std::uint8_t, byteCount> bytes{};
  fillSecureRandom(bytes);
  return encodeHex(bytes);
}

std::string TraceID::encodeHex(std::span<const std::uint8_t> bytes) {
  static constexpr char kAlphabet[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const std::uint8_t byte : bytes) {
    text.push_back(kAlphabet[byte >> 4]);
    text.push_back(kAlphabet[byte & 0x0F]);
  }
  return text;
}

}  // namespace tarnwick
