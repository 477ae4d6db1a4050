#include "platform/Text.h"

namespace tarnwick {
namespace {

struct Sequence {
  size_t length;  // at least 1
  bool wellFormed;
};

// The UTF-8 sequence at the start of a non-empty `s`. An ill-formed one spans its maximal
// subpart: the longest start of a well-formed sequence, or one byte. Replacing each maximal
// subpart with one U+FFFD is what the platform's strings do with bad bytes.
Sequence sequenceAt(std::string_view s) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(s[i]); };
  const unsigned char lead = byte(0);
  if (lead < 0x80) return {1, true};
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
    return {1, false};
  }
  for (size_t i = 1; i < length; ++i) {
    if (i >= s.size() || byte(i) < low || byte(i) > high) return {i, false};
    low = 0x80;
    high = 0xBF;
  }
  return {length, true};
}

}  // namespace

bool isValidUTF8(std::string_view bytes) {
  while (!bytes.empty()) {
    const Sequence next = sequenceAt(bytes);
    if (!next.wellFormed) return false;
    bytes.remove_prefix(next.length);
  }
  return true;
}

std::string toValidUTF8(std::string_view bytes) {
  if (isValidUTF8(bytes)) return std::string(bytes);
  std::string out;
  out.reserve(bytes.size() + 8);
  while (!bytes.empty()) {
    const Sequence next = sequenceAt(bytes);
    if (next.wellFormed) {
      out.append(bytes.substr(0, next.length));
    } else {
      out += "\xEF\xBF\xBD";
    }
    bytes.remove_prefix(next.length);
  }
  return out;
}

}  // namespace tarnwick
