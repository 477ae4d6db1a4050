// RelaySession: failover to the real destination when the front door stops cooperating after
// its acknowledgement but before any response byte.

#include <utility>

#include "platform/Log.h"
#include "relay/DestinationEndpoint.h"
#include "relay/RelaySession.h"

namespace tarnwick {

// Eligible only while relaying, uncommitted, never failed over and still buffering; a request
// after the replay buffer overflowed, after commitment or during another failover ends the
// session instead. The front door may not be to blame (the destination may have closed or said
// nothing), so the circuit hears of it through a probe.
bool RelaySession::failover(FailOpenReason reason) {
  Bytes replay;
  std::shared_ptr<NWConnection> frontDoor;
  std::shared_ptr<RelayWatchdog> watchdog;
  bool eligible;
  {
    MutexLock lock(mutex_);
    eligible = phase_ == Phase::Relaying && !committed_ && !failedOver_ && buffering_;
    if (eligible) {
      phase_ = Phase::FailingOver;
      // Nothing appends to the replay buffer while failing over (agent bytes go to hold_), and
      // going live empties it, so it can be moved rather than copied.
      replay = std::exchange(early_, Bytes());
      frontDoor = upstream_;
      watchdog = std::exchange(watchdog_, nullptr);
      beginAnnouncementLockHeld();
    }
  }
  if (!eligible) {
    finish();
    return false;
  }
  if (watchdog) watchdog->cancel();
  frontDoor->cancel();
  services_->probe->judge(FrontDoorVerdict::Suspect);
  sendFailOpenEvent(services_->context, reason, fields_);
  if (!endAnnouncement()) dialDestination(std::move(replay));
  return true;
}

void RelaySession::dialDestination(Bytes replay) {
  auto endpoint = destinationEndpoint(fields_.target);
  if (!endpoint) {
    proxyLog().error("RelaySession.failover: invalid target port %{public}s — closing",
                     fields_.target.port);
    finish();
    return;
  }
  auto conn = services_->connections->makeConnection(*endpoint, NWParameters::tcp());
  bool ended;
  {
    MutexLock lock(mutex_);
    ended = phase_ == Phase::Done;
    if (!ended) dialing_ = conn;
  }
  // A session that ended since the failover began dials nothing.
  if (ended) return conn->cancel();
  // Stays installed for the life of the connection: a later waiting or failed state of the
  // spliced connection ends the session too.
  conn->setStateUpdateHandler([weak = weak_from_this(), from = std::weak_ptr<NWConnection>(conn),
                               replay = std::make_shared<Bytes>(std::move(replay))](
                                  const NWConnectionState& state) {
    using Kind = NWConnectionState::Kind;
    if (state.kind != Kind::Ready && state.kind != Kind::Waiting && state.kind != Kind::Failed) {
      return;
    }
    auto connection = from.lock();
    if (!connection) return;
    auto self = weak.lock();
    if (!self) {
      // Nobody is left to use it.
      connection->cancel();
      return;
    }
    Bytes bytes = state.kind == Kind::Ready ? std::exchange(*replay, Bytes()) : Bytes();
    self->onDirectState(connection, state, std::move(bytes));
  });
  conn->start(flowQueue_);
}

// Waiting counts as failure at once: the direct dial is not left to wait for the network.
void RelaySession::onDirectState(const std::shared_ptr<NWConnection>& conn,
                                 const NWConnectionState& state, Bytes replay) {
  if (state.kind == NWConnectionState::Kind::Ready) {
    completeFailover(conn, std::move(replay));
    return;
  }
  proxyLog().error(
      "RelaySession.failover: direct dial to %{public}s:%{public}s unreachable — closing",
      fields_.target.host, fields_.target.port);
  conn->cancel();
  // As with the direct leg, the agent learns of the unreachable destination by a reset.
  finishWith(
      RelayEnding::upstreamCut(state.error ? state.error->localizedDescription : "unreachable"));
}

// Byte order on the direct connection: the replay, then what the agent sent during the dial, then
// new bytes, which the agent pump sends straight upstream once the session is live again, or the
// agent's end of stream if it came meanwhile.
void RelaySession::completeFailover(std::shared_ptr<NWConnection> conn, Bytes replay) {
  sendThen(conn, std::move(replay), [conn](RelaySession& self) { self.drainHoldThenGoLive(conn); });
}

void RelaySession::sendThen(std::shared_ptr<NWConnection> conn, Bytes bytes,
                            std::function<void(RelaySession&)> next) {
  if (bytes.empty()) {
    next(*this);
    return;
  }
  conn->send(std::move(bytes), true,
             [weak = weak_from_this(), conn, next = std::move(next)](std::optional<NWError> e) {
               auto self = weak.lock();
               if (!self) return;
               // The failover's dial is still in dialing_, which finishing cancels.
               if (e) return self->finishWith(RelayEnding::upstreamCut(e->localizedDescription));
               next(*self);
             });
}

void RelaySession::drainHoldThenGoLive(const std::shared_ptr<NWConnection>& conn) {
  enum class Step { Cancel, Drain, Live } step;
  Bytes held;
  bool passEnd = false;
  {
    MutexLock lock(mutex_);
    if (phase_ == Phase::Done) {
      step = Step::Cancel;
    } else if (!hold_.empty()) {
      // Bytes the agent pump appends while this send runs are picked up by the next pass.
      held = std::exchange(hold_, Bytes());
      step = Step::Drain;
    } else {
      upstream_ = conn;
      dropReplayLockHeld();
      failedOver_ = true;
      committed_ = true;
      phase_ = Phase::Relaying;
      dialing_.reset();
      passEnd = agentEnded_;
      beginAnnouncementLockHeld();
      step = Step::Live;
    }
  }
  switch (step) {
    case Step::Cancel:
      conn->cancel();
      return;
    case Step::Drain:
      sendThen(conn, std::move(held),
               [conn](RelaySession& self) { self.drainHoldThenGoLive(conn); });
      return;
    case Step::Live:
      readUpstream(conn);
      // The agent's end, read during the failover, follows the replay and the held bytes.
      if (passEnd) passAgentEnd(conn);
      sendFailOpenEvent(services_->context, FailOpenReason::PassthroughDialSpliced, fields_);
      endAnnouncement();
      return;
  }
}

}  // namespace tarnwick
