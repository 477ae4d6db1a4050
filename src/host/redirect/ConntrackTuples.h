#pragma once
// Undoes the redirect's address translation for one connection: given the two ends of an
// accepted connection (the listener's address and the client's, as the listener sees them), the
// kernel's connection tracking names the connection as the client made it. The redirect maps
// many destinations onto one listener address, so when a program reuses a source port towards
// another destination while an earlier redirected connection still sits in the table, NAT gives
// the new one another source port; only the tracked original tuple then leads back to the
// client's socket.
// Used from one thread at a time (each lane has its own).

#include <memory>
#include <optional>

#include "platform/posix/SocketAddress.h"

struct mnl_socket;

namespace tarnwick::host {

struct OriginalTuple {
  SocketAddress client;       // the client socket's own address and port
  SocketAddress destination;  // where it connected to
};

class ConntrackTuples {
 public:
  ConntrackTuples() = default;
  ~ConntrackTuples();
  ConntrackTuples(const ConntrackTuples&) = delete;
  ConntrackTuples& operator=(const ConntrackTuples&) = delete;

  // The tracked original tuple of the TCP connection whose reply direction runs from `local` to
  // `peer`; absent when the kernel tracks no such connection or cannot be asked.
  std::optional<OriginalTuple> originalOf(const SocketAddress& local, const SocketAddress& peer);

 private:
  bool ensureSocket();

  mnl_socket* socket_ = nullptr;
  unsigned int port_id_ = 0;
  unsigned int sequence_ = 0;
};

}  // namespace tarnwick::host
