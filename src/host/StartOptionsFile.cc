#include "host/StartOptionsFile.h"

#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <span>

namespace tarnwick::host {
namespace {

// An options file is a handful of keys; anything far larger is not one.
constexpr std::size_t kMaximumOptionsBytes = 1 << 20;
// A Unix socket path and its terminating zero must fit the address.
constexpr std::size_t kMaximumSocketPathBytes = sizeof(sockaddr_un::sun_path) - 1;
// How much of a rejected value an error line shows.
constexpr std::size_t kShownValueBytes = 40;

StartOptionsResult failure(std::string error) { return {std::nullopt, std::move(error), {}}; }

bool isPort(const Json& value) {
  const auto number = isJsonInteger(value) ? jsonIntegerValue(value) : std::nullopt;
  return number && *number >= 1 && *number <= 65535;
}

// A process ID the kernel can give: positive and within pid_t.
bool isProcessID(const Json& value) {
  const auto number = isJsonInteger(value) ? jsonIntegerValue(value) : std::nullopt;
  return number && *number >= 1 && *number <= INT32_MAX;
}

bool isNonEmptyText(const Json& value) {
  return value.is_string() && !value.get_ref<const std::string&>().empty();
}

bool isHost(const Json& value) {
  if (!isNonEmptyText(value)) return false;
  const auto& text = value.get_ref<const std::string&>();
  return text.size() <= 255 && std::none_of(text.begin(), text.end(), [](char c) {
           return static_cast<unsigned char>(c) <= ' ' || c == 0x7f;
         });
}

bool isSocketPath(const Json& value) {
  return isNonEmptyText(value) &&
         value.get_ref<const std::string&>().size() <= kMaximumSocketPathBytes;
}

bool isArray(const Json& value) { return value.is_array(); }
bool isObject(const Json& value) { return value.is_object(); }

struct Expectation {
  const char* what;  // as the error line says it
  bool (*accepts)(const Json&);
};

struct KeyRule {
  const char* key;
  Expectation value;
  std::optional<Expectation> element;  // what each element of an array must be
  std::span<const KeyRule> members;    // the keys of an object
};

const std::string kSocketPathExpected =
    "a path of 1 to " + std::to_string(kMaximumSocketPathBytes) + " bytes";

const KeyRule kProviderConfigurationKeys[] = {
    {"socketPath", {kSocketPathExpected.c_str(), isSocketPath}, std::nullopt, {}}};

const KeyRule kStartOptionKeys[] = {
    {"frontDoorHost", {"a host name or address (text without blanks)", isHost}, std::nullopt, {}},
    {"frontDoorPort", {"an integer from 1 to 65535", isPort}, std::nullopt, {}},
    {"providerConfiguration", {"an object", isObject}, std::nullopt, kProviderConfigurationKeys},
    {"socketPath", {kSocketPathExpected.c_str(), isSocketPath}, std::nullopt, {}},
    {"watchedPIDs",
     {"an array of process IDs", isArray},
     Expectation{"a positive integer (a process ID)", isProcessID},
     {}},
    {"watchedSigningIDs",
     {"an array of signing identifiers", isArray},
     Expectation{"a non-empty text (an executable's canonical path)", isNonEmptyText},
     {}},
};

// The value as JSON, cut short when long; JSON escapes keep it on one line.
std::string shown(const Json& value) {
  std::string text = dumpCompact(value);
  if (text.size() > kShownValueBytes) text = text.substr(0, kShownValueBytes) + "...";
  return text;
}

std::string asJsonText(std::string_view text) { return dumpCompact(Json(text)); }

std::string lowercase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return lower;
}

std::string unknownKey(const std::string& name, std::span<const KeyRule> rules) {
  std::string known;
  for (const KeyRule& rule : rules) {
    if (lowercase(rule.key) == lowercase(name.substr(name.rfind('.') + 1))) {
      return "unknown key " + asJsonText(name) + " (did you mean " + asJsonText(rule.key) + "?)";
    }
    known += (known.empty() ? "" : ", ") + std::string(rule.key);
  }
  return "unknown key " + asJsonText(name) + " (the keys are " + known + ")";
}

std::optional<std::string> checkObject(const Json& object, std::span<const KeyRule> rules,
                                       const std::string& prefix);

std::optional<std::string> checkValue(const KeyRule& rule, const Json& value,
                                      const std::string& name) {
  if (!rule.value.accepts(value)) {
    return asJsonText(name) + " must be " + rule.value.what + ", not " + shown(value);
  }
  if (rule.element) {
    for (std::size_t i = 0; i < value.size(); ++i) {
      if (rule.element->accepts(value[i])) continue;
      return asJsonText(name) + "[" + std::to_string(i) + "] must be " + rule.element->what + ", not " +
             shown(value[i]);
    }
  }
  if (!rule.members.empty()) return checkObject(value, rule.members, name + ".");
  return std::nullopt;
}

// One line saying what is wrong with the first bad key, or nothing.
std::optional<std::string> checkObject(const Json& object, std::span<const KeyRule> rules,
                                       const std::string& prefix) {
  for (const auto& [key, value] : object.items()) {
    const auto rule = std::find_if(rules.begin(), rules.end(),
                                   [&key = key](const KeyRule& r) { return key == r.key; });
    if (rule == rules.end()) return unknownKey(prefix + key, rules);
    if (auto error = checkValue(*rule, value, prefix + key)) return error;
  }
  return std::nullopt;
}

// At most `limit` bytes and one more, so an endless file is told apart without reading it all.
std::optional<std::string> readBounded(const std::string& path, std::size_t limit) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  std::string bytes(limit + 1, '\0');
  file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (file.bad()) return std::nullopt;
  bytes.resize(static_cast<std::size_t>(file.gcount()));
  return bytes;
}

}  // namespace

StartOptionsResult parseStartOptions(std::string_view bytes) {
  auto document = parseJsonDocument(bytes);
  if (!document) return failure("is not valid JSON");
  if (!document->is_object()) return failure("must hold a JSON object, not " + shown(*document));
  if (auto error = checkObject(*document, kStartOptionKeys, "")) return failure(std::move(*error));
  std::vector<std::string> warnings;
  if (!document->contains("frontDoorPort")) {
    warnings.push_back(
        "has no \"frontDoorPort\": watched flows will pass uninspected, straight to their "
        "destinations");
  }
  return {std::move(document), {}, std::move(warnings)};
}

StartOptionsResult readStartOptionsFile(const std::string& path) {
  const std::string name = "options file " + path;
  struct stat file {};
  if (::stat(path.c_str(), &file) != 0) return failure(name + ": " + std::strerror(errno));
  if (!S_ISREG(file.st_mode)) return failure(name + ": is not a regular file");
  const auto bytes = readBounded(path, kMaximumOptionsBytes);
  if (!bytes) return failure(name + ": cannot be read: " + std::strerror(errno));
  if (bytes->size() > kMaximumOptionsBytes) {
    return failure(name + ": is larger than " + std::to_string(kMaximumOptionsBytes) + " bytes");
  }
  StartOptionsResult result = parseStartOptions(*bytes);
  if (!result.options) result.error = name + ": " + result.error;
  for (std::string& warning : result.warnings) warning = name + " " + warning;
  return result;
}

}  // namespace tarnwick::host
