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

void RelaySession::start() {
  if (auto provider = services_->context.lock()) provider->retainSession(shared_from_this());
  armPreCommitWatchdog();
  readAgent();
  std::shared_ptr<NWConnection> loopback;
  {
    MutexLock lock(mutex_);
    loopback = upstream_;
  }
  readUpstream(loopback);
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

void RelaySession::readAgent() {
  flow_->readData(
      [weak = weak_from_this()](std::optional<Bytes> data, std::optional<NEError> error) {
        if (auto self = weak.lock()) self->onAgentRead(std::move(data), error.has_value());
      });
}

void RelaySession::onAgentRead(std::optional<Bytes> data, bool failed) {
  AgentStep step;
  std::shared_ptr<NWConnection> upstream;
  std::shared_ptr<RelayWatchdog> idle;
  {
    MutexLock lock(mutex_);
    if (phase_ == Phase::Done) return;
    step = takeAgentChunkLockHeld(data, failed);
    upstream = upstream_;
    if (committed_) idle = watchdog_;
  }
  switch (step) {
    case AgentStep::Finish:
      // The agent's end of stream ends the whole session: there is no half-close.
      finish();
      return;
    case AgentStep::Hold:
      readAgent();
      return;
    case AgentStep::Forward:
      break;
  }
  if (idle) idle->kick();
  upstream->send(std::move(*data), true,
                 [weak = weak_from_this(),
                  to = std::weak_ptr<NWConnection>(upstream)](std::optional<NWError> e) {
                   auto self = weak.lock();
                   if (!self) return;
                   if (e) {
                     self->onUpstreamWriteFailed(to.lock());
                   } else {
                     self->readAgent();
                   }
                 });
}

RelaySession::AgentStep RelaySession::takeAgentChunkLockHeld(const std::optional<Bytes>& data,
                                                             bool failed) {
  if (failed || !data || data->empty()) return AgentStep::Finish;
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

void RelaySession::readUpstream(const std::shared_ptr<NWConnection>& conn) {
  conn->receive(kReceiveMinimum, kReceiveMaximum,
                [weak = weak_from_this(), from = std::weak_ptr<NWConnection>(conn)](
                    std::optional<Bytes> content, bool isComplete, std::optional<NWError> error) {
                  if (auto self = weak.lock()) {
                    self->onUpstream(from, std::move(content), isComplete || error.has_value());
                  }
                });
}

void RelaySession::onUpstream(const std::weak_ptr<NWConnection>& from, std::optional<Bytes> content,
                              bool ended) {
  auto conn = from.lock();
  bool first = false;
  UpstreamStep step;
  std::shared_ptr<RelayWatchdog> idle;
  {
    MutexLock lock(mutex_);
    step = judgeUpstreamLockHeld(conn, content && !content->empty(), ended, first);
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
      deliverToAgent(std::move(conn), std::move(*content), ended);
      return;
    case UpstreamStep::Failover:
      failover(FailOpenReason::PassthroughDial);
      return;
    case UpstreamStep::Sever:
      reportSever();
      finish();
      return;
    case UpstreamStep::Close:
      finish();
      return;
  }
}

// A completion from a connection that a failover has replaced is ignored, as is one that brings
// neither bytes nor an end (no further receive is posted on that connection).
RelaySession::UpstreamStep RelaySession::judgeUpstreamLockHeld(
    const std::shared_ptr<NWConnection>& conn, bool hasBytes, bool ended, bool& first) {
  if (phase_ != Phase::Relaying || !conn || conn != upstream_) return UpstreamStep::Ignore;
  if (hasBytes) {
    first = !committed_;
    if (first) {
      committed_ = true;
      dropReplayLockHeld();
    }
    return UpstreamStep::Deliver;
  }
  if (!ended) return UpstreamStep::Ignore;
  if (!committed_ && !failedOver_ && buffering_) return UpstreamStep::Failover;
  if (committed_ && !failedOver_) return UpstreamStep::Sever;
  return UpstreamStep::Close;
}

// Bytes that came with the end are written to the agent before the session finishes.
void RelaySession::deliverToAgent(std::shared_ptr<NWConnection> conn, Bytes bytes, bool ended) {
  flow_->write(std::move(bytes),
               [weak = weak_from_this(), conn = std::move(conn), ended](std::optional<NEError> e) {
                 auto self = weak.lock();
                 if (!self) return;
                 if (e || ended) {
                   self->finish();
                 } else {
                   self->readUpstream(conn);
                 }
               });
}

// The front door has proved healthy; from now on only idleness in both directions ends the
// session early.
void RelaySession::onFirstResponseByte() {
  if (auto provider = services_->context.lock()) provider->circuitRecordSuccess();
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
  sendRelayEvent(services_->context, "relay.midstream_idle", fields_);
  finish();
}

// The send may have gone to a front door that a failover has cancelled since: the agent pump
// read those bytes before the failover took the replay copy, so they are in it. Such a failure
// says nothing about the connection now upstream, which may already be the spliced destination.
void RelaySession::onUpstreamWriteFailed(const std::shared_ptr<NWConnection>& to) {
  enum class Next { KeepReading, Failover, Sever, Close } next;
  {
    MutexLock lock(mutex_);
    if (phase_ == Phase::Done) return;
    if (phase_ == Phase::FailingOver || to != upstream_) {
      next = Next::KeepReading;
    } else if (!committed_) {
      next = Next::Failover;
    } else {
      next = failedOver_ ? Next::Close : Next::Sever;
    }
  }
  switch (next) {
    case Next::KeepReading:
      readAgent();
      return;
    case Next::Failover:
      failover(FailOpenReason::RelayWriteFailed);
      // The failed send was the agent pump's outstanding operation; its bytes are in the replay
      // copy. Keep reading, or the agent's later bytes and its end would never be seen.
      readAgent();
      return;
    case Next::Sever:
      reportSever();
      finish();
      return;
    case Next::Close:
      finish();
      return;
  }
}

// A committed relay severed while the daemon is away is counted for its next connection.
void RelaySession::reportSever() {
  if (auto provider = services_->context.lock()) provider->recordCommittedSeverIfUnhealthy();
}

void RelaySession::dropReplayLockHeld() {
  buffering_ = false;
  Bytes().swap(early_);
}

void RelaySession::finish() {
  std::shared_ptr<NWConnection> upstream;
  std::shared_ptr<RelayWatchdog> watchdog;
  {
    MutexLock lock(mutex_);
    if (phase_ == Phase::Done) return;
    phase_ = Phase::Done;
    upstream = upstream_;
    watchdog = std::exchange(watchdog_, nullptr);
  }
  if (watchdog) watchdog->cancel();
  upstream->cancel();
  DirectLeg::closeFlow(*flow_);
  sendRelayEvent(services_->context, "relay.close", fields_);
  if (auto provider = services_->context.lock()) provider->releaseSession(this);
}

}  // namespace tarnwick
