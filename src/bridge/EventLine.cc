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
  if (!event.is_structured() || !allNumbersFinite(event)) return std::nullopt;
  std::string line = dumpCompact(event);
  line.push_back('\n');
  return line;
}

}  // namespace tarnwick::EventLine
