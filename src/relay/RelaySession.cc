#include "relay/RelaySession.h"

#include <utility>

#include "relay/DirectLeg.h"

namespace tarnwick {
namespace {

constexpr std::size_t kReceiveMinimum = 1;
constexpr std::size_t kReceiveMaximum = 65536;

}  // namespace

std::shared_ptr<RelaySession> RelaySession::create(std::shared_ptr<const RelayServices> services,
                                                   std::shared_ptr<NEAppProxyTCPFlow> flow,
                                                   std::shared_ptr<NWConnection> loopback,
                                                   RelayEventFields fields,
                                                   std::shared_ptr<DispatchQueue> queue) {
  return std::shared_ptr<RelaySession>(new RelaySession(std::move(services), std::move(flow),
                                                        std::move(loopback), std::move(fields),
                                                        std::move(queue)));
}

RelaySession::RelaySession(std::shared_ptr<const RelayServices> services,
                           std::shared_ptr<NEAppProxyTCPFlow> flow,
                           std::shared_ptr<NWConnection> loopback, RelayEventFields fields,
                           std::shared_ptr<DispatchQueue> queue)
    : services_(std::move(services)),
      flow_(std::move(flow)),
      flowQueue_(std::move(queue)),
      fields_(std::move(fields)),
      upstream_(std::move(loopback)) {}

void RelaySession::start(FirstUpstreamBytes first) {
  std::shared_ptr<NWConnection> loopback;
  {
    MutexLock lock(mutex_);
    loopback = upstream_;
  }
  {
    auto provider = services_->context.lock();
    if (!provider) {
      closeLegs(RelayEnding::clean(), *flow_, *loopback, fields_.target);
      return;
    }
    provider->retainSession(shared_from_this());
  }
  armPreCommitWatchdog();
  readAgent();
  if (first.empty()) {
    readUpstream(loopback);
  } else {
    onUpstream(loopback, std::move(first.bytes), first.isComplete, std::move(first.error));
  }
}

// Nothing else kicks this watchdog: agent bytes kick only after commitment and the first response
// byte replaces it, so the front door has the whole silence allowance from start() to answer.
void RelaySession::armPreCommitWatchdog() {
  auto silence = RelayWatchdog::create(flowQueue_, services_->timing.preCommitSilence,
                                       [weak = weak_from_this()] {
                                         if (auto self = weak.lock()) {
                                           self->failover(FailOpenReason::AckThenSilence);
                                         }
                                       });
  {
    MutexLock lock(mutex_);
    watchdog_ = silence;
  }
  silence->kick();
}

// A session that has ended reads no more: its flow's read side is closed.
void RelaySession::readAgent() {
  {
    MutexLock lock(mutex_);
    if (phase_ == Phase::Done) return;
  }
  flow_->readData(
      [weak = weak_from_this()](std::optional<Bytes> data, std::optional<NEError> error) {
        if (auto self = weak.lock()) self->onAgentRead(std::move(data), std::move(error));
      });
}

void RelaySession::onAgentRead(std::optional<Bytes> data, std::optional<NEError> error) {
  AgentStep step;
  std::shared_ptr<NWConnection> upstream;
  std::shared_ptr<RelayWatchdog> idle;
  {
    MutexLock lock(mutex_);
    // A read the splice took over is not the session's any more.
    if (phase_ == Phase::Done || splice_) return;
    step = takeAgentChunkLockHeld(data, error.has_value());
    upstream = upstream_;
    if (committed_) idle = watchdog_;
  }
  switch (step) {
    case AgentStep::Cut:
      return finishWith(RelayEnding::agentCut(error->localizedDescription));
    case AgentStep::PassEnd:
      return passAgentEnd(upstream);
    case AgentStep::Wait:
      return;
    case AgentStep::Hold:
      return readAgent();
    case AgentStep::Forward:
      if (idle) idle->kick();
      return sendUpstream(upstream, std::move(*data));
  }
}

// An end of stream read during a failover waits for the direct connection to go live, which
// passes it on after the replay and the held bytes.
RelaySession::AgentStep RelaySession::takeAgentChunkLockHeld(const std::optional<Bytes>& data,
                                                             bool failed) {
  if (failed) return AgentStep::Cut;
  if (!data || data->empty()) {
    agentEnded_ = true;
    return phase_ == Phase::FailingOver ? AgentStep::Wait : AgentStep::PassEnd;
  }
  if (phase_ == Phase::FailingOver) {
    hold_.insert(hold_.end(), data->begin(), data->end());
    return AgentStep::Hold;
  }
  if (buffering_) {
    early_.insert(early_.end(), data->begin(), data->end());
    // Past the cap this session can no longer fail over.
    if (static_cast<std::int64_t>(early_.size()) > services_->timing.replayCap) {
      dropReplayLockHeld();
    }
  }
  return AgentStep::Forward;
}

void RelaySession::sendUpstream(const std::shared_ptr<NWConnection>& to, Bytes bytes) {
  to->send(std::move(bytes), true,
           [weak = weak_from_this(),
            to = std::weak_ptr<NWConnection>(to)](std::optional<NWError> error) {
             auto self = weak.lock();
             if (!self) return;
             auto sentTo = to.lock();
             if (error) {
               self->onUpstreamWriteFailed(sentTo, *error);
             } else if (!sentTo || !self->trySplice(sentTo)) {
               self->readAgent();
             }
           });
}

void RelaySession::passAgentEnd(const std::shared_ptr<NWConnection>& to) {
  to->send(std::nullopt, true,
           [weak = weak_from_this(),
            to = std::weak_ptr<NWConnection>(to)](std::optional<NWError> error) {
             if (auto self = weak.lock()) self->onAgentEndPassed(to.lock(), error);
           });
}

void RelaySession::onAgentEndPassed(const std::shared_ptr<NWConnection>& to,
                                    const std::optional<NWError>& error) {
  if (error) return onUpstreamWriteFailed(to, *error);
  bool bothEnded;
  {
    MutexLock lock(mutex_);
    bothEnded = upstreamEnded_ && phase_ == Phase::Relaying && to == upstream_;
  }
  if (bothEnded) finish();
}

void RelaySession::readUpstream(const std::shared_ptr<NWConnection>& conn) {
  conn->receive(kReceiveMinimum, kReceiveMaximum,
                [weak = weak_from_this(), from = std::weak_ptr<NWConnection>(conn)](
                    std::optional<Bytes> content, bool isComplete, std::optional<NWError> error) {
                  auto self = weak.lock();
                  auto source = from.lock();
                  if (self && source) {
                    self->onUpstream(source, std::move(content), isComplete, std::move(error));
                  }
                });
}

void RelaySession::onUpstream(const std::shared_ptr<NWConnection>& conn,
                              std::optional<Bytes> content, bool isComplete,
                              std::optional<NWError> error) {
  bool first = false;
  UpstreamStep step;
  std::shared_ptr<RelayWatchdog> idle;
  {
    MutexLock lock(mutex_);
    step = judgeUpstreamLockHeld(conn, content && !content->empty(), isComplete || error, first);
    idle = watchdog_;
  }
  switch (step) {
    case UpstreamStep::Ignore:
      return;
    case UpstreamStep::Deliver:
      if (first) {
        onFirstResponseByte();
      } else if (idle) {
        idle->kick();
      }
      return deliverToAgent(conn, std::move(*content), isComplete, std::move(error));
    case UpstreamStep::Ended:
      return onUpstreamEnded(conn, error);
  }
}

// A completion from a connection that a failover has replaced is ignored, as is one that brings
// neither bytes nor an end (no further receive is posted on that connection).
RelaySession::UpstreamStep RelaySession::judgeUpstreamLockHeld(
    const std::shared_ptr<NWConnection>& conn, bool hasBytes, bool ended, bool& first) {
  if (phase_ != Phase::Relaying || conn != upstream_) return UpstreamStep::Ignore;
  if (hasBytes) {
    first = !committed_;
    if (first) {
      committed_ = true;
      dropReplayLockHeld();
    }
    return UpstreamStep::Deliver;
  }
  return ended ? UpstreamStep::Ended : UpstreamStep::Ignore;
}

// Bytes that came with the end are written to the agent before the end is passed on.
void RelaySession::deliverToAgent(std::shared_ptr<NWConnection> conn, Bytes bytes, bool isComplete,
                                  std::optional<NWError> error) {
  flow_->write(std::move(bytes), [weak = weak_from_this(), conn = std::move(conn), isComplete,
                                  error = std::move(error)](std::optional<NEError> e) {
    auto self = weak.lock();
    if (!self) return;
    if (e) {
      self->finishWith(RelayEnding::agentCut(e->localizedDescription));
    } else if (isComplete || error) {
      self->onUpstreamEnded(conn, error);
    } else if (!self->trySplice(conn)) {
      self->readUpstream(conn);
    }
  });
}

// Before the first response byte the front door may be failing: a failover replays the agent's
// bytes to the destination. Not so for an end that follows the agent's own: the front door passed
// that on, and a destination that reads a request to its end and closes without a word is
// answering; replaying the request would make it a second one. After the first response byte, a
// reset is carried to the agent and an end of stream is passed on as a half-close.
void RelaySession::onUpstreamEnded(const std::shared_ptr<NWConnection>& conn,
                                   const std::optional<NWError>& error) {
  enum class Next { Ignore, Failover, GiveUp, Cut, PassEnd, Finish } next;
  bool sever = false;
  {
    MutexLock lock(mutex_);
    if (phase_ != Phase::Relaying || conn != upstream_) {
      next = Next::Ignore;
    } else if (!committed_ && !error && agentEnded_) {
      next = Next::Finish;
    } else if (!committed_) {
      next = !failedOver_ && buffering_ ? Next::Failover : error ? Next::Cut : Next::GiveUp;
    } else {
      // The upstream's end after the agent's own concludes the conversation; before it, or as
      // a reset, it cuts the relay.
      sever = !failedOver_ && (error || !agentEnded_);
      upstreamEnded_ = !error;
      next = error ? Next::Cut : agentEnded_ ? Next::Finish : Next::PassEnd;
    }
  }
  // A committed relay severed while the daemon is away is counted for its next connection.
  if (sever) reportSever();
  switch (next) {
    case Next::Ignore:
      return;
    case Next::Failover:
      failover(FailOpenReason::PassthroughDial);
      return;
    case Next::GiveUp:
    case Next::Finish:
      return finish();
    case Next::Cut:
      return finishWith(RelayEnding::upstreamCut(error->localizedDescription));
    case Next::PassEnd:
      flow_->closeWriteWithError(std::nullopt);
      return;
  }
}

// The front door has proved healthy; from now on only idleness in both directions ends the
// session early.
void RelaySession::onFirstResponseByte() {
  services_->probe->judge(FrontDoorVerdict::Alive);
  auto idle = RelayWatchdog::create(flowQueue_, services_->timing.postCommitIdle,
                                    [weak = weak_from_this()] {
                                      if (auto self = weak.lock()) self->onIdle();
                                    });
  std::shared_ptr<RelayWatchdog> silence;
  {
    MutexLock lock(mutex_);
    // A session that finished meanwhile keeps no watchdog.
    if (phase_ == Phase::Done) return;
    silence = std::exchange(watchdog_, idle);
  }
  if (silence) silence->cancel();
  idle->kick();
}

void RelaySession::onIdle() {
  {
    MutexLock lock(mutex_);
    if (phase_ == Phase::Done) return;
    beginAnnouncementLockHeld();
  }
  sendRelayEvent(services_->context, "relay.midstream_idle", fields_);
  if (!endAnnouncement()) finish();
}

// The send may have gone to a front door that a failover has cancelled since: the agent pump
// read those bytes before the failover took the replay copy, so they are in it. Such a failure
// says nothing about the connection now upstream, which may already be the spliced destination.
void RelaySession::onUpstreamWriteFailed(const std::shared_ptr<NWConnection>& to,
                                         const NWError& error) {
  enum class Next { Wait, KeepReading, Failover, Cut } next;
  bool sever = false, keepReading;
  {
    MutexLock lock(mutex_);
    if (phase_ == Phase::Done) return;
    keepReading = !agentEnded_;
    if (phase_ == Phase::FailingOver || to != upstream_) {
      next = keepReading ? Next::KeepReading : Next::Wait;
    } else if (!committed_) {
      next = Next::Failover;
    } else {
      sever = !failedOver_;
      next = Next::Cut;
    }
  }
  if (sever) reportSever();
  switch (next) {
    case Next::Wait:
      return;
    case Next::KeepReading:
      return readAgent();
    case Next::Failover:
      // The failed send was the agent pump's outstanding operation; its bytes are in the replay
      // copy. Keep reading, or the agent's later bytes and its end would never be seen.
      if (failover(FailOpenReason::RelayWriteFailed) && keepReading) readAgent();
      return;
    case Next::Cut:
      return finishWith(RelayEnding::upstreamCut(error.localizedDescription));
  }
}

void RelaySession::reportSever() {
  if (auto provider = services_->context.lock()) provider->recordCommittedSeverIfUnhealthy();
}

bool RelaySession::trySplice(const std::shared_ptr<NWConnection>& conn) {
  if (!services_->splicer) return false;
  {
    MutexLock lock(mutex_);
    if (!canSpliceLockHeld(conn)) return false;
  }
  StreamSplicer::Started started = services_->splicer->splice(
      *flow_, *conn, flowQueue_, std::weak_ptr<SpliceObserver>(shared_from_this()));
  std::optional<RelayEnding> endedMeanwhile;
  {
    MutexLock lock(mutex_);
    if (!started.splice) {
      spliceRefused_ = started.refusal == StreamSplicer::Refusal::Never;
      return false;
    }
    if (phase_ == Phase::Done) {
      endedMeanwhile = ending_;
    } else {
      splice_ = started.splice;
      // The connection has given its socket up: nothing of it is needed any more.
      upstream_.reset();
    }
  }
  // The session ended while the legs were being handed over: their sockets close as it said.
  if (endedMeanwhile) closeSplicedLegs(*endedMeanwhile, *flow_, *started.splice, fields_.target);
  return true;
}

// Only while the replay copy can no longer be used, and never across an end of stream: a
// direction that has ended has nothing left for a splice to carry.
bool RelaySession::canSpliceLockHeld(const std::shared_ptr<NWConnection>& conn) {
  return phase_ == Phase::Relaying && conn == upstream_ && !splice_ && !spliceRefused_ &&
         (committed_ || !buffering_) && !agentEnded_ && !upstreamEnded_;
}

// The first bytes from upstream commit a session spliced before its commitment; afterwards every
// report of traffic either way keeps the idle watchdog from firing.
void RelaySession::spliceMoved(SpliceDirection direction, std::size_t bytes) {
  bool first = false;
  std::shared_ptr<RelayWatchdog> idle;
  {
    MutexLock lock(mutex_);
    if (phase_ != Phase::Relaying || bytes == 0) return;
    if (direction == SpliceDirection::UpstreamToAgent && !committed_) {
      committed_ = true;
      first = true;
    } else if (committed_) {
      idle = watchdog_;
    }
  }
  if (first) {
    onFirstResponseByte();
  } else if (idle) {
    idle->kick();
  }
}

// The splice has passed the end on as a half-close; what is left is the session's bookkeeping.
// Its upstream is no connection of the session's any more (upstream_ is empty).
void RelaySession::spliceEnded(SpliceDirection direction) {
  if (direction == SpliceDirection::UpstreamToAgent) return onUpstreamEnded(nullptr, std::nullopt);
  bool bothEnded;
  {
    MutexLock lock(mutex_);
    if (phase_ != Phase::Relaying) return;
    agentEnded_ = true;
    bothEnded = upstreamEnded_;
  }
  if (bothEnded) finish();
}

void RelaySession::spliceFailed(SpliceSide side, const NWError& error) {
  if (side == SpliceSide::Agent)
    return finishWith(RelayEnding::agentCut(error.localizedDescription));
  onUpstreamEnded(nullptr, error);
}

void RelaySession::dropReplayLockHeld() {
  buffering_ = false;
  Bytes().swap(early_);
}

void RelaySession::beginAnnouncementLockHeld() { announcing_ = true; }

bool RelaySession::endAnnouncement() {
  std::optional<RelayEnding> deferred;
  {
    MutexLock lock(mutex_);
    announcing_ = false;
    deferred = std::exchange(deferred_, std::nullopt);
  }
  if (deferred) finishWith(*deferred);
  return deferred.has_value();
}

void RelaySession::finishWith(const RelayEnding& ending) {
  std::shared_ptr<NWConnection> upstream, dialing;
  std::shared_ptr<RelayWatchdog> watchdog;
  std::shared_ptr<StreamSplice> splice;
  {
    MutexLock lock(mutex_);
    if (phase_ == Phase::Done) return;
    if (announcing_) {
      // The first reason to end stands.
      if (!deferred_) deferred_ = ending;
      return;
    }
    phase_ = Phase::Done;
    ending_ = ending;
    upstream = upstream_;
    dialing = std::exchange(dialing_, nullptr);
    watchdog = std::exchange(watchdog_, nullptr);
    splice = std::exchange(splice_, nullptr);
  }
  if (watchdog) watchdog->cancel();
  if (dialing) dialing->cancel();
  if (splice) {
    closeSplicedLegs(ending, *flow_, *splice, fields_.target);
  } else {
    closeLegs(ending, *flow_, *upstream, fields_.target);
  }
  sendRelayEvent(services_->context, "relay.close", fields_);
  if (auto provider = services_->context.lock()) provider->releaseSession(this);
}

}  // namespace tarnwick
