// One relayed flow from start to end: the front-door handshake with its redial and budget, the
// direct leg it fails open to, the session after the acknowledgement, and the session's failover
// to the real destination.

#include <gtest/gtest.h>

#include "RelayHarness.h"
#include "relay/RelayWatchdog.h"

namespace tarnwick {
namespace {

// The front door accepts and acknowledges.
const std::string kUp = "^ <HTTP/1.1-200\r\n\r\n ";

// A handshake failure the front door is to blame for: one circuit failure, the fail-open, and the
// direct leg's close once both sides have ended.
Trail direct(const std::string& reason) {
  return {"circuit:failure", "relay.failopen:" + reason, "relay.close"};
}
// One that may be the destination's doing: the probe finds the front door alive.
Trail directSuspect(const std::string& reason) {
  return {"relay.failopen:" + reason, "circuit:success", "relay.close"};
}
Trail session(Trail middle) {
  middle.insert(middle.begin(), "retain");
  middle.push_back("release");
  return middle;
}
Trail failedOver(const std::string& reason) {
  return session({"relay.failopen:" + reason, "circuit:success",
                  "relay.failopen:passthrough_dial_spliced", "relay.close"});
}
const Trail kFailoverFailed =
    session({"relay.failopen:passthrough_dial", "circuit:success", "relay.close"});
const Trail kNoPortToFailOverTo = {"retain", "relay.failopen:passthrough_dial", "relay.close",
                                   "release", "circuit:success"};
const Trail kCommitted = session({"circuit:success", "relay.close"});
const Trail kSevered = session({"circuit:success", "sever", "relay.close"});
const Trail kIdle = session({"circuit:success", "relay.midstream_idle", "relay.close"});

const std::string kRedialRefused = "front-door failed (Connection refused) — RE-DIALING once";
const std::string kRedialWaiting = "front-door waiting (Network is unreachable) — RE-DIALING once";
const std::string kTimeout = "front-door handshake exceeded 2.500000s — failing OPEN";
const std::string kNoAck = "relay: front-door ack not received — failing open";
const std::string kDirect = "failing OPEN: dialing 198.18.0.10:443 direct";
const std::string kAlive = "front-door probe answered — front door alive";
// What follows "CONNECT 198.18.0.10:<port>" on the first front-door attempt, once it was ready.
const std::string kPreambleRest =
    " HTTP/1.1\r\nX-Brask-Pid: 4242\r\nX-Brask-Signing-Id: /usr/bin/agent\r\n"
    "X-Brask-Trace: 9f3c0a1b2c3d4e5f\r\n\r\n";

struct Case {
  std::string script;  // as RelayHarness's play() reads it
  Trail trail;
  std::vector<std::string> logged = {};  // what each line says, in order, where it matters
  const char* agentGot = "";
  const char* destinationGot = nullptr;  // when not everything the agent sent
  // A stream cut short on one side is reset on the other: the agent's flow, or the newest
  // connection.
  bool agentReset = false;
  bool upstreamReset = false;
  std::string port = "443";
  std::uint16_t frontDoorPort = RelayHarness::kFrontDoorPort;
};

std::vector<Case> cases() {
  std::vector<Case> out = {
      // The handshake fails open; the direct leg then carries the flow until both sides end.
      {"X X ^ >| <|", direct("relay-failed"), {kRedialRefused, "on re-dial", kDirect}},
      {"~ ~ ^ >| <|", direct("relay-waiting"), {kRedialWaiting, "waiting (", kDirect}},
      {"~ X ^ >| <|", direct("relay-failed"), {kRedialWaiting, "failed (", kDirect}},
      {"# ^ x ^ >| <|", direct("preamble-send-failed"), {"send failed: Broken pipe", kDirect}},
      {"^ <HTTP/1.1-407\r\n\r\n ^ >| <|", direct("no-ack"), {kNoAck, kDirect}},
      {"^ <| ^ >| <|", direct("no-ack"), {kNoAck, kDirect}},
      {"^ <HTTP/1.1-200! ^ >| <|", direct("no-ack"), {kNoAck, kDirect}},
      // A refusal with a well-formed status line proves the front door alive.
      {"^ <HTTP/1.1_407_Proxy_Authentication_Required\r\n\r\n ^ >| <|",
       {"circuit:success", "relay.failopen:no-ack", "relay.close"},
       {kNoAck, kDirect}},
      // Running out of time may be the destination's doing: the probe decides.
      {"+3 ^ >| <|", directSuspect("handshake-timeout"), {kTimeout, kDirect, kAlive}},
      // The cancelled attempt then completes its pending read: logged, but already settled.
      {"^ +3 ^ >| <|", directSuspect("handshake-timeout"), {kTimeout, kDirect, kNoAck, kAlive}},
      // One budget from the first dial covers the redial too.
      {"+2 ~ +0.499 =0 +0.001 ^ >| <|",
       directSuspect("handshake-timeout"),
       {kRedialWaiting, kTimeout, kDirect, kAlive}},
      // What follows the acknowledgement in the same read is the destination's first answer.
      {"^ <HTTP/1.1_200_OK\r\n\r\n220_ready_ >QUIT >| <|", kCommitted, {}, "220 ready "},
      // The direct leg passes each end on and ends once both sides have ended.
      {"X X ^ >hello <reply >| <|", direct("relay-failed"), {}, "reply"},
      {"X X ^ >| <late <|", direct("relay-failed"), {}, "late"},  // a reply after a half-close
      {"X X ^ <reply <bye| >more >|", direct("relay-failed"), {}, "replybye"},
      {"X X ~ +3600 ^ >late >| <|", direct("relay-failed")},  // a waiting dial is not a failed one
      // A reset or error on one side resets the other.
      {"X X ^ >!",
       direct("relay-failed"),
       {kRedialRefused, "on re-dial", kDirect,
        "relay: agent side of 198.18.0.10:443 cut short (gone) — reset carried to the upstream"},
       "",
       nullptr,
       false,
       true},
      {"X X ^ <x!",
       direct("relay-failed"),
       {kRedialRefused, "on re-dial", kDirect,
        "relay: upstream side of 198.18.0.10:443 cut short (Connection reset by peer) — reset "
        "carried to the agent"},
       "x",
       nullptr,
       true},
      {"X X ^ # >lost x", direct("relay-failed"), {}, "", "", true},
      {"X X ^ w <unwritten", direct("relay-failed"), {}, "", nullptr, false, true},
      {"X X ^ < >still >!", direct("relay-failed"), {}, "", nullptr, false, true},
      {"X X X", {"circuit:failure", "relay.failopen:relay-failed"}, {}, "", "", true},
      // A session passes each end on too: the agent's half-close still gets its answer, and the
      // upstream's end after it concludes the relay, where before it, it cuts the relay short.
      {kUp + ">GET >| <reply <|", kCommitted, {}, "reply"},
      {kUp + "<H <| >more >|", kSevered, {}, "H"},
      {kUp + "<HTTP/1.1_204| >|", kSevered, {}, "HTTP/1.1 204"},
      {kUp + ">!", session({"relay.close"}), {}, "", nullptr, false, true},
      {kUp + "<H <x!", kSevered, {}, "Hx", nullptr, true},
      {kUp + "<H # >more x", kSevered, {}, "H", nullptr, true},
      {kUp + "w <H", kCommitted, {}, "", nullptr, false, true},
      // Before the first response byte it fails over: the destination gets the replay, then what
      // was held during the dial and the replay's send, then the rest, then the agent's end.
      {kUp + ">GET <| ^ >| <|", failedOver("passthrough_dial")},
      {kUp + "<! ^ >| <|", failedOver("passthrough_dial")},
      {kUp + "# >GET x ^ >| <|", failedOver("relay-write-failed")},
      {kUp + ">early <| >held # ^ >during y >more @ >live >| <|", failedOver("passthrough_dial")},
      {kUp + ">hello >| <! ^ <|", failedOver("passthrough_dial")},  // ended before the failover
      // An end after the agent's own is the destination answering it, not the front door failing:
      // a failover would send the request a second time.
      {kUp + ">hello >| <|", session({"relay.close"})},
      {kUp + ">hello <| >| ^ <|", failedOver("passthrough_dial")},  // and during it
      {kUp + "<| ^ <reply <| >|", failedOver("passthrough_dial"), {}, "reply"},
      {kUp + ">a +19 >b +0.999 =1 +1.001 ^ >| <|", failedOver("ack-then-silence")},  // 20 s
      {kUp + ">*131072 <| ^ >| <|", failedOver("passthrough_dial")},  // a replay of exactly the cap
      {kUp + ">*131072 +25 ^ >| <|", failedOver("ack-then-silence")},
      {kUp + ">*131073 <|", session({"relay.close"})},  // one byte more: nothing to replay
      {kUp + ">*131073 +25", session({"relay.close"})},
      // A failover that cannot complete ends the session, without a retry, and resets the agent.
      {kUp + ">hello <| ~ +60", kFailoverFailed, {}, "", "", true},
      {kUp + ">hello <| X +60", kFailoverFailed, {}, "", "", true},
      {kUp + ">hello <| # ^ x", kFailoverFailed, {}, "", "", true},
      {kUp + "<| ^ ~", failedOver("passthrough_dial"), {}, "", nullptr, true},
      // An agent reset during the dial ends the session and the dial with it.
      {kUp + ">hello <| >!", kFailoverFailed, {}, "", ""},
      // A target port that is no port ends it at once; the probe's answer comes after.
      {kUp + "<|", kNoPortToFailOverTo, {}, "", nullptr, false, false, "abc"},
      {kUp + "<|", kNoPortToFailOverTo, {}, "", nullptr, false, false, "70000"},
      // After the first response byte, 300 s without traffic either way end the session.
      {kUp + "<H +299 >ping +299 =2 +2", kIdle, {}, "H"},
      {kUp + "<H +299 <pong +299 =2 +2 +600", kIdle, {}, "Hpong"},  // and nothing after
      // Port texts the destination is dialled on as 443.
      {"X X ^ >| <|", direct("relay-failed"), {}, "", nullptr, false, false, "00443"},
      {"X X ^ >| <|", direct("relay-failed"), {}, "", nullptr, false, false, "+443"},
  };
  out.push_back({.script = "^ >| <|",
                 .trail = {"relay.failopen:invalid-front-port", "relay.close"},
                 .logged = {"relay: invalid front-door port 0 — failing open", kDirect},
                 .frontDoorPort = 0});
  // A target port it cannot dial closes the flow with a line and no event.
  for (const char* port : {"", "https", "70000", "-1", "0", "+-1", " 443", "443x"}) {
    out.push_back(
        {.script = "X X",
         .trail = {"circuit:failure"},
         .logged = {kRedialRefused, "on re-dial",
                    "invalid target port " + std::string(port) + " (reason=relay-failed)"},
         .port = port});
  }
  return out;
}

TEST(RelayFlowTest, EachScriptedFlowEndsAsExpected) {
  for (const auto& c : cases()) {
    SCOPED_TRACE(::testing::PrintToString(c.script) + " to port " + c.port);
    RelayHarness h;
    h.engine.setFrontDoor("127.0.0.1", c.frontDoorPort);
    auto flow = h.relay({"198.18.0.10", c.port});
    const Bytes sent = play(h, *flow, c.script);
    EXPECT_EQ(h.context->trail(), c.trail);
    EXPECT_EQ(textOf(flow->written()), c.agentGot);
    EXPECT_TRUE(flow->readClosed() && flow->writeClosed());
    EXPECT_EQ(flow->rejected(), 0u);
    EXPECT_EQ(h.context->retainedCount(), 0u);
    // Nothing of the ended relay still holds the flow (the handshake's budget may still be
    // pending): only this test and the harness do.
    EXPECT_EQ(flow.use_count(), 2);
    const std::string got(textOf(h.connections->made()[0]->sent()));
    EXPECT_TRUE(got.empty() || got.starts_with("CONNECT 198.18.0.10:" + c.port + kPreambleRest));
    for (Json e : h.context->events()) {  // every event carries the flow's fields
      e.erase("kind"), e.erase("reason");
      EXPECT_EQ(e.dump(),
                R"({"dest_host":"198.18.0.10","dest_port":)" +
                    std::to_string(std::atoi(c.port.c_str())) +
                    R"(,"pid":4242,"signing_id":"/usr/bin/agent","ts":1767225600123456789})");
    }
    for (const auto& conn : h.connections->made()) {
      EXPECT_TRUE(conn->cancelled() || conn->state() == NWConnectionState::Kind::Failed);
    }
    const auto last = h.connections->last();
    EXPECT_EQ(flow->writeReset(), c.agentReset);
    EXPECT_EQ(last->reset(), c.upstreamReset);
    // The agent's end reaches whichever connection carries the flow last, after its bytes.
    EXPECT_EQ(last->writeShutDown(), c.script.find(">|") != std::string::npos);
    if (last->endpoint().port.rawValue() != RelayHarness::kFrontDoorPort) {
      EXPECT_EQ(last->endpoint().port.rawValue(), 443);
      EXPECT_EQ(textOf(last->sent()), c.destinationGot ? c.destinationGot : textOf(sent));
    }
    if (c.logged.empty()) continue;
    const auto lines = h.log->messages();
    ASSERT_EQ(lines.size(), c.logged.size()) << ::testing::PrintToString(lines);
    for (std::size_t i = 0; i < lines.size(); ++i)
      EXPECT_NE(lines[i].find(c.logged[i]), std::string::npos);
  }
}

// An acknowledgement at the budget's very instant loses, also when the seed queues its completion
// behind the budget's firing.
TEST(RelayFlowTest, AcknowledgementAtTheEndOfTheBudgetIsIgnored) {
  int raced = 0;
  for (std::uint64_t seed = 1; seed <= 20; ++seed) {
    RelayHarness h(seed);
    h.relay();
    auto frontDoor = h.connections->last();
    frontDoor->becomeReady();
    h.env->makeQueue("front door", QualityOfService::Default)->asyncAfter(2500ms, [&] {
      raced += !frontDoor->cancelled();
      frontDoor->deliver(bytesOf(RelayHarness::kAck));
    });
    h.env->advance(5s);
    EXPECT_EQ(h.context->trail(), (Trail{"relay.failopen:handshake-timeout", "circuit:success"}))
        << "seed " << seed;
  }
  EXPECT_GT(raced, 0) << "no seed queued the acknowledgement behind the budget";
}

// The watchdog behind the 20-second silence and the 300-second idle limits.
TEST(RelayWatchdogTest, SlidesWithEachKickAndFiresOnceUnlessCancelled) {
  auto env = SimulatedRuntime::create();
  auto queue = env->makeQueue("q", QualityOfService::Default);
  int fired = 0, cancelledFired = 0;
  auto dog = RelayWatchdog::create(queue, Seconds(20), [&] { ++fired; });
  auto cancelled = RelayWatchdog::create(queue, Seconds(20), [&] { ++cancelledFired; });
  env->advance(1h);  // not kicked yet: nothing fires
  cancelled->kick();
  cancelled->cancel();
  for (int i = 0; i < 100; ++i, env->advance(10s)) dog->kick();
  env->advance(9999ms);  // 19.999 s after the last kick
  EXPECT_EQ(fired, 0);
  env->advance(1001ms);  // the deadline and the whole of its 1 s leeway
  EXPECT_EQ(fired, 1);
  dog->kick();
  cancelled->kick();
  env->advance(60s);
  EXPECT_EQ(fired, 1);  // spent: kicks do nothing
  EXPECT_EQ(cancelledFired, 0);
}

// The provider goes away while the front door's acknowledgement is on its way, or before the
// handshake fails open: nobody is left to keep a session or to dial for the flow, so both legs
// are closed, silently, rather than left open with nothing to end them.
TEST(RelayFlowTest, ProviderGoneDuringTheHandshakeClosesTheFlow) {
  for (const std::string then : {"<HTTP/1.1_200_OK\r\n\r\nbanner", "<HTTP/1.1-407\r\n\r\n", "+3"}) {
    SCOPED_TRACE(then);
    RelayHarness h;
    auto flow = h.relay();
    play(h, *flow, "^");
    std::weak_ptr<FakeRelayContext> context = h.context;
    h.context.reset();
    const auto frontDoor = h.connections->last();
    if (then.starts_with('<')) frontDoor->deliver(bytesOf(then.substr(1)));
    h.env->advance(10s);
    EXPECT_TRUE(context.expired());
    EXPECT_TRUE(flow->readClosed() && flow->writeClosed());
    EXPECT_EQ(flow->written(), Bytes());
    EXPECT_TRUE(frontDoor->cancelled());
    EXPECT_EQ(h.connections->made().size(), 1u);  // no direct dial
  }
}

// A session whose provider has gone is dropped with the provider's table: nothing it had pending
// does anything any more.
TEST(RelayFlowTest, ProviderGoneMidRelayLeavesNothingRunning) {
  RelayHarness h;
  auto flow = h.relay();
  play(h, *flow, kUp + "<H");
  std::weak_ptr<RelaySession> session = h.context->onlySession();
  ASSERT_FALSE(session.expired());
  h.context.reset();  // drops the table and with it the session
  EXPECT_TRUE(session.expired());
  flow->agentSends(bytesOf("x"));
  h.connections->last()->deliver(bytesOf("y"));
  h.env->advance(600s);
  EXPECT_EQ(textOf(flow->written()), "H");
  EXPECT_EQ(h.connections->made().size(), 1u);
  EXPECT_EQ(h.probes->made().size(), 0u);
}

}  // namespace
}  // namespace tarnwick
