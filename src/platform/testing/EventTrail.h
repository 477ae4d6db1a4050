#pragma once
// A readable trail of the events a test saw: "kind", or "kind:reason" where there is a reason.

#include <string>
#include <vector>

#include "platform/Json.h"

namespace tarnwick {

inline std::vector<std::string> eventTrail(const std::vector<Json>& events) {
  std::vector<std::string> out;
  for (const auto& e : events) {
    std::string entry = e.value("kind", "");
    if (e.contains("reason")) entry += ":" + e.value("reason", "");
    out.push_back(entry);
  }
  return out;
}

}  // namespace tarnwick
