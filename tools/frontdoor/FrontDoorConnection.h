#pragma once
// One client of the front door, from its CONNECT head to the end of its relay (or of the fault
// the front door's mode plays). Owned by the FrontDoor, which hands it the readiness of its fds
// and the results of its name lookups, and logs and drops it once finished() turns true.
// Every member runs on the event loop's thread.
//
// The result its log line ends with: "closed" (both directions ended), "client-reset" and
// "destination-reset" (that side's socket failed or was reset, and the other side was reset in
// turn), "no-request" (the client left without a byte), "bad-request" and "head-too-large"
// (answered 400), "not-connect" (a request other than CONNECT, answered 405), "dial-failed"
// (answered 502), "rejected", "garbage", "acked-closed", "acked-silent", "silent" (the fault
// modes), "shutdown" (the front door stopped).

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "ConnectionRecord.h"
#include "FdToken.h"
#include "FrontDoorConfig.h"
#include "RelayDirection.h"
#include "RequestHead.h"
#include "Resolver.h"
#include "platform/posix/EventLoop.h"
#include "platform/posix/SocketAddress.h"
#include "platform/posix/UniqueFd.h"

namespace tarnwick::frontdoor {

// What every connection of one front door shares; it outlives them all.
struct ConnectionContext {
  EventLoop& loop;
  Resolver& resolver;
  std::span<std::uint8_t> scratch;  // one read's worth; no connection keeps bytes in it
  const FrontDoorConfig& config;
};

class FrontDoorConnection {
 public:
  FrontDoorConnection(const ConnectionContext& context, std::uint64_t id, UniqueFd client);
  FrontDoorConnection(const FrontDoorConnection&) = delete;
  FrontDoorConnection& operator=(const FrontDoorConnection&) = delete;

  void onEvent(FdRole role, std::uint32_t events);
  // The lookup this connection asked for under its id; ignored unless it is still waiting.
  void onResolved(std::vector<SocketAddress> addresses);
  // Ends the connection at once: the front door is stopping.
  void stop();

  bool finished() const { return phase_ == Phase::Finished; }
  const ConnectionRecord& record() const { return record_; }

 private:
  enum class Phase {
    ReadingHead,
    Waiting,    // slow-ack delay
    Resolving,  // destination name lookup
    Dialing,
    Relaying,
    Discarding,  // reading and dropping, never answering
    Lingering,   // answered and half-closed; dropping what the client still sends
    Finished,
  };

  void readHead();
  void onHead(std::optional<RequestHead> request);
  void onOversizedHead();
  // What a request comes to once the mode lets it through: a dial, or the answer to a probe.
  void proceed();

  void dialDestination();
  void dialNext();
  void onDialProgress(std::uint32_t events);
  void onConnected();

  void relay(FdRole role, std::uint32_t events);
  void startDiscarding(std::string_view result);
  void discard();
  void answerAndClose(std::string_view reply, std::string_view result);

  bool armTimer(double seconds);
  void disarmTimer();
  void onTimer();

  // A reset or failure on the socket of `failed` cuts the connection short.
  void cutShort(FdRole failed);
  // Stops watching a socket that has ended both ways while what it still holds must wait.
  void park(FdRole role);
  // Watches the socket for `wants` (in the loop again if it was parked).
  void watch(FdRole role, std::uint32_t wants);
  UniqueFd& socketOf(FdRole role) { return role == FdRole::Client ? client_ : upstream_; }
  std::optional<std::uint32_t>& eventsOf(FdRole role) {
    return role == FdRole::Client ? client_events_ : upstream_events_;
  }
  void dropUpstream();
  void updateInterest();
  enum class Ending { Orderly, Abortive };
  void finish(std::string_view result, Ending ending = Ending::Orderly);

  const ConnectionContext& context_;
  const std::uint64_t id_;
  Phase phase_ = Phase::ReadingHead;
  UniqueFd client_;
  UniqueFd upstream_;
  UniqueFd timer_;
  // The events each socket is watched for; absent while parked (not in the loop at all).
  std::optional<std::uint32_t> client_events_;
  std::optional<std::uint32_t> upstream_events_;

  std::string head_;                 // until the head is complete
  std::vector<std::uint8_t> early_;  // bytes the client sent right behind its head
  bool client_ended_ = false;
  std::optional<HostPort> destination_;
  std::vector<SocketAddress> addresses_;
  std::size_t next_address_ = 0;

  RelayDirection up_;
  RelayDirection down_;
  std::uint64_t discarded_ = 0;
  std::string_view result_ = "-";  // the outcome decided before the end
  ConnectionRecord record_;
};

}  // namespace tarnwick::frontdoor
