#include "relay/DirectLeg.h"

#include <utility>

#include "platform/Log.h"
#include "relay/DestinationEndpoint.h"

namespace tarnwick {
namespace {

constexpr std::size_t kReceiveMinimum = 1;
constexpr std::size_t kReceiveMaximum = 65536;

}  // namespace

void DirectLeg::dial(std::shared_ptr<const RelayServices> services,
                     std::shared_ptr<NEAppProxyTCPFlow> flow, RelayEventFields fields,
                     FailOpenReason reason, std::shared_ptr<DispatchQueue> queue) {
  const std::string_view reasonText = failOpenReasonText(reason);
  auto endpoint = destinationEndpoint(fields.target);
  if (!endpoint) {
    proxyLog().error("dialDirect: invalid target port %{public}s (reason=%{public}s) — closing",
                     fields.target.port, reasonText);
    closeFlow(*flow);
    return;
  }
  proxyLog().error(
      "relay leg unavailable (%{public}s) — failing OPEN: dialing %{public}s:%{public}s direct "
      "(uninspected)",
      reasonText, fields.target.host, fields.target.port);
  sendFailOpenEvent(services->context, reason, fields);

  auto connection = services->connections->makeConnection(*endpoint, NWParameters::tcp());
  std::shared_ptr<DirectLeg> leg(
      new DirectLeg(std::move(services), std::move(flow), connection, std::move(fields)));
  {
    MutexLock lock(leg->mutex_);
    leg->keepAlive_ = leg;
  }
  connection->setStateUpdateHandler([weak = leg->weak_from_this()](const NWConnectionState& s) {
    if (auto self = weak.lock()) self->onState(s);
  });
  connection->start(std::move(queue));
}

void DirectLeg::closeFlow(NEAppProxyTCPFlow& flow) {
  flow.closeReadWithError(std::nullopt);
  flow.closeWriteWithError(std::nullopt);
}

DirectLeg::DirectLeg(std::shared_ptr<const RelayServices> services,
                     std::shared_ptr<NEAppProxyTCPFlow> flow,
                     std::shared_ptr<NWConnection> connection, RelayEventFields fields)
    : services_(std::move(services)),
      flow_(std::move(flow)),
      connection_(std::move(connection)),
      fields_(std::move(fields)) {}

// Waiting is not acted on: a direct dial that only ever waits keeps the flow open.
void DirectLeg::onState(const NWConnectionState& state) {
  using Kind = NWConnectionState::Kind;
  if (state.kind != Kind::Ready && state.kind != Kind::Failed) return;
  if (!providerOrStop()) return;
  if (state.kind == Kind::Ready) {
    pumpFlowToConn();
    pumpConnToFlow();
    return;
  }
  proxyLog().error("dialDirect: direct dial to %{public}s:%{public}s failed — closing",
                   fields_.target.host, fields_.target.port);
  // The agent's connect succeeded where the destination's did not: a reset tells it so, where an
  // end of stream would read as a server that answered nothing.
  closeLegs(RelayEnding::upstreamCut(state.error ? state.error->localizedDescription : "failed"),
            *flow_, *connection_, fields_.target);
  letGo();
}

void DirectLeg::pumpFlowToConn() {
  flow_->readData(
      [weak = weak_from_this()](std::optional<Bytes> data, std::optional<NEError> error) {
        if (auto self = weak.lock()) self->onFlowRead(std::move(data), std::move(error));
      });
}

void DirectLeg::onFlowRead(std::optional<Bytes> data, std::optional<NEError> error) {
  if (!providerOrStop()) return;
  if (error) return finishRelay(RelayEnding::agentCut(error->localizedDescription));
  if (!data || data->empty()) {
    {
      MutexLock lock(mutex_);
      agentEnded_ = true;
    }
    connection_->send(std::nullopt, true, [weak = weak_from_this()](std::optional<NWError> e) {
      if (auto self = weak.lock()) self->onAgentEndPassed(e);
    });
    return;
  }
  connection_->send(std::move(*data), true, [weak = weak_from_this()](std::optional<NWError> e) {
    auto self = weak.lock();
    if (!self) return;
    if (e) {
      self->finishRelay(RelayEnding::upstreamCut(e->localizedDescription));
    } else {
      self->pumpFlowToConn();
    }
  });
}

void DirectLeg::onAgentEndPassed(const std::optional<NWError>& error) {
  if (error) return finishRelay(RelayEnding::upstreamCut(error->localizedDescription));
  bool bothEnded;
  {
    MutexLock lock(mutex_);
    bothEnded = destinationEnded_;
  }
  if (bothEnded) finishRelay(RelayEnding::clean());
}

void DirectLeg::pumpConnToFlow() {
  connection_->receive(kReceiveMinimum, kReceiveMaximum,
                       [weak = weak_from_this()](std::optional<Bytes> content, bool isComplete,
                                                 std::optional<NWError> error) {
                         if (auto self = weak.lock()) {
                           self->onReceive(std::move(content), isComplete, std::move(error));
                         }
                       });
}

void DirectLeg::onReceive(std::optional<Bytes> content, bool isComplete,
                          std::optional<NWError> error) {
  if (!providerOrStop()) return;
  const bool ended = isComplete || error.has_value();
  if (content && !content->empty()) {
    // Bytes that came with the end are written to the agent before the end is passed on.
    flow_->write(std::move(*content), [weak = weak_from_this(), ended,
                                       error = std::move(error)](std::optional<NEError> e) {
      auto self = weak.lock();
      if (!self) return;
      if (e) {
        self->finishRelay(RelayEnding::agentCut(e->localizedDescription));
      } else if (ended) {
        self->onDestinationEnded(error);
      } else {
        self->pumpConnToFlow();
      }
    });
    return;
  }
  // A receive with no bytes, no end and no error stops this direction without ending the leg.
  if (ended) onDestinationEnded(error);
}

void DirectLeg::onDestinationEnded(const std::optional<NWError>& error) {
  if (error) return finishRelay(RelayEnding::upstreamCut(error->localizedDescription));
  bool bothEnded;
  {
    MutexLock lock(mutex_);
    destinationEnded_ = true;
    bothEnded = agentEnded_;
  }
  if (bothEnded) return finishRelay(RelayEnding::clean());
  flow_->closeWriteWithError(std::nullopt);
}

void DirectLeg::finishRelay(const RelayEnding& ending) {
  if (finished_.exchange(true)) return;
  closeLegs(ending, *flow_, *connection_, fields_.target);
  sendRelayEvent(services_->context, "relay.close", fields_);
  letGo();
}

std::shared_ptr<RelayContext> DirectLeg::providerOrStop() {
  auto provider = services_->context.lock();
  if (!provider) letGo();
  return provider;
}

void DirectLeg::letGo() {
  std::shared_ptr<DirectLeg> self;  // released after the lock
  MutexLock lock(mutex_);
  self = std::exchange(keepAlive_, nullptr);
}

}  // namespace tarnwick
