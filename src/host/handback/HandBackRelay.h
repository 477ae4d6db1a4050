#pragma once
// Carries one connection the provider handed back: dials the original destination with the
// host's marked socket and moves the bytes both ways by splicing through a pipe, so they never
// enter user space. Half-closes pass through (an end read from one side becomes a write-side
// shutdown toward the other); a refused dial, a reset or a failed write resets both sides, as the
// client would have seen without the host in between.
// Loop thread only; owned by the HandBackCarrier, told to it through `finished`.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "host/HostLoop.h"
#include "platform/posix/PipePool.h"
#include "platform/posix/SocketAddress.h"
#include "platform/posix/SplicePump.h"
#include "platform/posix/UniqueFd.h"

namespace tarnwick::host {

class HandBackRelay : public IoHandler, public std::enable_shared_from_this<HandBackRelay> {
 public:
  using Finished = std::function<void(std::uint64_t id)>;

  // `finished` runs once, on the loop thread, when both sides are closed; it may drop the relay.
  static std::shared_ptr<HandBackRelay> create(std::shared_ptr<HostLoop> loop, PipePool& pipes,
                                               UniqueFd client, Finished finished);
  ~HandBackRelay() override;

  std::uint64_t id() const { return id_; }
  // How the host dials a handed-back connection's destination.
  struct DialOptions {
    std::optional<std::uint32_t> mark;  // set on the socket when given
    // A destination that does not answer resets the client after this long, as the client's own
    // connect would have failed, instead of after the kernel's two minutes of SYN retries.
    std::chrono::milliseconds connectTimeout{20000};
  };

  // Dials the destination.
  void dial(const SocketAddress& destination, const DialOptions& options);
  void onIoEvent(std::uint32_t tag, std::uint32_t events) override;

 private:
  enum Side : std::uint32_t { Client = 0, Destination = 1 };

  struct Direction {
    Side from;
    Side to;
    SplicePump pump;
  };

  HandBackRelay(std::shared_ptr<HostLoop> loop, PipePool& pipes, UniqueFd client,
                Finished finished);
  void onConnected();
  // False when the direction failed and the relay was reset.
  bool pump(Direction& direction);
  void updateInterest();
  void setInterest(Side side, std::uint32_t wanted);
  // Resets both sides; returns false for pump's callers.
  bool fail();
  void finish(bool reset);
  UniqueFd& socketOf(Side side) { return side == Client ? client_ : destination_; }

  const std::shared_ptr<HostLoop> loop_;
  PipePool& pipes_;
  UniqueFd client_;
  UniqueFd destination_;
  Finished finished_;
  std::uint64_t id_ = 0;
  bool connecting_ = true;
  Direction upstream_{Client, Destination, {}};
  Direction downstream_{Destination, Client, {}};
  // Events each socket is registered for; absent while it is not in the epoll set.
  std::optional<std::uint32_t> interest_[2];
};

}  // namespace tarnwick::host
