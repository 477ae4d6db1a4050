#include "platform/Text.h"

#include <cstdio>

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

// The code point of a well-formed sequence.
char32_t codePointOf(std::string_view sequence) {
  const auto byte = [&](size_t i) { return static_cast<char32_t>(sequence[i]) & 0xFF; };
  if (sequence.size() == 1) return byte(0);
  char32_t value = byte(0) & (0xFF >> (sequence.size() + 1));
  for (size_t i = 1; i < sequence.size(); ++i) value = (value << 6) | (byte(i) & 0x3F);
  return value;
}

bool isLineBreaking(char32_t c) {
  return c < 0x20 || c == 0x7F || (c >= 0x80 && c <= 0x9F) || c == 0x2028 || c == 0x2029;
}

void appendEscape(std::string& out, const char* format, unsigned value) {
  char escape[16];
  std::snprintf(escape, sizeof escape, format, value);
  out += escape;
}

// The escape for one sequence, or nothing when it stands for itself.
bool appendEscaped(std::string& out, std::string_view sequence, bool wellFormed) {
  if (!wellFormed) {
    for (const char c : sequence) appendEscape(out, "\\x%02x", static_cast<unsigned char>(c));
    return true;
  }
  const char32_t c = codePointOf(sequence);
  if (c == '\\') {
    out += "\\\\";
  } else if (c == '\n') {
    out += "\\n";
  } else if (c == '\r') {
    out += "\\r";
  } else if (c == '\t') {
    out += "\\t";
  } else if (c < 0x80 && isLineBreaking(c)) {
    appendEscape(out, "\\x%02x", static_cast<unsigned>(c));
  } else if (isLineBreaking(c)) {
    appendEscape(out, "\\u%04x", static_cast<unsigned>(c));
  } else {
    return false;
  }
  return true;
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

std::string escapeControlCharacters(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const Sequence next = sequenceAt(text);
    const std::string_view sequence = text.substr(0, next.length);
    if (!appendEscaped(out, sequence, next.wellFormed)) out.append(sequence);
    text.remove_prefix(next.length);
  }
  return out;
}

}  // namespace tarnwick
