#include "bridge/EventLine.h"

#include <cmath>

namespace tarnwick::EventLine {

namespace {

bool allNumbersFinite(const Json& value) {
  if (value.is_number_float()) return std::isfinite(value.get<double>());
  if (value.is_structured()) {
    for (const auto& element : value) {
      if (!allNumbersFinite(element)) return false;
    }
  }
  return true;
}

}  // namespace

std::optional<std::string> frame(const Json& event) {
  if (!event.is_structured()) return std::nullopt;
  std::string line = dumpCompact(event);
  // The writer shows a non-finite number as null, so only a line holding "null" needs the walk.
  if (line.find("null") != std::string::npos && !allNumbersFinite(event)) return std::nullopt;
  line.push_back('\n');
  return line;
}

}  // namespace tarnwick::EventLine
