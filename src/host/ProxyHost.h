#pragma once
// Hosts a transparent-proxy provider on Linux, in the part the platform's network-extension
// framework plays: the provider's network rules become kernel-side selection's excluded networks
// (where its programs load, unless told otherwise) or one nftables table, redirected TCP
// connections become flows offered to it, flows it does not take are carried directly, UDP
// sockets the kernel reports become UDP flows, and the control socket delivers app messages and
// answers status queries.
//
// start() and stop(): one thread (the command's). applyTunnelNetworkSettings: any thread; its
// completion runs on the host's framework queue. status(): any thread.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/HostLoop.h"
#include "host/HostSettings.h"
#include "host/control/ControlServer.h"
#include "host/handback/HandBackCarrier.h"
#include "host/intake/FlowIntake.h"
#include "host/intake/TakenFlows.h"
#include "host/owner/OwnerWalker.h"
#include "host/redirect/NftTable.h"
#include "host/selection/RecordedParents.h"
#include "host/selection/SelectionLane.h"
#include "host/status/HostCounters.h"
#include "platform/Mutex.h"
#include "platform/NetworkExtension.h"

namespace tarnwick::host {

class ProxyHost : public NETunnelHost, public std::enable_shared_from_this<ProxyHost> {
 public:
  struct Options {
    HostSettings settings;
    // Off only in tests without privileges: the settings are recorded, no table is made, nothing
    // is loaded into the kernel, and the host's sockets carry no mark.
    bool installRules = true;
    FlowIntake::TupleLookup originalOf;      // empty: the kernel's record of the redirect
    FlowIntake::Identify identify;           // empty: the real identification
    std::shared_ptr<Runtime> runtime;        // empty: the real runtime
    std::shared_ptr<HostCounters> counters;  // empty: counters of the host's own
    // Where kernel-side selection leaves the parents of the processes it recorded, for the
    // provider's ancestry walk; empty: a table of the host's own.
    std::shared_ptr<RecordedParents> recordedParents;
    // The provider's part of the status object; empty: those keys are null.
    std::function<Json()> providerStatus;
    ControlServer::Limits controlLimits;
  };

  static std::shared_ptr<ProxyHost> create(std::shared_ptr<NETransparentProxyProvider> provider,
                                           Options options);
  ~ProxyHost() override;

  // Listens, starts the provider, waits for its start to complete (its rules are then in), and
  // opens the control socket last, so the socket's presence tells that flows are intercepted.
  // On failure returns one line saying why, with everything undone (no table, no listener, no
  // socket file).
  std::optional<std::string> start(std::optional<Json> startOptions);
  // Stops the provider, closes the listeners and the control socket, ends the flows the provider
  // still carries, removes the table and waits a little for the provider to let go of the
  // flows. Idempotent.
  void stop();

  void applyTunnelNetworkSettings(std::shared_ptr<const NETransparentProxyNetworkSettings> settings,
                                  SettingsCompletion completion) override;

  std::uint16_t listenPort() const;
  std::shared_ptr<const NETransparentProxyNetworkSettings> appliedSettings() const;
  // The answer to a status query: {"selection" ("kernel" or "all"), "candidates" (kernel
  // selection's count, else null), "watchedSigningIDs",
  // "watchedPIDs", "circuit", "relays" (flows the provider carries now), "listenPort",
  // "ipv6"} and the counters since start (HostCounters).
  Json status() const;

 private:
  ProxyHost(std::shared_ptr<NETransparentProxyProvider> provider, Options options);
  std::optional<std::string> checkMachine();
  std::optional<std::string> listen();
  std::optional<std::string> listenOnce();
  std::optional<NEError> applyRules(const NETransparentProxyNetworkSettings& settings);
  bool selectInKernel(const NETransparentProxyNetworkSettings& rules, std::string& whyNot);
  std::optional<NEError> installTable(const NETransparentProxyNetworkSettings& rules);
  std::optional<NEError> recordApplied(const NETransparentProxyNetworkSettings& settings);
  void removeRules();
  std::shared_ptr<SelectionLane> selection() const;
  void deliverWatchSet(Bytes message, NETransparentProxyProvider::AppMessageCompletion completion);
  FlowIntake::OriginLookup originLookup();
  void awaitTakenFlowsReleased(std::size_t ended);

  // What the host runs on one lane: its event loop, the intake that accepts that lane's share of
  // the redirected connections, and the carrier of the flows handed back there.
  struct Lane {
    std::shared_ptr<HostLoop> loop;
    std::shared_ptr<HandBackCarrier> carrier;
    std::shared_ptr<FlowIntake> intake;
  };

  std::optional<std::string> listenOn(Lane& lane, std::uint16_t port);
  std::optional<std::string> listenControl();

  const std::shared_ptr<NETransparentProxyProvider> provider_;
  const Options options_;
  const std::shared_ptr<Runtime> runtime_;
  const std::shared_ptr<DispatchQueue> framework_;
  const std::shared_ptr<HostCounters> counters_;
  const std::shared_ptr<RecordedParents> parents_;
  const std::shared_ptr<TakenFlows> taken_ = std::make_shared<TakenFlows>();
  // Searches /proc for the lanes, unless identification is given.
  const std::shared_ptr<OwnerWalker> walker_;
  std::vector<Lane> lanes_;
  // Set during start, before the control socket answers; read without a lock after.
  std::uint16_t port_ = 0;
  bool ipv6_ = true;
  std::shared_ptr<ControlServer> control_;
  // The start options' watch set, which kernel-side selection starts from.
  SelectionLane::WatchSet startWatchSet_;
  bool started_ = false;
  mutable Mutex mutex_;
  NftTable table_ TW_GUARDED_BY(mutex_);
  bool table_installed_ TW_GUARDED_BY(mutex_) = false;
  std::shared_ptr<const NETransparentProxyNetworkSettings> applied_ TW_GUARDED_BY(mutex_);
  // Set when kernel-side selection took the place of the table.
  std::shared_ptr<SelectionLane> selection_ TW_GUARDED_BY(mutex_);
};

}  // namespace tarnwick::host
