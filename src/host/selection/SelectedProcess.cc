#include "host/selection/SelectedProcess.h"

#include <netinet/in.h>

#include <cstring>

#include "host/selection/SelectionRecords.h"
#include "identity/AuditToken.h"

namespace tarnwick::host {
namespace {

constexpr std::uint8_t kV4MappedPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

bool isV4Mapped(const std::uint8_t* address) {
  return std::memcmp(address, kV4MappedPrefix, sizeof kV4MappedPrefix) == 0;
}

SocketAddress ipv4Address(const std::uint8_t* address, std::uint16_t networkPort) {
  SocketAddress result;
  auto* ip = reinterpret_cast<sockaddr_in*>(&result.storage);
  ip->sin_family = AF_INET;
  ip->sin_port = networkPort;
  std::memcpy(&ip->sin_addr, address, 4);
  result.length = sizeof(sockaddr_in);
  return result;
}

// The path of what `process` runs, while the PID still names it and it still runs the file it
// ran when recorded.
std::optional<std::string> livePathOf(const SelectedProcess& process) {
  const ProcessDirectory directory = ProcessDirectory::open(process.pid);
  const auto stat = directory.stat();
  const auto file = directory.executableFile();
  if (!stat || stat->startTime != process.startTime || !file ||
      !(executableKeyFor(*file) == process.executable)) {
    return std::nullopt;
  }
  return directory.executable();
}

// One end of a connection as the kernel files it: a v4-mapped IPv6 address as IPv4.
std::optional<tw_address> endKeyFor(const SocketAddress& end) {
  tw_address key{};
  if (end.family() == AF_INET) {
    const auto* ip = reinterpret_cast<const sockaddr_in*>(&end.storage);
    key.family = AF_INET;
    key.port = ip->sin_port;
    std::memcpy(key.addr, &ip->sin_addr, 4);
    return key;
  }
  if (end.family() != AF_INET6) return std::nullopt;
  const auto* ip = reinterpret_cast<const sockaddr_in6*>(&end.storage);
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(&ip->sin6_addr);
  key.port = ip->sin6_port;
  if (isV4Mapped(bytes)) {
    key.family = AF_INET;
    std::memcpy(key.addr, bytes + 12, 4);
  } else {
    key.family = AF_INET6;
    std::memcpy(key.addr, bytes, 16);
  }
  return key;
}

}  // namespace

SelectedProcess selectedProcessFrom(const tw_process& process) {
  SelectedProcess selected;
  selected.pid = process.pid;
  selected.parentPID = process.parent_pid;
  selected.startTime = process.start_ticks;
  selected.credentials = {process.login_uid, process.euid, process.egid,
                          process.uid,       process.gid,  process.session};
  selected.executable = {process.exe.device, process.exe.inode};
  selected.flags = process.flags;
  return selected;
}

SocketAddress socketAddressFrom(const tw_address& address) {
  if (address.family == AF_INET) return ipv4Address(address.addr, address.port);
  if (isV4Mapped(address.addr)) return ipv4Address(address.addr + 12, address.port);
  SocketAddress result;
  auto* ip = reinterpret_cast<sockaddr_in6*>(&result.storage);
  ip->sin6_family = AF_INET6;
  ip->sin6_port = address.port;
  std::memcpy(&ip->sin6_addr, address.addr, 16);
  result.length = sizeof(sockaddr_in6);
  return result;
}

std::optional<tw_connection_key> connectionKeyFor(const SocketAddress& client,
                                                  const SocketAddress& listener) {
  const auto clientEnd = endKeyFor(client);
  const auto listenerEnd = endKeyFor(listener);
  if (!clientEnd || !listenerEnd) return std::nullopt;
  return tw_connection_key{*clientEnd, *listenerEnd};
}

NEFlowMetaData flowMetaDataFor(const SelectedProcess& process,
                               std::optional<std::string> watchedPath) {
  const ProcessSnapshot snapshot{{process.parentPID, process.startTime}, process.credentials, {}};
  auto signingID = watchedPath ? std::move(watchedPath) : livePathOf(process);
  return {signingID.value_or(""), auditTokenFor(process.pid, snapshot)};
}

}  // namespace tarnwick::host
