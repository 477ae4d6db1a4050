#include "platform/Text.h"

namespace tarnwick {
namespace {

// Length of the well-formed UTF-8 sequence at the start of `s`, or 0 when it is ill-formed.
size_t validSequenceLength(std::string_view s) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(s[i]); };
  const unsigned char lead = byte(0);
  if (lead < 0x80) return 1;
  size_t length = 0;
  unsigned char low = 0x80, high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (s.size() < length) return 0;
  if (byte(1) < low || byte(1) > high) return 0;
  for (size_t i = 2; i < length; ++i) {
    if (byte(i) < 0x80 || byte(i) > 0xBF) return 0;
  }
  return length;
}

}  // namespace

bool isValidUTF8(std::string_view bytes) {
  while (!bytes.empty()) {
    const size_t n = validSequenceLength(bytes);
    if (n == 0) return false;
    bytes.remove_prefix(n);
  }
  return true;
}

std::string toValidUTF8(std::string_view bytes) {
  if (isValidUTF8(bytes)) return std::string(bytes);
  std::string out;
  out.reserve(bytes.size() + 8);
  while (!bytes.empty()) {
    const size_t n = validSequenceLength(bytes);
    if (n == 0) {
      out += "\xEF\xBF\xBD";
      bytes.remove_prefix(1);
    } else {
      out.append(bytes.substr(0, n));
      bytes.remove_prefix(n);
    }
  }
  return out;
}

}  // namespace tarnwick
