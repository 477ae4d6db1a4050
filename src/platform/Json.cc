#include "platform/Json.h"

#include <cmath>
#include <limits>

namespace tarnwick {

std::optional<Json> parseJsonDocument(std::string_view bytes) {
  Json parsed = Json::parse(bytes.begin(), bytes.end(), nullptr, /*allow_exceptions=*/false);
  if (parsed.is_discarded()) return std::nullopt;
  if (!parsed.is_object() && !parsed.is_array()) return std::nullopt;
  return parsed;
}

std::optional<std::int64_t> jsonIntegerValue(const Json& value) {
  using Limits = std::numeric_limits<std::int64_t>;
  if (value.is_boolean()) return value.get<bool>() ? 1 : 0;
  if (value.is_number_integer() && !value.is_number_unsigned()) return value.get<std::int64_t>();
  if (value.is_number_unsigned()) {
    const auto u = value.get<std::uint64_t>();
    return u > static_cast<std::uint64_t>(Limits::max()) ? Limits::max()
                                                          : static_cast<std::int64_t>(u);
  }
  if (value.is_number_float()) {
    const double d = std::trunc(value.get<double>());
    if (std::isnan(d)) return 0;
    if (d >= 9223372036854775807.0) return Limits::max();
    if (d <= -9223372036854775808.0) return Limits::min();
    return static_cast<std::int64_t>(d);
  }
  return std::nullopt;
}

bool isJsonInteger(const Json& value) { return value.is_number_integer(); }

std::string dumpCompact(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

const Json* jsonMember(const Json& object, std::string_view key) {
  if (!object.is_object()) return nullptr;
  auto it = object.find(key);
  return it == object.end() ? nullptr : &*it;
}

}  // namespace tarnwick
