#include "bridge/InboundLine.h"

namespace tarnwick::InboundLine {

std::optional<Json> policyPush(std::string_view line) {
  if (line.empty()) return std::nullopt;
  std::optional<Json> document = parseJsonDocument(line);
  if (!document || !document->is_object()) return std::nullopt;
  const Json* kind = jsonMember(*document, "kind");
  if (!kind || !kind->is_string() || kind->get_ref<const std::string&>() != "policy.push") {
    return std::nullopt;
  }
  return document;
}

}  // namespace tarnwick::InboundLine
