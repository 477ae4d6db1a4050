#pragma once
// One watched TCP flow after the front door has acknowledged it: agent bytes go to the front
// door, the front door's bytes back to the agent. Until the front door's first response byte
// (commitment) the session keeps a copy of what the agent sent, up to the replay cap, so that if
// the front door goes silent or drops the connection it can dial the real destination, replay
// those bytes there and splice the agent onto that connection (failover). After commitment it only
// watches for idleness and reports how it ended.
//
// Kept alive only by the provider's table of sessions, from start() to the end of finish(); every
// callback holds it weakly and does nothing once it is gone. Flow completions arrive on the
// framework's threads, connection completions and watchdog firings on flowQueue_. mutex_ guards
// every mutable field and is never held while calling out.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "platform/Bytes.h"
#include "platform/Dispatch.h"
#include "platform/Mutex.h"
#include "platform/Network.h"
#include "platform/NetworkExtension.h"
#include "relay/FailOpenReason.h"
#include "relay/RelayEvent.h"
#include "relay/RelayServices.h"
#include "relay/RelayWatchdog.h"

namespace tarnwick {

class RelaySession : public std::enable_shared_from_this<RelaySession> {
 public:
  enum class Phase { Relaying, FailingOver, Done };

  // `loopback` has read a good acknowledgement and is started on `queue`; nothing else reads
  // from it. No I/O until start().
  static std::shared_ptr<RelaySession> create(std::shared_ptr<const RelayServices> services,
                                              std::shared_ptr<NEAppProxyTCPFlow> flow,
                                              std::shared_ptr<NWConnection> loopback,
                                              RelayEventFields fields,
                                              std::shared_ptr<DispatchQueue> queue);

  // Once: registers with the provider, arms the silence watchdog and starts both pumps.
  void start();
  // Ends the session: watchdog and upstream cancelled, flow closed, "relay.close" sent, the
  // provider's reference released. Idempotent, any thread.
  void finish();

 private:
  // What to do with an agent chunk, decided under the lock.
  enum class AgentStep { Finish, Hold, Forward };
  // What to do with an upstream completion, decided under the lock.
  enum class UpstreamStep { Ignore, Deliver, Failover, Sever, Close };

  RelaySession(std::shared_ptr<const RelayServices> services,
               std::shared_ptr<NEAppProxyTCPFlow> flow, std::shared_ptr<NWConnection> loopback,
               RelayEventFields fields, std::shared_ptr<DispatchQueue> queue);

  void armPreCommitWatchdog();
  void readAgent();
  void onAgentRead(std::optional<Bytes> data, bool failed);
  AgentStep takeAgentChunkLockHeld(const std::optional<Bytes>& data, bool failed)
      TW_REQUIRES(mutex_);
  void readUpstream(const std::shared_ptr<NWConnection>& conn);
  void onUpstream(const std::weak_ptr<NWConnection>& from, std::optional<Bytes> content,
                  bool ended);
  UpstreamStep judgeUpstreamLockHeld(const std::shared_ptr<NWConnection>& conn, bool hasBytes,
                                     bool ended, bool& first) TW_REQUIRES(mutex_);
  void deliverToAgent(std::shared_ptr<NWConnection> conn, Bytes bytes, bool ended);
  void onFirstResponseByte();
  void onIdle();
  void onUpstreamWriteFailed(const std::shared_ptr<NWConnection>& to);
  void reportSever();
  void dropReplayLockHeld() TW_REQUIRES(mutex_);

  // Failover to the real destination.
  void failover(FailOpenReason reason);
  void dialDestination(Bytes replay);
  void onDirectState(const std::shared_ptr<NWConnection>& conn, const NWConnectionState& state,
                     Bytes replay);
  void completeFailover(std::shared_ptr<NWConnection> conn, Bytes replay);
  void sendThen(std::shared_ptr<NWConnection> conn, Bytes bytes,
                std::function<void(RelaySession&)> next);
  void drainHoldThenGoLive(const std::shared_ptr<NWConnection>& conn);

  const std::shared_ptr<const RelayServices> services_;
  const std::shared_ptr<NEAppProxyTCPFlow> flow_;
  const std::shared_ptr<DispatchQueue> flowQueue_;
  const RelayEventFields fields_;

  Mutex mutex_;
  // Where agent bytes go: the front door, or the direct connection once a failover completes.
  std::shared_ptr<NWConnection> upstream_ TW_GUARDED_BY(mutex_);
  // The replay buffer: every agent byte sent upstream while buffering_.
  Bytes early_ TW_GUARDED_BY(mutex_);
  // Once false, never true again.
  bool buffering_ TW_GUARDED_BY(mutex_) = true;
  bool committed_ TW_GUARDED_BY(mutex_) = false;
  // Implies committed_.
  bool failedOver_ TW_GUARDED_BY(mutex_) = false;
  // Once Done, nothing changes any more.
  Phase phase_ TW_GUARDED_BY(mutex_) = Phase::Relaying;
  // Agent bytes read while failing over; unbounded.
  Bytes hold_ TW_GUARDED_BY(mutex_);
  // The current silence or idle watchdog.
  std::shared_ptr<RelayWatchdog> watchdog_ TW_GUARDED_BY(mutex_);
  // The direct connection of a failover in progress, owned here until it becomes upstream_.
  std::shared_ptr<NWConnection> dialing_ TW_GUARDED_BY(mutex_);
};

}  // namespace tarnwick
