#pragma once
// What the daemon companion is asked to do, from its command line.

#include <optional>
#include <string>

namespace tarnwick::daemon {

struct DaemonConfig {
  // Empty: the bridge's default path under the home directory.
  std::string socketPath;
  // Print each event line as received instead of one readable line.
  bool json = false;
  // A JSON object file written as a "policy.push" line on every new connection.
  std::optional<std::string> pushFile;
};

}  // namespace tarnwick::daemon
