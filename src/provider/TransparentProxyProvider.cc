#include "provider/TransparentProxyProvider.h"

#include <utility>

#include "bridge/DaemonBridge.h"
#include "platform/Log.h"
#include "platform/Network.h"

namespace tarnwick {

namespace {

constexpr std::int64_t kAncestryMaxDepth = 24;
constexpr std::int64_t kAncestryCacheCap = 4096;

}  // namespace

TransparentProxyProvider::TransparentProxyProvider(Services services)
    : runtime_(services.runtime),
      bridge_(services.bridge),
      aliveBeaconQueue_(runtime_->makeQueue(kAliveBeaconQueueLabel, QualityOfService::Unspecified)),
      ancestryGate_(kAncestryMaxDepth, kAncestryCacheCap, std::move(services.parentPIDOf),
                    std::move(services.signingIDOf)) {}

std::shared_ptr<TransparentProxyProvider> TransparentProxyProvider::create(Services services) {
  auto connections = services.connections;
  const RelayTiming timing = services.relayTiming;
  auto runtime = services.runtime;
  std::shared_ptr<TransparentProxyProvider> provider(
      new TransparentProxyProvider(std::move(services)));
  provider->engine_ = std::make_unique<RelayEngine>(std::move(runtime), std::move(connections),
                                                    std::weak_ptr<RelayContext>(provider), timing);
  return provider;
}

std::shared_ptr<TransparentProxyProvider> TransparentProxyProvider::init(
    std::shared_ptr<DaemonChannel> bridge, AncestryGate::ParentLookup parentPIDOf) {
  Services services;
  services.runtime = realRuntime();
  services.connections = realConnectionFactory();
  services.bridge = bridge ? std::move(bridge) : DaemonBridge::shared();
  services.relayTiming.handshakeTimeout = relayHandshakeTimeout;
  services.parentPIDOf = std::move(parentPIDOf);
  return create(std::move(services));
}

void TransparentProxyProvider::startProxy(std::optional<Json> options, StartCompletion completion) {
  const auto socket = DaemonBridge::resolveSocket(options);
  proxyLog().info(
      "TransparentProxyProvider.startProxy: socket=%{public}s real=%{bool}d gotConfig=%{bool}d",
      socket.path, socket.real, options.has_value());
  bridge_->adoptPath(socket.path, socket.real);
  startAliveBeacon();
  applyConfiguration(options);
  // The completion keeps the provider alive until the host has answered.
  setTunnelNetworkSettings(makeNetworkSettings(),
                           [self = shared_from_this(),
                            completion = std::move(completion)](std::optional<NEError> error) {
                             self->onTunnelSettingsApplied(error);
                             if (completion) completion(std::move(error));
                           });
}

void TransparentProxyProvider::onTunnelSettingsApplied(const std::optional<NEError>& error) {
  if (error) {
    proxyLog().error("setTunnelNetworkSettings failed: %{public}s", error->localizedDescription);
    return;
  }
  proxyLog().info(
      "TransparentProxyProvider: tunnel settings applied; front-door=%{public}s:%hu "
      "watchedSigningIDs=%ld watchedPIDs=%ld",
      frontDoorHost_, frontDoorPort_.load(), watchGate_.signingCount(), watchGate_.pidCount());
}

void TransparentProxyProvider::stopProxy(NEProviderStopReason reason,
                                         std::function<void()> completion) {
  proxyLog().info("TransparentProxyProvider.stopProxy: reason=%ld",
                  static_cast<std::int64_t>(reason));
  stopAliveBeacon();
  if (completion) completion();
}

void TransparentProxyProvider::handleAppMessage(Bytes message, AppMessageCompletion completion) {
  auto sets = WatchGate::decode(message);
  if (!sets) {
    proxyLog().error(
        "handleAppMessage: malformed/empty watch-set delta (%ld bytes) — leaving gate UNCHANGED "
        "(fail-safe)",
        message.size());
    if (completion) completion(appMessageReply(false));
    return;
  }
  applyWatchSet(std::move(sets->first), std::move(sets->second));
  proxyLog().info(
      "handleAppMessage: watch gate updated LIVE (no tunnel restart) — watchedSigningIDs=%ld "
      "watchedPIDs=%ld identityBindings=%ld",
      watchGate_.signingCount(), watchGate_.pidCount(), identityGate_.recordedCount());
  if (completion) completion(appMessageReply(true));
}

Bytes TransparentProxyProvider::appMessageReply(bool ok) {
  return bytesOf(ok ? R"({"ok":true})" : R"({"ok":false})");
}

void TransparentProxyProvider::applyWatchSet(WatchGate::SigningSet signing,
                                             WatchGate::PidSet pids) {
  watchGate_.update(std::move(signing), pids);
  identityGate_.pruneTo(pids);
  ancestryGate_.dropCache();
}

template <typename Operation>
auto TransparentProxyProvider::withCircuit(Operation operation) {
  const WallTime now = runtime_->wallNow();
  MutexLock lock(circuitLock_);
  return operation(frontDoorCircuit_, now);
}

bool TransparentProxyProvider::circuitAllowsRelay() {
  return withCircuit(
      [](FrontDoorCircuit& circuit, WallTime now) { return circuit.allowRelay(now); });
}

void TransparentProxyProvider::circuitRecordFailure() {
  withCircuit([](FrontDoorCircuit& circuit, WallTime now) { circuit.recordFailure(now); });
}

void TransparentProxyProvider::circuitRecordSuccess() {
  withCircuit([](FrontDoorCircuit& circuit, WallTime now) { circuit.recordSuccess(now); });
}

TransparentProxyProvider::Status TransparentProxyProvider::status() const {
  Status status{watchGate_.signingCount(), watchGate_.pidCount()};
  MutexLock lock(circuitLock_);
  status.circuit = frontDoorCircuit_.state();
  return status;
}

void TransparentProxyProvider::retainSession(const std::shared_ptr<RelaySession>& session) {
  MutexLock lock(sessionsLock_);
  activeSessions_[session.get()] = session;
}

void TransparentProxyProvider::releaseSession(const RelaySession* session) {
  // The entry may hold the last reference: let the session die after the lock is released.
  std::shared_ptr<RelaySession> released;
  MutexLock lock(sessionsLock_);
  if (auto it = activeSessions_.find(session); it != activeSessions_.end()) {
    released = std::move(it->second);
    activeSessions_.erase(it);
  }
}

std::size_t TransparentProxyProvider::activeSessionCountForTest() const {
  MutexLock lock(sessionsLock_);
  return activeSessions_.size();
}

void TransparentProxyProvider::sendEvent(Json event) { bridge_->send(std::move(event)); }

void TransparentProxyProvider::recordCommittedSeverIfUnhealthy() {
  bridge_->recordCommittedSeverIfUnhealthy();
}

}  // namespace tarnwick
