#pragma once
// The transparent-proxy provider: told which programs are watched, it takes over their outbound
// TCP flows and relays each through the front door, failing open to a direct dial whenever the
// front door lets a flow down. Unwatched flows, and every UDP flow, go back to the host.
//
// Made once by the host (init() for the real system, create() with injected services in tests)
// and kept by it. The host calls every entry point from threads of its own choosing, possibly
// concurrently. Relay sessions, the beacon and flow-open completions hold the provider weakly.
//
// Locks: circuitLock_ guards the circuit breaker, sessionsLock_ the table of live sessions; each
// is held for one operation and never while calling out. The gates and the bridge synchronise
// themselves. frontDoorHost_ and frontDoorPort_ are written only during start, before the tunnel
// settings are handed over, and read without a lock after.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "bridge/DaemonChannel.h"
#include "identity/AncestryGate.h"
#include "identity/IdentityGate.h"
#include "identity/WatchGate.h"
#include "platform/Dispatch.h"
#include "platform/Mutex.h"
#include "platform/Network.h"
#include "platform/NetworkExtension.h"
#include "relay/FrontDoorCircuit.h"
#include "relay/RelayContext.h"
#include "relay/RelayEngine.h"

namespace tarnwick {

class TransparentProxyProvider : public NETransparentProxyProvider,
                                 public RelayContext,
                                 public std::enable_shared_from_this<TransparentProxyProvider> {
 public:
  static constexpr std::int64_t aliveBeaconIntervalSecs = 5;
  static constexpr Seconds relayHandshakeTimeout{2.5};
  static constexpr const char* kAliveBeaconQueueLabel = "dev.fernquill.proxyext.alivebeacon";

  // What a provider runs on. Tests inject a simulated runtime, scripted connections, a recording
  // bridge and a synthetic process table; init() uses the real ones.
  struct Services {
    std::shared_ptr<Runtime> runtime;
    std::shared_ptr<NWConnectionFactory> connections;
    std::shared_ptr<DaemonChannel> bridge;
    RelayTiming relayTiming;
    AncestryGate::ParentLookup parentPIDOf = AncestryGate::realParentPID;
    AncestryGate::SigningLookup signingIDOf = AncestryGate::realSigningID;
  };

  // What an operator's status query shows of the provider.
  struct Status {
    std::int64_t watchedSigningIDs = 0;
    std::int64_t watchedPIDs = 0;
    FrontDoorCircuitState circuit = FrontDoorCircuitState::closed();
  };

  // The provider of the running system: real runtime and connections, `bridge` for its events
  // (empty: the shared daemon bridge itself), and `parentPIDOf` for the ancestry walk.
  static std::shared_ptr<TransparentProxyProvider> init(
      std::shared_ptr<DaemonChannel> bridge = nullptr,
      AncestryGate::ParentLookup parentPIDOf = AncestryGate::realParentPID);
  static std::shared_ptr<TransparentProxyProvider> create(Services services);

  // NETransparentProxyProvider.
  void startProxy(std::optional<Json> options, StartCompletion completion) override;
  void stopProxy(NEProviderStopReason reason, std::function<void()> completion) override;
  bool handleNewFlow(std::shared_ptr<NEAppProxyFlow> flow) override;
  void handleAppMessage(Bytes message, AppMessageCompletion completion) override;

  // RelayContext: what the relay engine reaches back for.
  void circuitRecordFailure() override;
  void circuitRecordSuccess() override;
  void retainSession(const std::shared_ptr<RelaySession>& session) override;
  void releaseSession(const RelaySession* session) override;
  std::int64_t currentTimestampNs() const override;
  void sendEvent(Json event) override;
  void recordCommittedSeverIfUnhealthy() override;

  // A start option as an unsigned 16-bit port: a number in range (a fraction truncates, a
  // Boolean counts as 0 or 1) or text of decimal digits only; absent otherwise.
  static std::optional<std::uint16_t> asUInt16(const Json* value);
  // Every outbound TCP flow, except those to loopback, link-local and private IPv4 networks.
  static std::shared_ptr<NETransparentProxyNetworkSettings> makeNetworkSettings();
  // The reply to a watch-set message: {"ok":true} or {"ok":false}, no line end.
  static Bytes appMessageReply(bool ok);

  Status status() const;

  // Test hook.
  std::size_t activeSessionCountForTest() const;

 private:
  explicit TransparentProxyProvider(Services services);

  void applyConfiguration(const std::optional<Json>& options);
  void applyWatchSet(WatchGate::SigningSet signing, WatchGate::PidSet pids);
  void onTunnelSettingsApplied(const std::optional<NEError>& error);

  std::optional<FlowTarget> remoteHostPort(const NEAppProxyTCPFlow& flow) const;
  bool shouldIntercept(const std::string& signingID, std::int64_t pid,
                       const std::optional<Bytes>& auditToken);
  void handleQUICFlow(const NEAppProxyUDPFlow& flow);
  void openAndRelay(const std::shared_ptr<NEAppProxyTCPFlow>& flow, FlowTarget target,
                    std::int64_t pid, std::string signingID, std::string trace);
  bool circuitAllowsRelay();
  // Runs one circuit operation under circuitLock_ with the wall clock's current time.
  template <typename Operation>
  auto withCircuit(Operation operation);

  void startAliveBeacon();
  void stopAliveBeacon();

  const std::shared_ptr<Runtime> runtime_;
  const std::shared_ptr<DaemonChannel> bridge_;
  // Touched only by start and stop.
  std::shared_ptr<DispatchTimer> aliveBeaconTimer_;
  const std::shared_ptr<DispatchQueue> aliveBeaconQueue_;
  WatchGate watchGate_;
  IdentityGate identityGate_;
  AncestryGate ancestryGate_;
  mutable Mutex circuitLock_;
  FrontDoorCircuit frontDoorCircuit_ TW_GUARDED_BY(circuitLock_);
  mutable Mutex sessionsLock_;
  std::unordered_map<const RelaySession*, std::shared_ptr<RelaySession>> activeSessions_
      TW_GUARDED_BY(sessionsLock_);
  // Written only by applyConfiguration during start; read without a lock after.
  std::string frontDoorHost_ = "127.0.0.1";
  std::atomic<std::uint16_t> frontDoorPort_{0};
  // Set once by create(), before the provider is shared.
  std::unique_ptr<RelayEngine> engine_;
};

}  // namespace tarnwick
