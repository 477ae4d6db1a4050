#pragma once
// One watched TCP flow after the front door has acknowledged it: agent bytes go to the front
// door, the front door's bytes back to the agent. Until the front door's first response byte
// (commitment) the session keeps a copy of what the agent sent, up to the replay cap, so that if
// the front door goes silent or drops the connection it can dial the real destination, replay
// those bytes there and splice the agent onto that connection (failover). After commitment it only
// watches for idleness and reports how it ended.
//
// Once the session can no longer fail over (committed, or the replay buffer gave up), and a
// splicer is at hand, its bytes move inside the kernel: when either pump comes back to post its
// next read, the flow's and the upstream's sockets go to the splicer, whose reports keep the
// session's bookkeeping (first response byte, idle watchdog, ends, cuts) as its pumps did.
//
// Each direction's end of stream is passed on as a half-close (the agent's to the upstream, the
// upstream's to the agent), and the session ends once both have ended, or on a reset or error
// (carried to the other side as a reset), or on its watchdog.
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
#include "platform/StreamSplicer.h"
#include "relay/FailOpenReason.h"
#include "relay/RelayEnding.h"
#include "relay/RelayEvent.h"
#include "relay/RelayServices.h"
#include "relay/RelayWatchdog.h"

namespace tarnwick {

// The front door's first bytes after its acknowledgement, read together with it: what the session
// handles before its first receive, exactly as if a receive had delivered it.
struct FirstUpstreamBytes {
  Bytes bytes;
  bool isComplete = false;
  std::optional<NWError> error;

  bool empty() const { return bytes.empty() && !isComplete && !error; }
};

class RelaySession : public std::enable_shared_from_this<RelaySession>, public SpliceObserver {
 public:
  enum class Phase { Relaying, FailingOver, Done };

  // `loopback` has read a good acknowledgement and is started on `queue`; nothing else reads
  // from it. No I/O until start().
  static std::shared_ptr<RelaySession> create(std::shared_ptr<const RelayServices> services,
                                              std::shared_ptr<NEAppProxyTCPFlow> flow,
                                              std::shared_ptr<NWConnection> loopback,
                                              RelayEventFields fields,
                                              std::shared_ptr<DispatchQueue> queue);

  // Once: registers with the provider, arms the silence watchdog and starts both pumps, the
  // upstream one with `first`. With the provider gone there is nobody to keep the session: both
  // legs are closed and nothing is reported.
  void start(FirstUpstreamBytes first = {});
  // Ends the session: watchdog, upstream and any failover dial cancelled, flow closed,
  // "relay.close" sent, the provider's reference released. Idempotent, any thread.
  void finish() { finishWith(RelayEnding::clean()); }

 private:
  // What to do with an agent read, decided under the lock.
  enum class AgentStep { Cut, PassEnd, Wait, Hold, Forward };
  // What to do with an upstream completion, decided under the lock.
  enum class UpstreamStep { Ignore, Deliver, Ended };

  RelaySession(std::shared_ptr<const RelayServices> services,
               std::shared_ptr<NEAppProxyTCPFlow> flow, std::shared_ptr<NWConnection> loopback,
               RelayEventFields fields, std::shared_ptr<DispatchQueue> queue);

  void armPreCommitWatchdog();
  void readAgent();
  void onAgentRead(std::optional<Bytes> data, std::optional<NEError> error);
  AgentStep takeAgentChunkLockHeld(const std::optional<Bytes>& data, bool failed)
      TW_REQUIRES(mutex_);
  void sendUpstream(const std::shared_ptr<NWConnection>& to, Bytes bytes);
  // Passes the agent's end of stream on to `to` as a half-close.
  void passAgentEnd(const std::shared_ptr<NWConnection>& to);
  void onAgentEndPassed(const std::shared_ptr<NWConnection>& to,
                        const std::optional<NWError>& error);
  void readUpstream(const std::shared_ptr<NWConnection>& conn);
  void onUpstream(const std::shared_ptr<NWConnection>& conn, std::optional<Bytes> content,
                  bool isComplete, std::optional<NWError> error);
  UpstreamStep judgeUpstreamLockHeld(const std::shared_ptr<NWConnection>& conn, bool hasBytes,
                                     bool ended, bool& first) TW_REQUIRES(mutex_);
  void deliverToAgent(std::shared_ptr<NWConnection> conn, Bytes bytes, bool isComplete,
                      std::optional<NWError> error);
  // The upstream `conn` ended its stream (no error) or was cut short (an error).
  void onUpstreamEnded(const std::shared_ptr<NWConnection>& conn,
                       const std::optional<NWError>& error);
  void onFirstResponseByte();
  void onIdle();
  void onUpstreamWriteFailed(const std::shared_ptr<NWConnection>& to, const NWError& error);
  void reportSever();
  // Hands both legs to the splicer when the session can no longer fail over and both are idle;
  // true when they went. `conn` is the connection the calling pump works on.
  bool trySplice(const std::shared_ptr<NWConnection>& conn);
  bool canSpliceLockHeld(const std::shared_ptr<NWConnection>& conn) TW_REQUIRES(mutex_);
  // SpliceObserver: the splice's reports, on flowQueue_.
  void spliceMoved(SpliceDirection direction, std::size_t bytes) override;
  void spliceEnded(SpliceDirection direction) override;
  void spliceFailed(SpliceSide side, const NWError& error) override;
  void dropReplayLockHeld() TW_REQUIRES(mutex_);
  void finishWith(const RelayEnding& ending);
  // Events that must reach the daemon before "relay.close" are sent between these two: a finish
  // asked for meanwhile waits for endAnnouncement(), which runs it and answers true.
  void beginAnnouncementLockHeld() TW_REQUIRES(mutex_);
  bool endAnnouncement();

  // Failover to the real destination (RelaySessionFailover.cc). failover() answers whether it
  // started one; when it did not, it has finished the session.
  bool failover(FailOpenReason reason);
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
  // Where agent bytes go: the front door, or the direct connection once a failover completes;
  // empty once spliced.
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
  // The agent ended its stream: the agent pump has stopped, and the end goes (or went) upstream.
  bool agentEnded_ TW_GUARDED_BY(mutex_) = false;
  // The upstream ended its stream, and the end was passed to the agent.
  bool upstreamEnded_ TW_GUARDED_BY(mutex_) = false;
  // An event that must precede "relay.close" is being sent; a finish waits in deferred_.
  bool announcing_ TW_GUARDED_BY(mutex_) = false;
  std::optional<RelayEnding> deferred_ TW_GUARDED_BY(mutex_);
  // What carries the bytes once the legs are spliced.
  std::shared_ptr<StreamSplice> splice_ TW_GUARDED_BY(mutex_);
  // The splicer said these legs can never be spliced.
  bool spliceRefused_ TW_GUARDED_BY(mutex_) = false;
  // How the session ended, for a splice that started while it was ending.
  std::optional<RelayEnding> ending_ TW_GUARDED_BY(mutex_);
};

}  // namespace tarnwick
