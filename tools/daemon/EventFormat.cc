#include "EventFormat.h"

#include "platform/Json.h"

namespace tarnwick::daemon {
namespace {

bool needsQuotes(const std::string& text) {
  return text.empty() || text.find_first_of(" \t\"=\\") != std::string::npos ||
         text.find_first_of("\r\n") != std::string::npos;
}

std::string shown(const Json& value) {
  if (value.is_string()) {
    const auto& text = value.get_ref<const std::string&>();
    return needsQuotes(text) ? dumpCompact(value) : text;
  }
  return dumpCompact(value);
}

}  // namespace

std::string readableEvent(std::string_view line) {
  const std::optional<Json> event = parseJsonDocument(line);
  if (!event || !event->is_object()) return "unparsed: " + std::string(line);
  std::string out = kindOf(line);
  for (const auto& [key, value] : event->items()) {
    if (key == "kind") continue;
    out += " " + key + "=" + shown(value);
  }
  return out;
}

std::string kindOf(std::string_view line) {
  const std::optional<Json> event = parseJsonDocument(line);
  if (!event) return "?";
  const Json* kind = jsonMember(*event, "kind");
  return kind && kind->is_string() ? kind->get<std::string>() : "?";
}

std::optional<std::string> policyPushLine(std::string_view fileText, std::string& error) {
  std::optional<Json> document = parseJsonDocument(fileText);
  if (!document || !document->is_object()) {
    error = "the policy file must hold one JSON object";
    return std::nullopt;
  }
  (*document)["kind"] = "policy.push";
  return dumpCompact(*document) + "\n";
}

std::size_t KindCounts::total() const {
  std::size_t sum = 0;
  for (const auto& [kind, count] : counts_) sum += count;
  return sum;
}

std::string KindCounts::readableSummary() const {
  std::string out = "events " + std::to_string(total());
  for (const auto& [kind, count] : counts_) out += "\n  " + kind + " " + std::to_string(count);
  return out;
}

std::string KindCounts::jsonSummary() const {
  Json counts = Json::object();
  for (const auto& [kind, count] : counts_) counts[kind] = count;
  return dumpCompact(Json{{"counts", counts}, {"total", total()}});
}

}  // namespace tarnwick::daemon
