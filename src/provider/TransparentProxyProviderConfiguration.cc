// Start options, the network rules handed to the host, and the liveness beacon.

#include <limits>
#include <utility>

#include "platform/Text.h"
#include "provider/TransparentProxyProvider.h"

namespace tarnwick {

namespace {

NENetworkRule outboundTCPRule(std::optional<NWHostEndpoint> remoteNetwork, int remotePrefix) {
  return NENetworkRule{std::move(remoteNetwork), remotePrefix, std::nullopt, 0,
                       NENetworkRuleProtocol::TCP, NETrafficDirection::Outbound};
}

}  // namespace

std::optional<std::uint16_t> TransparentProxyProvider::asUInt16(const Json* value) {
  if (!value) return std::nullopt;
  if (value->is_number() || value->is_boolean()) {
    const auto number = jsonIntegerValue(*value);
    if (!number || *number < 0 || *number > std::numeric_limits<std::uint16_t>::max()) {
      return std::nullopt;
    }
    return static_cast<std::uint16_t>(*number);
  }
  if (value->is_string()) {
    return parseDecimal<std::uint16_t>(value->get_ref<const std::string&>());
  }
  return std::nullopt;
}

void TransparentProxyProvider::applyConfiguration(const std::optional<Json>& options) {
  if (!options) return;
  if (auto port = asUInt16(jsonMember(*options, "frontDoorPort"))) frontDoorPort_.store(*port);
  if (const Json* host = jsonMember(*options, "frontDoorHost");
      host && host->is_string() && !host->get_ref<const std::string&>().empty()) {
    frontDoorHost_ = host->get<std::string>();
  }
  engine_->setFrontDoor(frontDoorHost_, frontDoorPort_.load());
  applyWatchSet(WatchGate::decodeStringSet(jsonMember(*options, "watchedSigningIDs")),
                WatchGate::decodeIntSet(jsonMember(*options, "watchedPIDs")));
}

std::shared_ptr<NETransparentProxyNetworkSettings> TransparentProxyProvider::makeNetworkSettings() {
  auto settings = std::make_shared<NETransparentProxyNetworkSettings>();
  settings->tunnelRemoteAddress = "127.0.0.1";
  settings->includedNetworkRules = {outboundTCPRule(std::nullopt, 0)};
  const std::pair<const char*, int> excluded[] = {
      {"127.0.0.0", 8},  {"::1", 128},        {"169.254.0.0", 16},
      {"10.0.0.0", 8},   {"172.16.0.0", 12},  {"192.168.0.0", 16},
  };
  for (const auto& [network, prefix] : excluded) {
    settings->excludedNetworkRules.push_back(outboundTCPRule(NWHostEndpoint{network, "0"}, prefix));
  }
  return settings;
}

void TransparentProxyProvider::startAliveBeacon() {
  if (aliveBeaconTimer_) return;
  auto timer = aliveBeaconQueue_->makeTimer();
  timer->setEventHandler([weak = weak_from_this()] {
    if (auto self = weak.lock()) {
      self->sendEvent(Json{{"kind", "proxyext.alive"}, {"ts", self->currentTimestampNs()}});
    }
  });
  timer->schedule(Duration::zero(), std::chrono::seconds(aliveBeaconIntervalSecs),
                  std::chrono::seconds(1));
  aliveBeaconTimer_ = timer;
  timer->resume();
}

void TransparentProxyProvider::stopAliveBeacon() {
  if (aliveBeaconTimer_) aliveBeaconTimer_->cancel();
  aliveBeaconTimer_.reset();
}

std::int64_t TransparentProxyProvider::currentTimestampNs() const {
  const Seconds sinceEpoch = runtime_->wallNow().time_since_epoch();
  return static_cast<std::int64_t>(sinceEpoch.count() * 1e9);
}

}  // namespace tarnwick
