#pragma once
// What the host itself needs besides the provider's start options: where it listens, the mark
// that keeps its own connections out of the redirect, the control socket and who may use it, the
// table's name and the private networks it leaves alone.

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/HostNetworkRules.h"

namespace tarnwick::host {

// Which connections reach the interceptor. Kernel: only watched programs' and their
// descendants', selected by BPF programs at connect(). All: every outbound TCP connection, by an
// nftables redirect, and the unwatched ones are dialled again by the host. Auto: kernel where the
// programs load and attach, otherwise all.
enum class SelectionMode { Auto, Kernel, All };

struct HostSettings {
  // 0: a port the kernel chooses, which no other program can hold in advance.
  static constexpr std::uint16_t kDefaultListenPort = 0;
  static constexpr std::uint32_t kDefaultSocketMark = 0x7477;
  // The directory is the systemd unit's runtime directory.
  static constexpr const char* kDefaultControlSocketPath = "/run/tarnwick-proxyext/control.sock";
  static constexpr const char* kDefaultTableName = "tarnwick_proxyext";

  std::uint16_t listenPort = kDefaultListenPort;
  // Bits set on the host's own sockets. A socket carrying all of them is never redirected,
  // whatever other bits other software has set beside them.
  std::uint32_t socketMark = kDefaultSocketMark;
  std::string controlSocketPath = kDefaultControlSocketPath;
  // Besides root, the members of this group may use the control socket.
  std::optional<gid_t> controlGroup;
  std::string tableName = kDefaultTableName;
  std::vector<IPv4Network> privateIPv4Networks = defaultPrivateIPv4Networks();
  // How long the dial of a handed-back connection may wait for its destination to answer.
  std::chrono::milliseconds handBackConnectTimeout{20000};
  SelectionMode selection = SelectionMode::Auto;
  // Kernel selection only: watched programs' UDP to port 443 is refused, so QUIC clients fall
  // back to TCP, which is inspected.
  bool blockQuic = false;
};

}  // namespace tarnwick::host
