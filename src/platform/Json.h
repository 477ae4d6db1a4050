#pragma once
// nlohmann::json is the loosely typed value of the system: start options, watch-set messages,
// policy documents and events. These helpers give it the platform's reading rules.

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace tarnwick {

using Json = nlohmann::json;

// Reads JSON "with no options": the top level must be an object or an array, and anything but
// white space after it is an error. Never throws; absent on any error (invalid UTF-8 included).
std::optional<Json> parseJsonDocument(std::string_view bytes);

// The integer value a platform number object reports: a fraction truncates toward zero, true and
// false count as 1 and 0, values beyond the signed 64-bit range saturate. Absent for anything
// that is not a number or a Boolean.
std::optional<std::int64_t> jsonIntegerValue(const Json& value);

// True for a JSON integer (signed or unsigned), not for a fraction or a Boolean.
bool isJsonInteger(const Json& value);

// Compact one-line serialisation. Texts that are not valid UTF-8 have their bad bytes replaced
// rather than failing, so no event is lost to a serialisation error.
std::string dumpCompact(const Json& value);

// The member under `key` when `object` is an object holding it; nullptr otherwise.
const Json* jsonMember(const Json& object, std::string_view key);

}  // namespace tarnwick
