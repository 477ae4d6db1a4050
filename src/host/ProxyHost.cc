#include "host/ProxyHost.h"

#include <cerrno>
#include <chrono>
#include <future>
#include <thread>

#include "host/HostLog.h"
#include "host/control/ControlSocket.h"
#include "host/owner/OwnerWalker.h"
#include "host/redirect/NftRuleset.h"
#include "host/redirect/OriginalDestination.h"
#include "host/selection/IpPrefix.h"
#include "platform/Network.h"

namespace tarnwick::host {
namespace {

// How long the provider may take to start (it hands over its rules within that time).
constexpr auto kStartTimeout = std::chrono::seconds(10);
// How long a stop waits for the provider to let go of the flows it was carrying, once they are
// ended; whatever is left then goes with the process.
constexpr auto kReleaseTimeout = std::chrono::seconds(2);
constexpr auto kReleasePoll = std::chrono::milliseconds(10);
// A port the kernel chose for the listeners may be taken by another program before all of them
// are bound; another one is chosen then.
constexpr int kAnyPortAttempts = 8;
constexpr const char* kNoNftables =
    "cannot open nftables (is the nf_tables module available, and does the process have "
    "CAP_NET_ADMIN?)";

std::shared_ptr<Runtime> runtimeOr(const std::shared_ptr<Runtime>& runtime) {
  return runtime ? runtime : realRuntime();
}

// The watch set the provider takes from its start options, decoded as it decodes it.
SelectionLane::WatchSet watchSetOf(const std::optional<Json>& options) {
  if (!options || !options->is_object()) return {};
  return {WatchGate::decodeStringSet(jsonMember(*options, "watchedSigningIDs")),
          WatchGate::decodeIntSet(jsonMember(*options, "watchedPIDs"))};
}

}  // namespace

std::shared_ptr<ProxyHost> ProxyHost::create(std::shared_ptr<NETransparentProxyProvider> provider,
                                             Options options) {
  return std::shared_ptr<ProxyHost>(new ProxyHost(std::move(provider), std::move(options)));
}

ProxyHost::ProxyHost(std::shared_ptr<NETransparentProxyProvider> provider, Options options)
    : provider_(std::move(provider)),
      options_(std::move(options)),
      runtime_(runtimeOr(options_.runtime)),
      framework_(
          runtime_->makeQueue("dev.fernquill.tarnwick.host", QualityOfService::UserInitiated)),
      counters_(options_.counters ? options_.counters : std::make_shared<HostCounters>()),
      parents_(options_.recordedParents ? options_.recordedParents
                                        : std::make_shared<RecordedParents>()),
      walker_(options_.identify ? nullptr
                                : std::make_shared<OwnerWalker>(runtime_->makeQueue(
                                      "dev.fernquill.tarnwick.host.owners",
                                      QualityOfService::Utility, QueueKind::Blocking))) {
  for (std::size_t i = 0; i < ioLaneCount(); ++i) {
    lanes_.push_back({std::make_shared<HostLoop>(ioLane(i)), nullptr, nullptr});
  }
}

ProxyHost::~ProxyHost() { stop(); }

std::optional<std::string> ProxyHost::start(std::optional<Json> startOptions) {
  if (auto problem = checkMachine()) return problem;
  if (options_.installRules) setProcessSocketMark(options_.settings.socketMark);
  if (auto error = listen()) {
    stop();
    return error;
  }
  started_ = true;
  startWatchSet_ = watchSetOf(startOptions);
  provider_->attachTunnelHost(weak_from_this());
  auto started = std::make_shared<std::promise<std::optional<NEError>>>();
  provider_->startProxy(std::move(startOptions), [started](std::optional<NEError> error) {
    started->set_value(std::move(error));
  });
  auto outcome = started->get_future();
  std::optional<std::string> failure;
  if (outcome.wait_for(kStartTimeout) != std::future_status::ready) {
    failure = "the provider did not finish starting";
  } else if (auto error = outcome.get()) {
    failure = "the provider did not start: " + error->localizedDescription;
  }
  // The control socket comes last: once it is there, the rules are in and flows are taken.
  if (!failure) failure = listenControl();
  if (failure) stop();
  return failure;
}

// What keeps the host from starting is found before anything is installed; a machine without
// IPv6 is served on IPv4 alone.
std::optional<std::string> ProxyHost::checkMachine() {
  for (const Lane& lane : lanes_) {
    if (!lane.loop->valid()) return "cannot create the host's event loop (epoll)";
  }
  {
    MutexLock lock(mutex_);
    if (options_.installRules && options_.settings.selection == SelectionMode::All &&
        !table_.valid()) {
      return kNoNftables;
    }
  }
  std::string error;
  if (!controlSocketPathUsable(options_.settings.controlSocketPath, error)) return error;
  ipv6_ = FlowIntake::loopbackIPv6Available();
  if (!ipv6_) {
    hostLog().error(
        "host: warning: IPv6 is not available here (::1 cannot be bound) — "
        "intercepting IPv4 only");
  }
  return std::nullopt;
}

std::optional<std::string> ProxyHost::listen() {
  for (int attempt = 1;; ++attempt) {
    auto failure = listenOnce();
    if (!failure || options_.settings.listenPort != 0 || attempt == kAnyPortAttempts) {
      return failure;
    }
    for (const Lane& lane : lanes_) {
      if (lane.intake) lane.intake->close();
    }
  }
}

std::optional<std::string> ProxyHost::listenOnce() {
  std::string error;
  const auto port = FlowIntake::reservePort(options_.settings.listenPort, ipv6_, error);
  if (!port) return error;
  port_ = *port;
  for (Lane& lane : lanes_) {
    if (auto failure = listenOn(lane, port_)) return failure;
  }
  return std::nullopt;
}

std::optional<std::string> ProxyHost::listenControl() {
  const std::weak_ptr<ProxyHost> weak = weak_from_this();
  control_ = ControlServer::create(
      {lanes_.front().loop, framework_, runtime_, provider_,
       [weak] {
         const auto self = weak.lock();
         return self ? self->status() : Json::object();
       },
       ControlAccess(options_.settings.controlGroup), options_.controlLimits,
       [weak](Bytes message, NETransparentProxyProvider::AppMessageCompletion completion) {
         if (const auto self = weak.lock()) {
           self->deliverWatchSet(std::move(message), std::move(completion));
         }
       }});
  std::string error;
  if (!control_->listen(options_.settings.controlSocketPath, error)) return error;
  return std::nullopt;
}

std::optional<std::string> ProxyHost::listenOn(Lane& lane, std::uint16_t port) {
  lane.carrier = std::make_shared<HandBackCarrier>(
      lane.loop,
      HandBackRelay::DialOptions{
          options_.installRules ? std::optional(options_.settings.socketMark) : std::nullopt,
          options_.settings.handBackConnectTimeout});
  lane.intake = FlowIntake::create(
      {lane.loop, runtime_, lane.carrier, provider_, originLookup(),
       options_.identify ? options_.identify : realIdentification(lane.loop, walker_), counters_,
       taken_, ipv6_});
  std::string error;
  if (!lane.intake->listen(port, error)) return error;
  return std::nullopt;
}

void ProxyHost::stop() {
  if (std::exchange(started_, false)) {
    std::promise<void> stopped;
    provider_->stopProxy(NEProviderStopReason::UserInitiated, [&stopped] { stopped.set_value(); });
    stopped.get_future().wait_for(kStartTimeout);
  }
  // The loops stop first, so closing the listeners races with no event handler.
  for (const Lane& lane : lanes_) lane.loop->stop();
  for (const Lane& lane : lanes_) {
    if (lane.intake) lane.intake->close();
  }
  if (control_) control_->close();
  // Ended while the redirect still stands: a client's connection is known by the address it
  // dialled, and only the rules' translation lets the reset reach it.
  const std::size_t ended = taken_->abortAll();
  removeRules();
  std::shared_ptr<SelectionLane> selection;
  {
    MutexLock lock(mutex_);
    selection.swap(selection_);
  }
  // Its programs detach as it goes.
  selection.reset();
  if (ended > 0) awaitTakenFlowsReleased(ended);
}

// The flows' own queues still run: each carrier hears its flow fail and lets go of it.
void ProxyHost::awaitTakenFlowsReleased(std::size_t ended) {
  hostLog().info("host: ended %ld flows still carried", ended);
  const auto deadline = std::chrono::steady_clock::now() + kReleaseTimeout;
  while (taken_->liveCount() > 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(kReleasePoll);
  }
}

Json ProxyHost::status() const {
  const auto kernel = selection();
  Json report{{"selection", kernel ? "kernel" : "all"},
              {"candidates", kernel ? Json(kernel->candidateCount()) : Json(nullptr)},
              {"watchedSigningIDs", nullptr},
              {"watchedPIDs", nullptr},
              {"circuit", nullptr},
              {"relays", taken_->liveCount()},
              {"listenPort", port_},
              {"ipv6", ipv6_}};
  if (options_.providerStatus) report.update(options_.providerStatus());
  report.update(counters_->snapshot(kernel ? std::optional(kernel->counters()) : std::nullopt));
  return report;
}

std::shared_ptr<SelectionLane> ProxyHost::selection() const {
  MutexLock lock(mutex_);
  return selection_;
}

// With kernel-side selection the kernel's candidate set changes with the watch set.
void ProxyHost::deliverWatchSet(Bytes message,
                                NETransparentProxyProvider::AppMessageCompletion completion) {
  if (const auto kernel = selection()) {
    return kernel->changeWatchSet(std::move(message), std::move(completion));
  }
  provider_->handleAppMessage(std::move(message), std::move(completion));
}

// Kernel-side selection recorded the connection and its process; the table's redirect left the
// original tuple with NAT, and the process is identified afterwards.
FlowIntake::OriginLookup ProxyHost::originLookup() {
  return [weak = weak_from_this(), tupleOf = options_.originalOf
                                                 ? options_.originalOf
                                                 : FlowIntake::TupleLookup(redirectedTuple)](
             int fd, const SocketAddress& local,
             const SocketAddress& peer) -> std::optional<FlowIntake::Origin> {
    const auto self = weak.lock();
    if (!self) return std::nullopt;
    if (const auto kernel = self->selection()) return kernel->origin(peer);
    auto tuple = tupleOf(fd, local, peer);
    if (!tuple) return std::nullopt;
    return FlowIntake::Origin{std::move(*tuple), std::nullopt};
  };
}

void ProxyHost::applyTunnelNetworkSettings(
    std::shared_ptr<const NETransparentProxyNetworkSettings> settings,
    SettingsCompletion completion) {
  framework_->async([weak = weak_from_this(), settings = std::move(settings),
                     completion = std::move(completion)] {
    auto self = weak.lock();
    if (!self) return completion(NEError{ECANCELED, "the host has stopped"});
    completion(self->applyRules(*settings));
  });
}

// Kernel-side selection where it is asked for and loads; otherwise the table, after one line
// saying why.
std::optional<NEError> ProxyHost::applyRules(const NETransparentProxyNetworkSettings& settings) {
  if (selection()) {
    return NEError{EALREADY, "network rules are applied once with kernel-side selection"};
  }
  const auto rules = hostNetworkRules(settings, options_.settings.privateIPv4Networks);
  const SelectionMode mode =
      options_.installRules ? options_.settings.selection : SelectionMode::All;
  if (mode != SelectionMode::All) {
    std::string whyNot;
    if (selectInKernel(rules, whyNot)) return recordApplied(settings);
    if (mode == SelectionMode::Kernel) {
      return NEError{ENOTSUP, "kernel-side selection cannot load: " + whyNot};
    }
    hostLog().error(
        "host: warning: kernel-side selection cannot load (%{public}s) — redirect-all: every "
        "outbound TCP connection goes through the interceptor",
        whyNot);
  }
  if (options_.settings.blockQuic) {
    hostLog().error(
        "host: warning: --block-quic needs kernel-side selection — watched programs' QUIC is "
        "reported, not refused");
  }
  if (auto error = installTable(rules)) return error;
  return recordApplied(settings);
}

std::optional<NEError> ProxyHost::recordApplied(const NETransparentProxyNetworkSettings& settings) {
  MutexLock lock(mutex_);
  applied_ = std::make_shared<NETransparentProxyNetworkSettings>(settings);
  return std::nullopt;
}

// Loads the programs with the listener's port and the rules' excluded networks, and starts them
// from the provider's watch set.
bool ProxyHost::selectInKernel(const NETransparentProxyNetworkSettings& rules,
                               std::string& whyNot) {
  std::string unusable;
  KernelSelection::Config config{listenPort(), excludedPrefixesOf(rules, unusable),
                                 options_.settings.blockQuic, 0};
  if (!unusable.empty()) {
    hostLog().error("host: warning: %{public}s — its destinations are selected all the same",
                    unusable);
  }
  auto lane = SelectionLane::load({lanes_.front().loop, provider_, parents_}, config,
                                  startWatchSet_, kStartTimeout, whyNot);
  if (!lane) return false;
  {
    MutexLock lock(mutex_);
    selection_ = std::move(lane);
  }
  hostLog().info(
      "host: kernel-side selection: watched programs' connections go to port %hu%{public}s",
      listenPort(), options_.settings.blockQuic ? ", their UDP to port 443 is refused" : "");
  return true;
}

std::optional<NEError> ProxyHost::installTable(const NETransparentProxyNetworkSettings& rules) {
  const auto ruleset = nftScriptFor(
      rules, {options_.settings.tableName, options_.settings.socketMark, listenPort()});
  if (!ruleset.script) return NEError{EINVAL, "network rules: " + ruleset.error};
  MutexLock lock(mutex_);
  if (options_.installRules) {
    if (!table_.valid()) return NEError{EPERM, kNoNftables};
    std::string error;
    // A second set of settings replaces the first: the old table goes in the same transaction.
    const std::string script =
        (table_installed_ ? nftDeleteScript(options_.settings.tableName) : "") + *ruleset.script;
    if (!table_.run(script, error)) {
      return NEError{EPERM, "cannot install the nftables rules: " + error};
    }
    table_installed_ = true;
  }
  hostLog().info("host: network rules applied in table inet %{public}s, redirect to port %hu",
                 options_.settings.tableName, listenPort());
  return std::nullopt;
}

void ProxyHost::removeRules() {
  MutexLock lock(mutex_);
  if (!table_installed_) return;
  std::string error;
  if (!table_.run(nftDeleteScript(options_.settings.tableName), error)) {
    hostLog().error("host: could not remove the table: %{public}s", error);
  }
  table_installed_ = false;
}

std::uint16_t ProxyHost::listenPort() const { return port_; }

std::shared_ptr<const NETransparentProxyNetworkSettings> ProxyHost::appliedSettings() const {
  MutexLock lock(mutex_);
  return applied_;
}

}  // namespace tarnwick::host
