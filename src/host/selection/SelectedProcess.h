#pragma once
// What the kernel recorded about a candidate's socket: the process that made it, read when it
// called connect() or named a UDP destination, and the destination it asked for. The record
// outlives the process, so a program that exits, execs or hands its socket over right after
// connect() is still the one named.

#include <cstdint>
#include <optional>
#include <string>

#include "host/selection/ExecutableKey.h"
#include "platform/NetworkExtension.h"
#include "platform/ProcessTable.h"
#include "platform/posix/SocketAddress.h"

struct tw_process;
struct tw_address;
struct tw_connection_key;

namespace tarnwick::host {

struct SelectedProcess {
  std::int64_t pid = 0;
  std::int64_t parentPID = 0;
  std::uint64_t startTime = 0;  // clock ticks after boot, as /proc shows it
  ProcessCredentials credentials{};
  ExecutableKey executable;
  std::uint32_t flags = 0;  // effective flags of CandidateRules.h at that moment
};

// A redirected TCP connection, found by its client's address and the listener-side address it
// arrived at.
struct ConnectRecord {
  SelectedProcess process;
  SocketAddress destination;  // a v4-mapped IPv6 destination is given as IPv4
};

// A candidate's UDP socket, reported once, when it first named a destination.
struct UdpSocketReport {
  SelectedProcess process;
  SocketAddress destination;
};

SelectedProcess selectedProcessFrom(const tw_process& process);
// The socket address; a v4-mapped IPv6 one becomes IPv4.
SocketAddress socketAddressFrom(const tw_address& address);
// The key a connection record is filed under for a connection from `client` that arrived at
// `listener` (the accepted socket's own address); absent when either is neither IPv4 nor IPv6.
std::optional<tw_connection_key> connectionKeyFor(const SocketAddress& client,
                                                  const SocketAddress& listener);

// The metadata of a flow made by `process`, with the same audit token the process table gives
// a live process. The signing identifier is `watchedPath` when the process ran a watched
// executable; otherwise the path of what it runs, while it still runs the recorded file;
// otherwise empty.
NEFlowMetaData flowMetaDataFor(const SelectedProcess& process,
                               std::optional<std::string> watchedPath);

}  // namespace tarnwick::host
