#pragma once
// A flow's real destination: host and port texts exactly as the flow's remote endpoint reports
// them. The port becomes a number only where one is needed (a dial, an event).

#include <string>

namespace tarnwick {

struct FlowTarget {
  std::string host;
  std::string port;

  bool operator==(const FlowTarget&) const = default;
};

}  // namespace tarnwick
