#pragma once
// Test support for the relay engine: a provider double that records what the engine tells it, and
// a harness that runs one engine on the simulated runtime with scripted connections and flows.

#include <gtest/gtest.h>

#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/testing/CaptureLogSink.h"
#include "platform/testing/CaseName.h"
#include "platform/testing/EventTrail.h"
#include "platform/testing/ScriptedConnection.h"
#include "platform/testing/ScriptedFlow.h"
#include "platform/testing/SimulatedRuntime.h"
#include "relay/RelayContext.h"
#include "relay/RelayEngine.h"
#include "relay/RelaySession.h"

namespace tarnwick {

class FakeRelayContext : public RelayContext {
 public:
  static constexpr std::int64_t kTimestampNs = 1767225600123456789;

  void circuitRecordFailure() override {
    std::lock_guard<std::mutex> lock(mutex_);
    ++circuitFailures_;
  }
  void circuitRecordSuccess() override {
    std::lock_guard<std::mutex> lock(mutex_);
    ++circuitSuccesses_;
  }
  void retainSession(const std::shared_ptr<RelaySession>& session) override {
    std::lock_guard<std::mutex> lock(mutex_);
    ++retains_;
    retained_[session.get()] = session;
  }
  void releaseSession(const RelaySession* session) override {
    std::shared_ptr<RelaySession> released;
    std::lock_guard<std::mutex> lock(mutex_);
    ++releases_;
    if (auto it = retained_.find(session); it != retained_.end()) {
      released = std::move(it->second);
      retained_.erase(it);
    }
  }
  std::int64_t currentTimestampNs() const override { return kTimestampNs; }
  void sendEvent(Json event) override {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(std::move(event));
  }
  void recordCommittedSeverIfUnhealthy() override {
    std::lock_guard<std::mutex> lock(mutex_);
    ++severs_;
  }

  std::vector<Json> events() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
  }
  std::vector<Json> ofKind(const std::string& kind) const {
    std::vector<Json> out;
    for (const auto& e : events()) {
      if (e.value("kind", "") == kind) out.push_back(e);
    }
    return out;
  }
  // "kind" or "kind:reason" of every event, in order.
  std::vector<std::string> eventTrail() const { return tarnwick::eventTrail(events()); }
  int circuitFailures() const { return read(circuitFailures_); }
  int circuitSuccesses() const { return read(circuitSuccesses_); }
  int retains() const { return read(retains_); }
  int releases() const { return read(releases_); }
  int severs() const { return read(severs_); }
  std::size_t retainedCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return retained_.size();
  }
  std::shared_ptr<RelaySession> onlySession() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return retained_.size() == 1 ? retained_.begin()->second : nullptr;
  }

 private:
  int read(const int& counter) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return counter;
  }

  mutable std::mutex mutex_;
  int circuitFailures_ = 0;
  int circuitSuccesses_ = 0;
  int retains_ = 0;
  int releases_ = 0;
  int severs_ = 0;
  std::vector<Json> events_;
  std::map<const RelaySession*, std::shared_ptr<RelaySession>> retained_;
};

inline Bytes patternBytes(std::size_t size, std::size_t offset = 0) {
  Bytes out(size);
  for (std::size_t i = 0; i < size; ++i) out[i] = static_cast<std::uint8_t>((offset + i) * 31 + 7);
  return out;
}

inline Bytes concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

// One engine with a front door at 127.0.0.1:9000, on the simulated runtime. Connections are made
// in order: front-door attempts first, then direct connections.
class RelayHarness {
 public:
  static constexpr std::uint16_t kFrontDoorPort = 9000;
  static constexpr const char* kAck = "HTTP/1.1 200 Connection established\r\n\r\n";

  // A Blocking `frameworkKind` runs flow completions on a real thread of their own, as the
  // framework does, concurrently with the simulated relay queues.
  explicit RelayHarness(std::uint64_t seed = 1, RelayTiming timing = {},
                        QueueKind frameworkKind = QueueKind::Serial)
      : frameworkKind_(frameworkKind),
        env(SimulatedRuntime::create({.seed = seed})),
        framework(env->makeQueue("framework", QualityOfService::Default, frameworkKind)),
        connections(std::make_shared<ScriptedConnectionFactory>()),
        context(std::make_shared<FakeRelayContext>()),
        engine(env, connections, context, timing) {
    engine.setFrontDoor("127.0.0.1", kFrontDoorPort);
  }

  // A real framework thread may still be finishing a completion that holds the last reference to
  // a flow (and through it to the thread's own queue); let it finish first.
  ~RelayHarness() { drainFramework(); }

  // Waits until a real framework thread has run everything handed to it so far.
  void drainFramework() {
    if (frameworkKind_ != QueueKind::Blocking) return;
    std::promise<void> drained;
    framework->async([&drained] { drained.set_value(); });
    drained.get_future().wait();
  }

  std::shared_ptr<ScriptedTCPFlow> makeFlow(const FlowTarget& target = defaultTarget()) {
    return std::make_shared<ScriptedTCPFlow>(framework,
                                             NEFlowMetaData{"/usr/bin/agent", std::nullopt},
                                             NWHostEndpoint{target.host, target.port});
  }

  static FlowTarget defaultTarget() { return {"198.18.0.10", "443"}; }

  // Relays a new flow to `target` and runs until idle.
  std::shared_ptr<ScriptedTCPFlow> relay(const FlowTarget& target = defaultTarget()) {
    auto flow = makeFlow(target);
    engine.relay(flow, target, 4242, "/usr/bin/agent", "9f3c0a1b2c3d4e5f");
    env->runUntilIdle();
    return flow;
  }

  // Relays a new flow whose first front-door attempt accepts and acknowledges: a running session.
  std::shared_ptr<ScriptedTCPFlow> relayToSession(const FlowTarget& target = defaultTarget()) {
    auto flow = relay(target);
    auto frontDoor = connection(0);
    frontDoor->becomeReady();
    frontDoor->deliver(bytesOf(kAck));
    env->runUntilIdle();
    return flow;
  }

  std::shared_ptr<ScriptedConnection> connection(std::size_t index) const {
    const auto made = connections->made();
    return index < made.size() ? made[index] : nullptr;
  }
  std::size_t connectionCount() const { return connections->made().size(); }
  bool isFrontDoor(const ScriptedConnection& c) const {
    return c.endpoint().host == "127.0.0.1" && c.endpoint().port.rawValue() == kFrontDoorPort;
  }
  // Payload the front door received after the preamble.
  static Bytes afterPreamble(const ScriptedConnection& c) {
    const Bytes sent = c.sent();
    const auto text = textOf(sent);
    const auto end = text.find("\r\n\r\n");
    if (end == std::string_view::npos) return {};
    return Bytes(sent.begin() + static_cast<long>(end + 4), sent.end());
  }

  const QueueKind frameworkKind_;
  ScopedLogCapture log;
  std::shared_ptr<SimulatedRuntime> env;
  std::shared_ptr<DispatchQueue> framework;
  std::shared_ptr<ScriptedConnectionFactory> connections;
  std::shared_ptr<FakeRelayContext> context;
  RelayEngine engine;
};

// A relay whose front door has acknowledged: a running session at t=0.
class SessionFixture {
 public:
  SessionFixture()
      : flow(h.relayToSession()), frontDoor(h.connection(0)), started(h.env->monotonicNow()) {}

  // The direct connection of a failover, once dialled.
  std::shared_ptr<ScriptedConnection> direct() const { return h.connection(1); }
  void agentSends(const Bytes& bytes) {
    flow->agentSends(bytes);
    h.env->runUntilIdle();
  }
  // Moves the clock to `t` after the session started.
  void advanceTo(Duration t) { h.env->advance(started + t - h.env->monotonicNow()); }
  // Lets any failover complete, then ends the agent's side, so every session is over.
  void settle() {
    if (auto d = direct(); d && d->state() == NWConnectionState::Kind::Preparing) {
      d->becomeReady();
    }
    h.env->runUntilIdle();
    flow->agentEnds();
    h.env->runUntilIdle();
  }

  RelayHarness h;
  std::shared_ptr<ScriptedTCPFlow> flow;
  std::shared_ptr<ScriptedConnection> frontDoor;
  MonotonicTime started;
};

}  // namespace tarnwick
