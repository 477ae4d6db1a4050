#pragma once
// Test support for the provider: a recording bridge, a tunnel host that records the settings it
// is handed, a synthetic process table for the ancestry walk, and a harness that runs one
// provider on the simulated runtime with scripted connections and flows.

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "bridge/DaemonChannel.h"
#include "platform/testing/CaptureLogSink.h"
#include "platform/testing/CaseName.h"
#include "platform/testing/EventTrail.h"
#include "platform/testing/ScriptedConnection.h"
#include "platform/testing/ScriptedFlow.h"
#include "platform/testing/SimulatedRuntime.h"
#include "provider/TransparentProxyProvider.h"

namespace tarnwick {

class RecordingBridge : public DaemonChannel {
 public:
  void adoptPath(std::string path, bool real) override {
    std::lock_guard<std::mutex> lock(mutex_);
    adopted_.emplace_back(std::move(path), real);
  }
  void send(Json event) override {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(std::move(event));
  }
  void recordCommittedSeverIfUnhealthy() override {}

  std::vector<Json> events() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
  }
  // "kind" or "kind:reason" of every event, in order.
  std::vector<std::string> trail() const { return eventTrail(events()); }
  std::vector<std::pair<std::string, bool>> adopted() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return adopted_;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Json> events_;
  std::vector<std::pair<std::string, bool>> adopted_;
};

class RecordingTunnelHost : public NETunnelHost {
 public:
  void applyTunnelNetworkSettings(std::shared_ptr<const NETransparentProxyNetworkSettings> settings,
                                  SettingsCompletion completion) override {
    applied.push_back(std::move(settings));
    completion(failWith);
  }

  std::optional<NEError> failWith;
  std::vector<std::shared_ptr<const NETransparentProxyNetworkSettings>> applied;
};

// A process as the ancestry walk sees it.
struct FakeProcess {
  std::int64_t parent;
  std::string signingID;
};

// The platform's 32-byte audit token: eight native-endian 32-bit words, the PID in the sixth and
// the PID version in the eighth.
inline Bytes auditToken(std::int32_t pid, std::int32_t pidVersion) {
  std::int32_t words[8] = {501, 501, 20, 501, 20, pid, 100001, pidVersion};
  Bytes out(sizeof words);
  std::memcpy(out.data(), words, sizeof words);
  return out;
}

class ProviderHarness {
 public:
  static constexpr const char* kAgent = "/usr/bin/agent";

  explicit ProviderHarness(std::uint64_t seed = 1)
      : env(SimulatedRuntime::create({.seed = seed})),
        framework(env->makeQueue("framework", QualityOfService::Default)),
        connections(std::make_shared<ScriptedConnectionFactory>()),
        bridge(std::make_shared<RecordingBridge>()),
        tunnelHost(std::make_shared<RecordingTunnelHost>()) {
    TransparentProxyProvider::Services services;
    services.runtime = env;
    services.connections = connections;
    services.bridge = bridge;
    services.parentPIDOf = [this](std::int64_t pid) -> std::optional<std::int64_t> {
      auto it = processes.find(pid);
      if (it == processes.end()) return std::nullopt;
      return it->second.parent;
    };
    services.signingIDOf = [this](std::int64_t pid) -> std::optional<std::string> {
      auto it = processes.find(pid);
      if (it == processes.end()) return std::nullopt;
      return it->second.signingID;
    };
    provider = TransparentProxyProvider::create(std::move(services));
    provider->attachTunnelHost(tunnelHost);
  }

  // A relay still running holds its flow and connections in a cycle through their pending
  // completions; end every one, as its peers would, so nothing outlives the test.
  ~ProviderHarness() {
    for (int round = 0; round < 3; ++round) {
      for (const auto& connection : connections->made()) {
        const auto state = connection->state();
        if (state != NWConnectionState::Kind::Failed && state != NWConnectionState::Kind::Cancelled) {
          connection->fail(ECONNRESET);
        }
      }
      env->advance(std::chrono::seconds(400));
    }
  }

  // Starts the proxy with `options` and returns what the start completion reported.
  std::optional<NEError> start(std::optional<Json> options) {
    std::optional<NEError> reported{NEError{-1, "completion never called"}};
    provider->startProxy(std::move(options), [&](std::optional<NEError> e) { reported = e; });
    env->runUntilIdle();
    return reported;
  }
  // Starts with a front door on port 9000 watching kAgent.
  void startWatchingAgent() {
    start(Json{{"frontDoorPort", 9000}, {"watchedSigningIDs", {kAgent}}});
    bridge->clear();
  }

  std::shared_ptr<ScriptedTCPFlow> tcpFlow(const std::string& signingID, std::int32_t pid = 4242,
                                           std::int32_t pidVersion = 7,
                                           std::optional<NWHostEndpoint> remote =
                                               NWHostEndpoint{"198.18.0.10", "443"}) {
    return std::make_shared<ScriptedTCPFlow>(
        framework, NEFlowMetaData{signingID, auditToken(pid, pidVersion)}, std::move(remote));
  }
  std::shared_ptr<ScriptedUDPFlow> udpFlow(const std::string& signingID, std::int32_t pid = 4242) {
    return std::make_shared<ScriptedUDPFlow>(NEFlowMetaData{signingID, auditToken(pid, 7)});
  }

  // Offers `flow` to the provider and runs until idle; returns whether it was taken.
  bool offer(const std::shared_ptr<NEAppProxyFlow>& flow) {
    const bool taken = provider->handleNewFlow(flow);
    env->runUntilIdle();
    return taken;
  }

  Bytes message(const std::string& text) {
    Bytes reply;
    provider->handleAppMessage(bytesOf(text), [&](const std::optional<Bytes>& r) { reply = r.value_or(Bytes{}); });
    return reply;
  }

  ScopedLogCapture log;
  std::shared_ptr<SimulatedRuntime> env;
  std::shared_ptr<DispatchQueue> framework;
  std::shared_ptr<ScriptedConnectionFactory> connections;
  std::shared_ptr<RecordingBridge> bridge;
  std::shared_ptr<RecordingTunnelHost> tunnelHost;
  std::map<std::int64_t, FakeProcess> processes;
  std::shared_ptr<TransparentProxyProvider> provider;
};

}  // namespace tarnwick
