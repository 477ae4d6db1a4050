#include "relay/FrontDoorProbe.h"

#include <utility>

#include "platform/Log.h"
#include "relay/AckReader.h"
#include "relay/FrontDoorPreamble.h"

namespace tarnwick {

std::shared_ptr<FrontDoorProbe> FrontDoorProbe::create(
    std::shared_ptr<Runtime> runtime, std::shared_ptr<NWConnectionFactory> connections,
    std::weak_ptr<RelayContext> context, Seconds budget) {
  return std::shared_ptr<FrontDoorProbe>(
      new FrontDoorProbe(std::move(runtime), std::move(connections), std::move(context), budget));
}

FrontDoorProbe::FrontDoorProbe(std::shared_ptr<Runtime> runtime,
                               std::shared_ptr<NWConnectionFactory> connections,
                               std::weak_ptr<RelayContext> context, Seconds budget)
    : runtime_(std::move(runtime)),
      connections_(std::move(connections)),
      context_(std::move(context)),
      budget_(budget),
      queue_(runtime_->makeQueue(kQueueLabel, QualityOfService::UserInitiated)) {}

FrontDoorProbe::~FrontDoorProbe() {
  std::shared_ptr<NWConnection> attempt;
  {
    MutexLock lock(mutex_);
    attempt = std::exchange(attempt_, nullptr);
  }
  if (attempt) attempt->cancel();
}

void FrontDoorProbe::setFrontDoor(std::string host, std::uint16_t port) {
  MutexLock lock(mutex_);
  host_ = std::move(host);
  port_ = port;
}

void FrontDoorProbe::judge(FrontDoorVerdict verdict) {
  switch (verdict) {
    case FrontDoorVerdict::Failed:
      return record(false);
    case FrontDoorVerdict::Alive:
      return record(true);
    case FrontDoorVerdict::Suspect:
      return probe();
  }
}

// A success is recorded for a front door that answered, not merely left alone: a half-open
// circuit whose one trial flow met a dead destination would otherwise wait for ever.
void FrontDoorProbe::record(bool healthy) {
  auto context = context_.lock();
  if (!context) return;
  if (healthy) {
    context->circuitRecordSuccess();
  } else {
    context->circuitRecordFailure();
  }
}

void FrontDoorProbe::probe() {
  std::string host;
  std::uint16_t rawPort;
  std::uint64_t generation;
  const MonotonicTime now = runtime_->monotonicNow();
  {
    MutexLock lock(mutex_);
    if (probing_ || (healthyAt_ && now - *healthyAt_ < toDuration(budget_))) return;
    probing_ = true;
    generation = ++generation_;
    host = host_;
    rawPort = port_;
  }
  const auto port = NWEndpointPort::make(rawPort);
  if (!port) {
    // No front door to ask (flows then fail open without it): nothing to tell the circuit.
    MutexLock lock(mutex_);
    probing_ = false;
    return;
  }
  auto attempt =
      connections_->makeConnection(NWEndpoint::hostPort(host, *port), NWParameters::tcp());
  {
    MutexLock lock(mutex_);
    attempt_ = attempt;
  }
  attempt->setStateUpdateHandler([weak = weak_from_this(), generation](const NWConnectionState& s) {
    using Kind = NWConnectionState::Kind;
    if (s.kind != Kind::Waiting && s.kind != Kind::Failed) return;
    if (auto self = weak.lock()) {
      self->settle(generation, false, s.error ? s.error->localizedDescription : "dial failed");
    }
  });
  attempt->start(queue_);
  attempt->send(makeProbeRequest(host, rawPort), false, nullptr);
  readReply(attempt, generation, std::make_shared<Bytes>());
  queue_->asyncAfter(toDuration(budget_), [weak = weak_from_this(), generation] {
    if (auto self = weak.lock()) self->settle(generation, false, "no answer within the budget");
  });
}

void FrontDoorProbe::readReply(std::shared_ptr<NWConnection> connection, std::uint64_t generation,
                               std::shared_ptr<Bytes> reply) {
  connection->receive(
      1, kMaxReplyBytes,
      [weak = weak_from_this(), connection, generation, reply](
          std::optional<Bytes> content, bool isComplete, std::optional<NWError> error) {
        auto self = weak.lock();
        if (!self) return;
        if (content) reply->insert(reply->end(), content->begin(), content->end());
        const std::string_view text = textOf(*reply);
        const bool lineDone = text.find('\n') != std::string_view::npos;
        if (lineDone || reply->size() >= kMaxReplyBytes || isComplete || error) {
          const bool healthy = startsWithStatusLine(text);
          self->settle(generation, healthy,
                       healthy ? "status line"
                       : error ? error->localizedDescription
                               : "no status line");
          return;
        }
        self->readReply(connection, generation, reply);
      });
}

void FrontDoorProbe::settle(std::uint64_t generation, bool healthy, const std::string& why) {
  std::shared_ptr<NWConnection> attempt;
  {
    MutexLock lock(mutex_);
    if (generation != generation_ || !probing_) return;
    probing_ = false;
    attempt = std::exchange(attempt_, nullptr);
    if (healthy) healthyAt_ = runtime_->monotonicNow();
  }
  if (attempt) attempt->cancel();
  if (healthy) {
    proxyLog().error("relay: front-door probe answered — front door alive");
  } else {
    proxyLog().error("relay: front-door probe failed (%{public}s) — counting a front-door failure",
                     why);
  }
  record(healthy);
}

}  // namespace tarnwick
