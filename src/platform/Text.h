#pragma once
// Text conversions shared by the subsystems: strict decimal parsing, UTF-8 checks and escaping
// for log lines.

#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

namespace tarnwick {

enum class LeadingPlus { Rejected, Accepted };

// Base-10 integer of type T: an optional '-' (signed T only), an optional '+' when allowed, then
// one or more digits and nothing else; no blanks, no overflow.
template <typename T>
std::optional<T> parseDecimal(std::string_view text, LeadingPlus plus = LeadingPlus::Rejected) {
  static_assert(std::is_integral_v<T>);
  if (plus == LeadingPlus::Accepted && !text.empty() && text.front() == '+') {
    text.remove_prefix(1);
    if (!text.empty() && text.front() == '-') return std::nullopt;
  }
  if (text.empty()) return std::nullopt;
  if constexpr (std::is_unsigned_v<T>) {
    if (text.front() == '-') return std::nullopt;
  }
  T value{};
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 10);
  if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
  return value;
}

// True when the bytes are well-formed UTF-8 (no overlongs, no surrogates, at most U+10FFFF).
bool isValidUTF8(std::string_view bytes);

// The bytes with every ill-formed sequence replaced by U+FFFD, as platform strings are made when
// text enters from the operating system.
std::string toValidUTF8(std::string_view bytes);

// The text with everything that could end or rewrite a log line written out as an escape: ASCII
// control characters ("\n", "\r", "\t", else "\x1b"), the C1 controls and the Unicode line and
// paragraph separators ("\u0085"), bytes that are not UTF-8 ("\xff"), and the backslash itself
// ("\\"), so an escape in the text cannot pass for one made here.
std::string escapeControlCharacters(std::string_view text);

}  // namespace tarnwick
