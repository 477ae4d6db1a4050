#pragma once
// Test support for the relay engine: a provider double that records what the engine tells it, and
// a harness that runs one engine on the simulated runtime with scripted connections and flows.

#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <sstream>

#include "platform/testing/CaptureLogSink.h"
#include "platform/testing/EventTrail.h"
#include "platform/testing/ScriptedConnection.h"
#include "platform/testing/ScriptedFlow.h"
#include "platform/testing/SimulatedRuntime.h"
#include "relay/RelayContext.h"
#include "relay/RelayEngine.h"
#include "relay/RelaySession.h"

namespace tarnwick {

using namespace std::chrono_literals;
using Trail = std::vector<std::string>;

// Keeps, in order, every event ("kind" or "kind:reason") and every call about the circuit
// ("circuit:failure", "circuit:success"), the session table ("retain", "release") and severs.
class FakeRelayContext : public RelayContext {
 public:
  static constexpr std::int64_t kTimestampNs = 1767225600123456789;

  void circuitRecordFailure() override { note("circuit:failure"); }
  void circuitRecordSuccess() override { note("circuit:success"); }
  void recordCommittedSeverIfUnhealthy() override { note("sever"); }
  void retainSession(const std::shared_ptr<RelaySession>& s) override { note("retain", s); }
  void releaseSession(const RelaySession* session) override {
    std::map<const RelaySession*, std::shared_ptr<RelaySession>>::node_type released;
    std::lock_guard<std::mutex> lock(mutex_);  // released after the lock, as the provider does
    trail_.push_back("release");
    released = retained_.extract(session);
  }
  std::int64_t currentTimestampNs() const override { return kTimestampNs; }
  void sendEvent(Json event) override { note(eventTrail({event})[0], nullptr, event); }

  std::vector<Json> events() const { return copy(events_); }
  Trail trail() const { return copy(trail_); }
  std::size_t count(const std::string& entry) const { return std::ranges::count(trail(), entry); }
  std::size_t retainedCount() const { return copy(retained_).size(); }
  // The one session the table holds, if exactly one.
  std::shared_ptr<RelaySession> onlySession() const {
    const auto retained = copy(retained_);
    return retained.size() == 1 ? retained.begin()->second : nullptr;
  }

 private:
  template <typename T>
  T copy(const T& member) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return member;
  }
  void note(std::string entry, std::shared_ptr<RelaySession> retained = nullptr,
            std::optional<Json> event = std::nullopt) {
    std::lock_guard<std::mutex> lock(mutex_);
    trail_.push_back(std::move(entry));
    if (retained) retained_[retained.get()] = std::move(retained);
    if (event) events_.push_back(std::move(*event));
  }

  mutable std::mutex mutex_;
  Trail trail_;
  std::vector<Json> events_;
  std::map<const RelaySession*, std::shared_ptr<RelaySession>> retained_;
};

inline Bytes patternBytes(std::size_t size, std::size_t offset = 0) {
  Bytes out(size);
  for (std::size_t i = 0; i < size; ++i) out[i] = static_cast<std::uint8_t>((offset + i) * 31 + 7);
  return out;
}

// How the front door answers a liveness probe.
enum class ProbeAnswer { Healthy, Refused, Silent, Garbage };

// Connections for liveness probes, each answered by `peer` as `answer` then says.
inline std::shared_ptr<ScriptedConnectionFactory> answeredProbes(
    std::function<ProbeAnswer()> answer, std::shared_ptr<DispatchQueue> peer) {
  auto probes = std::make_shared<ScriptedConnectionFactory>();
  probes->onMake = [answer = std::move(answer),
                    peer = std::move(peer)](const std::shared_ptr<ScriptedConnection>& c) {
    peer->async([c, how = answer()] {
      if (how == ProbeAnswer::Refused) return c->fail(ECONNREFUSED);
      c->becomeReady();
      if (how == ProbeAnswer::Healthy) c->deliver(bytesOf("HTTP/1.1 200 OK\r\n\r\n"));
      if (how == ProbeAnswer::Garbage) c->deliver(bytesOf("SSH-2.0-OpenSSH\r\n"));
    });
  };
  return probes;
}

// One engine with a front door at 127.0.0.1:9000, on the simulated runtime, relaying flows to
// 198.18.0.10:443 unless told otherwise. Connections are made in order: front-door attempts
// first, then the direct connection. Liveness probes dial through a factory of their own and are
// answered as `probeAnswer` says.
class RelayHarness {
 public:
  static constexpr std::uint16_t kFrontDoorPort = 9000;
  static constexpr const char* kAck = "HTTP/1.1 200 Connection established\r\n\r\n";
  inline static const FlowTarget kTarget{"198.18.0.10", "443"};

  // With `splicer`, sessions hand their legs to it once they can no longer fail over.
  explicit RelayHarness(std::uint64_t seed = 1, std::shared_ptr<StreamSplicer> splicer = nullptr)
      : env(SimulatedRuntime::create({.seed = seed})),
        framework(env->makeQueue("framework", QualityOfService::Default)),
        connections(std::make_shared<ScriptedConnectionFactory>()),
        context(std::make_shared<FakeRelayContext>()),
        engine(env, connections, context, {}, probes, std::move(splicer)) {
    engine.setFrontDoor("127.0.0.1", kFrontDoorPort);
  }

  // Whatever a test left running holds itself in a cycle through pending completions: its peers
  // end it here, until nothing is left.
  ~RelayHarness() {
    for (const auto& flow : flows) flow->agentEnds();
    for (int round = 0; round < 3; ++round) {  // a budget running out meanwhile dials anew
      for (const auto& c : connections->made()) {
        if (!c->cancelled() && c->state() != NWConnectionState::Kind::Failed) c->fail(ECONNRESET);
      }
      env->advance(400s);
    }
  }

  // An opened flow, as the engine is handed.
  std::shared_ptr<ScriptedTCPFlow> makeFlow(const FlowTarget& target = kTarget) {
    flows.push_back(
        std::make_shared<ScriptedTCPFlow>(framework, NEFlowMetaData{"/usr/bin/agent", std::nullopt},
                                          NWHostEndpoint{target.host, target.port}));
    flows.back()->open(std::nullopt, [](std::optional<NEError>) {});
    return flows.back();
  }

  // Relays a new flow to `target` and runs until idle.
  std::shared_ptr<ScriptedTCPFlow> relay(const FlowTarget& target = kTarget) {
    auto flow = makeFlow(target);
    engine.relay(flow, target, 4242, "/usr/bin/agent", "9f3c0a1b2c3d4e5f");
    env->runUntilIdle();
    return flow;
  }

  std::vector<std::shared_ptr<ScriptedTCPFlow>> flows;  // every flow made, for the destructor
  ScopedLogCapture log;
  std::shared_ptr<SimulatedRuntime> env;
  std::shared_ptr<DispatchQueue> framework;
  std::shared_ptr<ScriptedConnectionFactory> connections;
  ProbeAnswer probeAnswer = ProbeAnswer::Healthy;
  std::shared_ptr<ScriptedConnectionFactory> probes =
      answeredProbes([this] { return probeAnswer; }, env->makeQueue("probe peer", {}));
  std::shared_ptr<FakeRelayContext> context;
  RelayEngine engine;
};

// Plays a script of steps, separated by single spaces, against a relayed flow and the newest
// connection (a front-door attempt, or the destination once dialled), running the relay until idle
// after each step:
//   >text >*N >| >!  the agent sends text or N patterned bytes, ends its stream, or fails a read
//   <text <| <!      the connection delivers text, ends, or resets; "<text|" is text with the
//                    end, "<text!" text with a reset, a bare "<" an empty delivery; an "_" in a
//                    text stands for a space
//   ^ ~ X            the connection becomes ready, waits, or is refused
//   # y x @          its sends wait; the oldest waiting one completes, or fails; they complete
//                    on their own again
//   w +S =N          writes to the agent fail; S seconds pass; exactly N entries have joined the
//                    context's trail since the script began
// Returns everything the agent sent.
inline Bytes play(RelayHarness& h, ScriptedTCPFlow& flow, const std::string& script) {
  const std::size_t base = h.context->trail().size();
  Bytes sent;
  std::istringstream steps(script);
  for (std::string step; std::getline(steps, step, ' ');) {
    const auto c = h.connections->last();
    const char k = step[0];
    const std::string arg = step.substr(1);
    const bool end = arg.ends_with('|'), reset = arg.ends_with('!');
    std::string text = end || reset ? arg.substr(0, arg.size() - 1) : arg;
    std::ranges::replace(text, '_', ' ');
    if (k == '>' && end) flow.agentEnds();
    if (k == '>' && reset) flow.agentFails({5, "gone"});
    if (k == '>' && !end && !reset) {
      const Bytes b =
          arg.starts_with('*') ? patternBytes(std::stoul(arg.substr(1))) : bytesOf(text);
      sent.insert(sent.end(), b.begin(), b.end());
      flow.agentSends(b);
    }
    if (k == '<')
      c->deliver(text.empty() && (end || reset) ? std::nullopt : std::optional(bytesOf(text)), end,
                 reset ? std::optional(NWError::fromErrno(ECONNRESET)) : std::nullopt);
    if (k == '^') c->becomeReady();
    if (k == '~') c->wait(ENETUNREACH);
    if (k == 'X') c->fail(ECONNREFUSED);
    if (k == '#' || k == '@') c->setAutoCompleteSends(k == '@');
    if (k == 'y') c->completeSend();
    if (k == 'x') c->completeSend(NWError::fromErrno(EPIPE));
    if (k == 'w') flow.failWrites(NEError{32, "broken"});
    if (k == '+') h.env->advance(toDuration(Seconds(std::stod(arg))));
    if (k == '=' && h.context->trail().size() - base != std::stoul(arg)) ADD_FAILURE() << step;
    h.env->runUntilIdle();
  }
  return sent;
}

}  // namespace tarnwick
