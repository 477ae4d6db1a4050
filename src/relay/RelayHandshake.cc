#include "relay/RelayHandshake.h"

#include <utility>

#include "platform/Log.h"
#include "relay/AckReader.h"
#include "relay/DirectLeg.h"
#include "relay/FrontDoorPreamble.h"
#include "relay/RelayDialPolicy.h"
#include "relay/RelaySession.h"

namespace tarnwick {
namespace {

// A flow gets at most one redial.
constexpr std::int64_t kFirstAttemptRedials = 1;

std::string describe(const std::optional<NWError>& error) {
  return error ? error->localizedDescription : std::string();
}

}  // namespace

void RelayHandshake::start(std::shared_ptr<const RelayServices> services, NWEndpoint frontDoor,
                           std::shared_ptr<DispatchQueue> queue,
                           std::shared_ptr<NEAppProxyTCPFlow> flow, RelayEventFields fields,
                           std::string trace) {
  std::shared_ptr<RelayHandshake> handshake(
      new RelayHandshake(std::move(services), std::move(frontDoor), std::move(queue),
                         std::move(flow), std::move(fields), std::move(trace)));
  handshake->dialOnce(kFirstAttemptRedials);
  handshake->armBudget();
}

RelayHandshake::RelayHandshake(std::shared_ptr<const RelayServices> services, NWEndpoint frontDoor,
                               std::shared_ptr<DispatchQueue> queue,
                               std::shared_ptr<NEAppProxyTCPFlow> flow, RelayEventFields fields,
                               std::string trace)
    : services_(std::move(services)),
      frontDoor_(std::move(frontDoor)),
      queue_(std::move(queue)),
      fields_(std::move(fields)),
      trace_(std::move(trace)),
      flow_(std::move(flow)) {}

// Never cancelled: once the gate is settled its firing does nothing. Armed once the first dial
// has started, so time the flow spent waiting for a busy host before that is not charged to the
// front door; a redial does not restart it.
void RelayHandshake::armBudget() {
  const Seconds budget = services_->timing.handshakeTimeout;
  queue_->asyncAfter(toDuration(budget), [self = shared_from_this(), budget] {
    if (!self->gate_.pending()) return;
    proxyLog().error(
        "relay: front-door handshake exceeded %fs — failing OPEN (direct, uninspected)",
        budget.count());
    // A front door that waits on a blackholed destination looks the same as one that hangs.
    self->failOpen(FailOpenReason::HandshakeTimeout, FrontDoorVerdict::Suspect);
  });
}

void RelayHandshake::dialOnce(std::int64_t attemptsLeft) {
  auto attempt = services_->connections->makeConnection(frontDoor_, NWParameters::tcp());
  {
    MutexLock lock(mutex_);
    current_ = attempt;
  }
  attempt->setStateUpdateHandler([weak = weak_from_this(),
                                  weakAttempt = std::weak_ptr<NWConnection>(attempt),
                                  attemptsLeft](const NWConnectionState& state) {
    using Kind = NWConnectionState::Kind;
    if (state.kind != Kind::Waiting && state.kind != Kind::Failed) return;
    auto self = weak.lock();
    auto conn = weakAttempt.lock();
    if (!self || !conn) return;
    self->onSetupFailure(conn, attemptsLeft, state.kind == Kind::Waiting ? "waiting" : "failed",
                         describe(state.error));
  });
  attempt->start(queue_);
  // Sent before the connection is ready; the connection holds it until then or drops it.
  attempt->send(makePreamble(fields_.target, fields_.pid, fields_.signingID, trace_), true,
                [self = shared_from_this(), attempt](std::optional<NWError> error) {
                  self->onPreambleSent(attempt, error);
                });
}

void RelayHandshake::onSetupFailure(const std::shared_ptr<NWConnection>& attempt,
                                    std::int64_t attemptsLeft, const char* word,
                                    const std::string& detail) {
  if (!gate_.pending()) return;
  const auto decision =
      RelayDialPolicy::decide(RelayDialPolicy::FailurePhase::ConnectionSetup, attemptsLeft);
  if (decision.isRedial()) {
    proxyLog().error(
        "relay: loopback front-door %{public}s (%{public}s) — RE-DIALING once (daemon may be "
        "mid-restart)",
        word, detail);
    attempt->cancel();
    dialOnce(decision.remaining());
    return;
  }
  proxyLog().error("relay: loopback front-door %{public}s (%{public}s) on re-dial — failing OPEN",
                   word, detail);
  failOpen(std::string_view(word) == "waiting" ? FailOpenReason::RelayWaiting
                                               : FailOpenReason::RelayFailed,
           FrontDoorVerdict::Failed);
}

void RelayHandshake::onPreambleSent(const std::shared_ptr<NWConnection>& attempt,
                                    const std::optional<NWError>& error) {
  if (error) {
    // Logged even when the relay is already settled; the fail-open then does nothing.
    proxyLog().error("relay: preamble send failed: %{public}s — failing open",
                     error->localizedDescription);
    failOpen(FailOpenReason::PreambleSendFailed, FrontDoorVerdict::Failed);
    return;
  }
  if (services_->context.expired()) return;
  readAck(attempt, [self = shared_from_this(), attempt](AckOutcome outcome) {
    self->onAck(attempt, std::move(outcome));
  });
}

// A reply with a well-formed status line proves the front door alive, whatever it declined; a
// reply that is not HTTP, or a connection cut before the head, is the front door failing.
void RelayHandshake::onAck(const std::shared_ptr<NWConnection>& attempt, AckOutcome outcome) {
  if (outcome.kind != AckOutcome::Kind::Good) {
    proxyLog().error("relay: front-door ack not received — failing open");
    failOpen(FailOpenReason::NoAck, outcome.kind == AckOutcome::Kind::Rejected
                                        ? FrontDoorVerdict::Alive
                                        : FrontDoorVerdict::Failed);
    return;
  }
  // The timer or another failure got there first and has taken care of the flow.
  if (!gate_.claim()) return;
  attempt->setStateUpdateHandler(nullptr);
  // The bytes that shared a read with the head are the destination's first: the session takes
  // them as its first response, exactly as if a later read had brought them.
  RelaySession::create(services_, letGo().flow, attempt, fields_, queue_)
      ->start({std::move(outcome.leftover), outcome.isComplete, std::move(outcome.error)});
}

// Only the first failure settles the relay and reaches the circuit. With the provider gone there
// is nobody to dial for: the flow is closed rather than left waiting.
void RelayHandshake::failOpen(FailOpenReason reason, FrontDoorVerdict verdict) {
  if (!gate_.claim()) return;
  const Held held = letGo();
  if (held.connection) held.connection->cancel();
  if (services_->context.expired()) {
    DirectLeg::closeFlow(*held.flow);
    return;
  }
  services_->probe->judge(verdict);
  DirectLeg::dial(services_, held.flow, fields_, reason, queue_);
}

RelayHandshake::Held RelayHandshake::letGo() {
  MutexLock lock(mutex_);
  return {std::exchange(flow_, nullptr), std::exchange(current_, nullptr)};
}

}  // namespace tarnwick
