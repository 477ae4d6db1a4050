// The transparent-proxy provider on the simulated runtime: start options, the network rules
// handed to the host and the liveness beacon; which flows it takes over, what it tells the daemon
// about them and how a taken flow reaches the relay; and live replacement of the watch set.

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>
#include <sstream>

#include "bridge/DaemonChannel.h"
#include "platform/testing/CaptureLogSink.h"
#include "platform/testing/EventTrail.h"
#include "platform/testing/ScriptedConnection.h"
#include "platform/testing/ScriptedFlow.h"
#include "platform/testing/SimulatedRuntime.h"
#include "provider/TransparentProxyProvider.h"

namespace tarnwick {
namespace {

using namespace std::chrono_literals;
using Trail = std::vector<std::string>;

constexpr const char* kAgent = "/usr/bin/agent";
// init(1) → agent(100) → shell(200) → curl(300), and the agent's child 500: pid → parent, signing.
const std::map<std::int64_t, std::pair<std::int64_t, std::string>> kProcesses = {
    {100, {1, kAgent}},
    {200, {100, "/bin/sh"}},
    {300, {200, "/usr/bin/curl"}},
    {500, {100, "/usr/bin/tool"}}};

// The daemon bridge and the tunnel host, recording what the provider hands them.
struct Recorder : DaemonChannel, NETunnelHost {
  void adoptPath(std::string path, bool real) override { adopted.emplace_back(path, real); }
  void send(Json event) override { events.push_back(std::move(event)); }
  void recordCommittedSeverIfUnhealthy() override {}
  void applyTunnelNetworkSettings(std::shared_ptr<const NETransparentProxyNetworkSettings> settings,
                                  SettingsCompletion completion) override {
    applied.push_back(std::move(settings));
    completion(failWith);
  }

  std::vector<std::pair<std::string, bool>> adopted;
  std::vector<Json> events;
  std::vector<std::shared_ptr<const NETransparentProxyNetworkSettings>> applied;
  std::optional<NEError> failWith;
};

// The platform's 32-byte audit token: eight native-endian 32-bit words, the PID in the sixth and
// the PID version in the eighth.
Bytes auditToken(std::int32_t pid, std::int32_t pidVersion) {
  std::int32_t words[8] = {501, 501, 20, 501, 20, pid, 100001, pidVersion};
  Bytes out(sizeof words);
  std::memcpy(out.data(), words, sizeof words);
  return out;
}

// One provider on the simulated runtime (a single thread) with scripted connections and flows,
// and the process table above for the ancestry walk.
struct ProviderHarness {
  ProviderHarness() {
    TransparentProxyProvider::Services services;
    services.runtime = env;
    services.connections = connections;
    services.bridge = host;
    services.parentPIDOf = [](std::int64_t pid) -> std::optional<std::int64_t> {
      auto it = kProcesses.find(pid);
      return it == kProcesses.end() ? std::nullopt : std::optional(it->second.first);
    };
    services.signingIDOf = [](std::int64_t pid) -> std::optional<std::string> {
      auto it = kProcesses.find(pid);
      return it == kProcesses.end() ? std::nullopt : std::optional(it->second.second);
    };
    provider = TransparentProxyProvider::create(std::move(services));
    provider->attachTunnelHost(host);
  }

  // A relay still running holds its flow and connections in a cycle through their pending
  // completions; end every one, as its peers would, so nothing outlives the test.
  ~ProviderHarness() {
    env->advance(400s);  // handshake budgets run out first and dial directly
    for (const auto& c : connections->made()) {
      if (!c->cancelled() && c->state() != NWConnectionState::Kind::Failed) c->fail(ECONNRESET);
    }
    env->advance(400s);
  }

  // Starts the proxy with `options` and returns what the start completion reported.
  std::optional<NEError> start(std::optional<Json> options) {
    std::optional<NEError> reported{NEError{-1, "completion never called"}};
    provider->startProxy(std::move(options), [&](std::optional<NEError> e) { reported = e; });
    env->runUntilIdle();
    return reported;
  }
  // Starts with a front door on port 9000 watching the agent and PID 500, then forgets what the
  // start said.
  void startWatching() {
    start(Json{{"frontDoorPort", 9000}, {"watchedSigningIDs", {kAgent}}, {"watchedPIDs", {500}}});
    host->events.clear();
    log->clear();
  }

  std::shared_ptr<ScriptedTCPFlow> flow(const std::string& signingID, std::int32_t pid = 4242,
                                        std::int32_t pidVersion = 7) {
    return std::make_shared<ScriptedTCPFlow>(framework,
                                             NEFlowMetaData{signingID, auditToken(pid, pidVersion)},
                                             NWHostEndpoint{"198.18.0.10", "443"});
  }
  // Offers `flow` to the provider and runs until idle; returns whether it was taken.
  bool offer(const std::shared_ptr<NEAppProxyFlow>& flow) {
    const bool taken = provider->handleNewFlow(flow);
    env->runUntilIdle();
    return taken;
  }
  Trail trail() const { return eventTrail(host->events); }

  ScopedLogCapture log;
  std::shared_ptr<SimulatedRuntime> env = SimulatedRuntime::create();
  std::shared_ptr<DispatchQueue> framework = env->makeQueue("framework", QualityOfService::Default);
  std::shared_ptr<ScriptedConnectionFactory> connections =
      std::make_shared<ScriptedConnectionFactory>();
  std::shared_ptr<Recorder> host = std::make_shared<Recorder>();
  std::shared_ptr<TransparentProxyProvider> provider;
};

// A port is a number in range (a fraction truncates, a Boolean counts as 0 or 1) or decimal text.
TEST(ProviderStartTest, PortOptionIsAnUnsignedSixteenBitValueOrNothing) {
  const std::pair<Json, std::optional<std::uint16_t>> cases[] = {
      {8443, 8443}, {"8443", 8443}, {0, 0},       {65535, 65535}, {8443.9, 8443},
      {true, 1},    {"8443 ", {}},  {"-1", {}},   {"65536", {}},  {"abc", {}},
      {70000, {}},  {-5, {}},       {{1, 2}, {}}, {nullptr, {}}};
  for (const auto& [value, expected] : cases) {
    EXPECT_EQ(TransparentProxyProvider::asUInt16(&value), expected) << value;
  }
  EXPECT_EQ(TransparentProxyProvider::asUInt16(nullptr), std::nullopt);
}

// The options are applied, the host is handed its rules, and the beacon beats at once and then
// every five seconds until the proxy stops or the provider is gone; a host that cannot apply the
// rules is told so.
TEST(ProviderStartTest, AppliesTheOptionsHandsTheHostItsRulesAndBeats) {
  ProviderHarness h;
  EXPECT_EQ(h.start(Json::parse(R"({"frontDoorPort": "8443", "frontDoorHost": "::1",
      "socketPath": "/run/tw/ne.sock", "watchedSigningIDs": ["/usr/bin/a", "/usr/bin/b", ""],
      "watchedPIDs": [12, "13", "x"]})")),
            std::nullopt);
  std::string applied = "TransparentProxyProvider: tunnel settings applied; front-door=::1:8443";
  EXPECT_EQ(h.log->messages(), (Trail{"TransparentProxyProvider.startProxy: socket=/run/tw/ne.sock "
                                      "real=true gotConfig=true",
                                      applied + " watchedSigningIDs=2 watchedPIDs=2"}));
  EXPECT_EQ(h.host->adopted.at(0), std::make_pair(std::string("/run/tw/ne.sock"), true));
  // Values it cannot take keep the ones before; the watch set is replaced whole.
  h.start(Json{{"frontDoorPort", "8443 "}, {"frontDoorHost", ""}});
  EXPECT_EQ(h.log->messages().back(), applied + " watchedSigningIDs=0 watchedPIDs=0");
  // Every outbound TCP flow but those to loopback, link-local and private IPv4 networks.
  const auto& settings = *h.host->applied.at(0);
  std::string rules = settings.tunnelRemoteAddress;
  for (const auto* list : {&settings.includedNetworkRules, &settings.excludedNetworkRules}) {
    for (const auto& r : *list) {
      EXPECT_EQ(r, (NENetworkRule{r.remoteNetwork, r.remotePrefix, std::nullopt, 0,
                                  NENetworkRuleProtocol::TCP, NETrafficDirection::Outbound}));
      const auto network = r.remoteNetwork.value_or(NWHostEndpoint{"*", "*"});
      rules += " " + network.hostname + ":" + network.port + "/" + std::to_string(r.remotePrefix);
    }
    rules += " |";
  }
  EXPECT_EQ(rules,
            "127.0.0.1 *:*/0 | 127.0.0.0:0/8 ::1:0/128 169.254.0.0:0/16 10.0.0.0:0/8 "
            "172.16.0.0:0/12 192.168.0.0:0/16 |");
  h.host->failWith = NEError{17, "nftables unavailable"};
  EXPECT_EQ(h.start(std::nullopt).value_or(NEError{}).code, 17);
  EXPECT_EQ(h.log->messages().back(), "setTunnelNetworkSettings failed: nftables unavailable");
  const auto beats = [&](Duration advance) { return h.env->advance(advance), h.trail(); };
  EXPECT_EQ(beats(1s), Trail{"proxyext.alive"});  // due at once, within its 1 s leeway
  // Nanoseconds of the wall clock, which the simulation starts at 2026-01-01T00:00:00Z.
  EXPECT_EQ(h.host->events[0]["ts"].get<std::int64_t>() / 1'000'000'000, 1767225600);
  EXPECT_EQ(beats(3s).size(), 1u);   // t=4s
  EXPECT_EQ(beats(2s).size(), 2u);   // t=6s
  EXPECT_EQ(beats(10s).size(), 4u);  // t=16s
  h.start(std::nullopt);
  EXPECT_EQ(beats(1s).size(), 4u);  // a running beacon is not replaced by one that beats at once
  EXPECT_EQ(beats(4s).size(), 5u);  // t=21s
  bool stopped = false;
  h.provider->stopProxy(NEProviderStopReason::UserInitiated, [&] { stopped = true; });
  EXPECT_TRUE(stopped);
  EXPECT_EQ(beats(60s).size(), 5u);
  h.start(std::nullopt);
  EXPECT_EQ(beats(1s).size(), 6u);  // a fresh beacon beats at once again
  h.provider.reset();
  EXPECT_EQ(beats(30s).size(), 6u);
}

// Flows offered in turn to one provider, each "tcp|udp signing pid pidversion [how]" where how is
// "none" for a destination that cannot be named or "no-token" for a flow without an audit token:
// whether it is taken, the event the daemon hears, and what the log says. Between them, "msg" rows
// replace the whole watch set (or nothing), with their reply's "ok" in the second column.
TEST(ProviderIntakeTest, TakesWatchedFlowsAndHandsTheRestBack) {
  const std::tuple<std::string, bool, const char*, const char*> cases[] = {
      {"tcp /usr/bin/other 4242 7", false, "", ""},
      {"udp /usr/bin/other 4242 7", false, "", ""},
      {"udp /usr/bin/agent 4242 7", false, "quic.deny", "QUIC/UDP from watched pid=4242"},
      {"tcp /usr/bin/agent 4242 7 none", false, "", "has no resolvable remote endpoint"},
      {"tcp /usr/bin/tool 500 7", true, "relay.open", "relaying"},   // PID 500 bound to version 7
      {"tcp /usr/bin/agent 500 8", true, "relay.open", "relaying"},  // the signing match wins
      // The PID names another process now: passed through, though its parent is the agent.
      {"tcp /usr/bin/other 500 8", false, "", "pid=500 failed identity revalidation (pidversion=8"},
      {"tcp /usr/bin/curl 300 1", true, "relay.open", "pid=300 is a descendant of a watched agent"},
      {"tcp /bin/sh 200 1", true, "relay.open", "pid=200 is a descendant of a watched agent"},
      {"tcp /usr/bin/curl 999 1", false, "", ""},  // its parent cannot be read
      {"tcp /usr/bin/tool 500 7 no-token", false, "", ""},
      {"tcp /usr/bin/agent 500 7 no-token", true, "relay.open", "pid=0 "},
      {"msg [1]", false, "", "malformed/empty watch-set delta (3 bytes) — leaving gate UNCHANGED"},
      {"tcp /usr/bin/agent 4242 7", true, "relay.open", "relaying"},
      {R"(msg {"watchedSigningIDs":"[\"/usr/bin/agent\"]","watchedPIDs":[600]})", true, "",
       "watchedSigningIDs=1 watchedPIDs=1 identityBindings=0"},  // PID 500's binding is pruned
      {"msg {}", true, "", "watchedSigningIDs=0 watchedPIDs=0 identityBindings=0"},
      {"tcp /usr/bin/agent 4242 7", false, "", ""},
      {"tcp /usr/bin/curl 300 1", false, "", ""},
  };
  ProviderHarness h;
  h.startWatching();
  std::set<std::string> traces;
  for (const auto& [flow, taken, event, logged] : cases) {
    SCOPED_TRACE(flow);
    std::istringstream words(flow);
    std::string protocol, signing, how;
    std::int32_t pid = 0, version = 0;
    words >> protocol >> signing >> pid >> version >> how;
    if (protocol == "msg") {
      Bytes reply;
      h.provider->handleAppMessage(bytesOf(flow.substr(4)), [&](auto r) { reply = r.value(); });
      EXPECT_EQ(textOf(reply), taken ? R"({"ok":true})" : R"({"ok":false})");
    } else {
      NEFlowMetaData meta{signing, auditToken(pid, version)};
      if (how == "no-token") meta.sourceAppAuditToken.reset();
      std::optional<NWHostEndpoint> remote = NWHostEndpoint{"198.18.0.10", "443"};
      if (how == "none") remote.reset();
      std::shared_ptr<NEAppProxyFlow> offered = std::make_shared<ScriptedUDPFlow>(meta);
      if (protocol == "tcp") offered = std::make_shared<ScriptedTCPFlow>(h.framework, meta, remote);
      EXPECT_EQ(h.offer(offered), taken);
    }
    EXPECT_EQ(h.trail(), *event ? Trail{event} : Trail{});
    EXPECT_EQ(h.log->countContaining(logged), *logged ? 1u : h.log->messages().size());
    for (const auto& e : h.host->events) {  // what the daemon hears names the flow
      EXPECT_EQ(e["signing_id"], signing);
      EXPECT_EQ(e["pid"], how == "no-token" ? 0 : pid);
      EXPECT_TRUE(!taken || traces.insert(e.value("trace", "")).second);  // a fresh trace each
    }
    h.host->events.clear();
    h.log->clear();
  }
}

// Three front-door failures open the circuit: watched flows then go direct with "circuit-open"
// until, after the cool-down, one probe is relayed. The daemon hears of it before it starts, with
// a trace the front door gets too; the provider's table keeps its session until it ends, and its
// answer closes the circuit. Without a front door the circuit is not asked.
TEST(ProviderIntakeTest, CircuitOpensAfterThreeFailuresAndAProbeThatAnswersClosesIt) {
  ProviderHarness h;
  h.startWatching();
  for (int i = 0; i < 3; ++i) h.provider->circuitRecordFailure();
  EXPECT_FALSE(h.offer(h.flow(kAgent)));
  EXPECT_NE(h.log->messages().back().find("front-door circuit OPEN"), std::string::npos);
  EXPECT_TRUE(h.connections->made().empty());
  h.env->advance(61s);
  h.host->events.clear();
  auto probe = h.flow(kAgent);
  EXPECT_TRUE(h.offer(probe));
  EXPECT_FALSE(h.offer(h.flow(kAgent)));  // everyone else waits for its outcome
  EXPECT_EQ(h.trail(), (Trail{"relay.open", "relay.failopen:circuit-open"}));
  Json open = h.host->events[0];
  const std::string trace = open["trace"];
  EXPECT_EQ(trace.find_first_not_of("0123456789abcdef"), std::string::npos);
  open.erase("ts"), open.erase("trace");
  EXPECT_EQ(open.dump(), R"({"dest_host":"198.18.0.10","dest_port":443,"kind":"relay.open",)"
                         R"("pid":4242,"signing_id":"/usr/bin/agent"})");
  EXPECT_EQ(trace.size(), 16u);
  const auto frontDoor = h.connections->last();
  frontDoor->becomeReady();
  frontDoor->deliver(bytesOf("HTTP/1.1 200 Connection established\r\n\r\n"));
  frontDoor->deliver(bytesOf("H"));  // the first response byte: a success for the circuit
  h.env->runUntilIdle();
  EXPECT_NE(textOf(frontDoor->sent()).find("X-Brask-Trace: " + trace + "\r\n"), std::string::npos);
  EXPECT_EQ(h.provider->activeSessionCountForTest(), 1u);
  EXPECT_TRUE(h.offer(h.flow(kAgent)));  // closed again
  probe->agentEnds();  // a half-close: the session lasts until the front door ends too
  h.env->runUntilIdle();
  EXPECT_EQ(h.provider->activeSessionCountForTest(), 1u);
  frontDoor->deliverEnd();
  h.env->runUntilIdle();
  EXPECT_EQ(h.provider->activeSessionCountForTest(), 0u);
  h.start(Json{{"frontDoorPort", 0}, {"watchedSigningIDs", {kAgent}}});
  EXPECT_FALSE(h.offer(h.flow(kAgent)));
  EXPECT_NE(h.log->messages().back().find("no front-door port configured"), std::string::npos);
  EXPECT_EQ(h.trail().back(), "relay.close");  // the probe's end, and nothing since
}

}  // namespace
}  // namespace tarnwick
