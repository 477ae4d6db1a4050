#include "platform/OptionReader.h"

#include <charconv>
#include <utility>

#include "platform/Text.h"

namespace tarnwick {

std::optional<std::string> OptionReader::next() {
  if (index_ >= args_.size()) return std::nullopt;
  const std::string& arg = args_[index_++];
  inline_value_.reset();
  name_ = arg;
  if (const auto equals = arg.find('='); arg.starts_with("--") && equals != std::string::npos) {
    name_ = arg.substr(0, equals);
    inline_value_ = arg.substr(equals + 1);
  }
  return name_;
}

std::optional<std::string> OptionReader::value() {
  if (inline_value_) return std::exchange(inline_value_, std::nullopt);
  if (index_ < args_.size()) return args_[index_++];
  fail(name_ + " needs a value");
  return std::nullopt;
}

std::optional<unsigned long> parseUnsigned(const std::string& text, unsigned long maximum) {
  std::optional<unsigned long> value;
  if (text.starts_with("0x") || text.starts_with("0X")) {
    unsigned long parsed = 0;
    const auto digits = std::string_view(text).substr(2);
    const auto [end, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), parsed, 16);
    if (!digits.empty() && error == std::errc() && end == digits.data() + digits.size()) {
      value = parsed;
    }
  } else {
    value = parseDecimal<unsigned long>(text);
  }
  if (!value || *value > maximum) return std::nullopt;
  return value;
}

}  // namespace tarnwick
