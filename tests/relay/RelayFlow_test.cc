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

Trail direct(const std::string& reason) {
  return {"circuit:failure", "relay.failopen:" + reason, "relay.close"};
}
Trail session(Trail middle) {
  middle.insert(middle.begin(), "retain");
  middle.push_back("release");
  return middle;
}
Trail failedOver(const std::string& reason) {
  return session({"circuit:failure", "relay.failopen:" + reason,
                  "relay.failopen:passthrough_dial_spliced", "relay.close"});
}
const Trail kFailoverFailed =
    session({"circuit:failure", "relay.failopen:passthrough_dial", "relay.close"});
const Trail kCommitted = session({"circuit:success", "relay.close"});
const Trail kSevered = session({"circuit:success", "sever", "relay.close"});
const Trail kIdle = session({"circuit:success", "relay.midstream_idle", "relay.close"});

const std::string kRedialRefused = "front-door failed (Connection refused) — RE-DIALING once";
const std::string kRedialWaiting = "front-door waiting (Network is unreachable) — RE-DIALING once";
const std::string kTimeout = "front-door handshake exceeded 2.500000s — failing OPEN";
const std::string kNoAck = "relay: front-door ack not received — failing open";
const std::string kDirect = "failing OPEN: dialing 198.18.0.10:443 direct";
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
  std::string port = "443";
  std::uint16_t frontDoorPort = RelayHarness::kFrontDoorPort;
};

std::vector<Case> cases() {
  std::vector<Case> out = {
      // The handshake fails open; the direct leg then carries the flow until the agent ends.
      {"X X ^ >|", direct("relay-failed"), {kRedialRefused, "on re-dial", kDirect}},
      {"~ ~ ^ >|", direct("relay-waiting"), {kRedialWaiting, "waiting (", kDirect}},
      {"~ X ^ >|", direct("relay-failed"), {kRedialWaiting, "failed (", kDirect}},
      {"# ^ x ^ >|", direct("preamble-send-failed"), {"send failed: Broken pipe", kDirect}},
      {"^ <HTTP/1.1-407\r\n\r\n ^ >|", direct("no-ack"), {kNoAck, kDirect}},
      {"^ <| ^ >|", direct("no-ack"), {kNoAck, kDirect}},
      {"^ <HTTP/1.1-200! ^ >|", direct("no-ack"), {kNoAck, kDirect}},
      {"+3 ^ >|", direct("handshake-timeout"), {kTimeout, kDirect}},
      // The cancelled attempt then completes its pending read: logged, but already settled.
      {"^ +3 ^ >|", direct("handshake-timeout"), {kTimeout, kDirect, kNoAck}},
      // One budget from the start of the relay covers the redial too.
      {"+2 ~ +0.499 =0 +0.001 ^ >|",
       direct("handshake-timeout"),
       {kRedialWaiting, kTimeout, kDirect}},
      // What follows the acknowledgement is not the response.
      {"^ <HTTP/1.1-200\r\n\r\nnot-the-response +3 >|", session({"relay.close"}), {}},
      // However the direct leg ends, it ends once.
      {"X X ^ >hello <reply >|", direct("relay-failed"), {}, "reply"},
      {"X X ^ >| <late", direct("relay-failed")},  // at once, a reply in flight or not
      {"X X ^ >!", direct("relay-failed")},
      {"X X ^ <reply <bye|", direct("relay-failed"), {}, "replybye"},
      {"X X ^ <x!", direct("relay-failed"), {}, "x"},
      {"X X ^ # >lost x", direct("relay-failed"), {}, "", ""},
      {"X X ^ w <unwritten", direct("relay-failed")},
      {"X X ^ < >still >|", direct("relay-failed")},  // an empty receive stops only its direction
      {"X X ~ +3600 ^ >late >|", direct("relay-failed")},  // a waiting dial is not a failed one
      {"X X X", {"circuit:failure", "relay.failopen:relay-failed"}},
      // A session ends once.
      {kUp + ">GET >|", session({"relay.close"})},
      {kUp + ">!", session({"relay.close"})},
      // Before the first response byte it fails over: the destination gets the replay, then what
      // was held during the dial and the replay's send, then the rest.
      {kUp + ">GET <| ^ >|", failedOver("passthrough_dial")},
      {kUp + "<! ^ >|", failedOver("passthrough_dial")},
      {kUp + "# >GET x ^ >|", failedOver("relay-write-failed")},
      {kUp + ">early <| >held # ^ >during y >more @ >live >|", failedOver("passthrough_dial")},
      {kUp + "<| ^ <reply <|", failedOver("passthrough_dial"), {}, "reply"},
      {kUp + "<| ^ ~", failedOver("passthrough_dial")},
      {kUp + ">a +19 >b +0.999 =1 +1.001 ^ >|", failedOver("ack-then-silence")},  // 20 s from start
      {kUp + ">*131072 <| ^ >|", failedOver("passthrough_dial")},  // a replay of exactly the cap
      {kUp + ">*131072 +25 ^ >|", failedOver("ack-then-silence")},
      {kUp + ">*131073 <|", session({"relay.close"})},  // one byte more: nothing to replay
      {kUp + ">*131073 +25", session({"relay.close"})},
      // A failover that cannot complete ends the session, without a retry.
      {kUp + ">hello <| ~ +60", kFailoverFailed, {}, "", ""},
      {kUp + ">hello <| X +60", kFailoverFailed, {}, "", ""},
      {kUp + ">hello <| >| ^", kFailoverFailed, {}, "", ""},  // the agent left first
      {kUp + ">hello <| # ^ x", kFailoverFailed, {}, "", ""},
      {kUp + "<|", kFailoverFailed, {}, "", nullptr, "abc"},
      {kUp + "<|", kFailoverFailed, {}, "", nullptr, "70000"},
      // The first response byte commits the session to the front door.
      {kUp + "<H <|", kSevered, {}, "H"},
      {kUp + "<H # >more x", kSevered, {}, "H"},
      {kUp + "<HTTP/1.1-204|", kCommitted, {}, "HTTP/1.1-204"},
      {kUp + "w <H", kCommitted},
      {kUp + "<H +299 >ping +299 =2 +2", kIdle, {}, "H"},  // 300 s without traffic either way
      {kUp + "<H +299 <pong +299 =2 +2 +600", kIdle, {}, "Hpong"},  // and nothing after
      // Port texts the destination is dialled on as 443.
      {"X X ^ >|", direct("relay-failed"), {}, "", nullptr, "00443"},
      {"X X ^ >|", direct("relay-failed"), {}, "", nullptr, "+443"},
  };
  out.push_back({.script = "^ >|",
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
    EXPECT_EQ(h.context->retainedCount(), 0u);
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
    if (last->endpoint().port.rawValue() != RelayHarness::kFrontDoorPort) {
      EXPECT_EQ(last->endpoint().port.rawValue(), 443);
      EXPECT_EQ(textOf(last->sent()), c.destinationGot ? c.destinationGot : textOf(sent));
      // The direct leg passes the agent's end on.
      const auto ends = [&](const char* step) { return c.script.find(step) != std::string::npos; };
      EXPECT_TRUE(h.context->count("retain") == 1 ||
                  last->writeShutDown() == (ends(">|") || ends(">!")));
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
    EXPECT_EQ(h.context->trail(), (Trail{"circuit:failure", "relay.failopen:handshake-timeout"}))
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

}  // namespace
}  // namespace tarnwick
