#pragma once
// Owns the connections the host carries for the provider's handed-back flows.
// carry(): any thread (the work moves to the loop's lane unless it is there already).
// Everything else: the loop's lane; the carrier is destroyed after the loop has stopped.

#include <cstdint>
#include <memory>
#include <optional>
#include <unordered_map>

#include "host/HostLoop.h"
#include "host/handback/HandBackRelay.h"
#include "platform/posix/PipePool.h"

namespace tarnwick::host {

class HandBackCarrier : public std::enable_shared_from_this<HandBackCarrier> {
 public:
  HandBackCarrier(std::shared_ptr<HostLoop> loop, HandBackRelay::DialOptions dialOptions);

  void carry(UniqueFd client, const SocketAddress& destination);

 private:
  void start(UniqueFd client, const SocketAddress& destination);

  const std::shared_ptr<HostLoop> loop_;
  const HandBackRelay::DialOptions dial_options_;
  PipePool pipes_;
  std::unordered_map<std::uint64_t, std::shared_ptr<HandBackRelay>> relays_;
};

}  // namespace tarnwick::host
