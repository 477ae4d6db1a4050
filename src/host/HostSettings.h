#pragma once
// What the host itself needs besides the provider's start options: where it listens, the mark
// that keeps its own connections out of the redirect, the control socket and the table's name.

#include <cstdint>
#include <string>

namespace tarnwick::host {

struct HostSettings {
  static constexpr std::uint16_t kDefaultListenPort = 15001;
  static constexpr std::uint32_t kDefaultSocketMark = 0x7477;
  static constexpr const char* kDefaultControlSocketPath = "/run/tarnwick-proxyext.sock";
  static constexpr const char* kDefaultTableName = "tarnwick_proxyext";

  std::uint16_t listenPort = kDefaultListenPort;
  std::uint32_t socketMark = kDefaultSocketMark;
  std::string controlSocketPath = kDefaultControlSocketPath;
  std::string tableName = kDefaultTableName;
};

}  // namespace tarnwick::host
