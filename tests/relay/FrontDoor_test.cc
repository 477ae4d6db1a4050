// The front door's pieces on their own: the CONNECT preamble, the acknowledgement, the circuit
// breaker across flows and the redial within one.

#include <gtest/gtest.h>

#include <sstream>

#include "RelayHarness.h"
#include "relay/FrontDoorCircuit.h"
#include "relay/FrontDoorPreamble.h"
#include "relay/RelayDialPolicy.h"

namespace tarnwick {
namespace {

// IPv6 literals are bracketed once; each header is there only when it has a value.
TEST(FrontDoorPreambleTest, IsExactlyTheseBytes) {
  EXPECT_EQ(textOf(makePreamble({"2001:db8::1", "443"}, 4242, "agent-cli", "9f3c")),
            "CONNECT [2001:db8::1]:443 HTTP/1.1\r\nX-Brask-Pid: 4242\r\n"
            "X-Brask-Signing-Id: agent-cli\r\nX-Brask-Trace: 9f3c\r\n\r\n");
  EXPECT_EQ(textOf(makePreamble({"[fe80::1]", "443"}, 0, "", "")),
            "CONNECT [fe80::1]:443 HTTP/1.1\r\n\r\n");
  EXPECT_EQ(textOf(makePreamble({"example.com", "https"}, -17, "", "")),
            "CONNECT example.com:https HTTP/1.1\r\nX-Brask-Pid: -17\r\n\r\n");
  EXPECT_EQ(textOf(makePreamble({"10.0.0.5", "80"}, 0, "/usr/bin/curl", "0123")),
            "CONNECT 10.0.0.5:80 HTTP/1.1\r\nX-Brask-Signing-Id: /usr/bin/curl\r\n"
            "X-Brask-Trace: 0123\r\n\r\n");
}

// The liveness probe names no server but the front door itself.
TEST(FrontDoorPreambleTest, ProbeIsExactlyTheseBytes) {
  EXPECT_EQ(textOf(makeProbeRequest("127.0.0.1", 8443)),
            "OPTIONS * HTTP/1.1\r\nHost: 127.0.0.1:8443\r\n\r\n");
  EXPECT_EQ(textOf(makeProbeRequest("::1", 8443)),
            "OPTIONS * HTTP/1.1\r\nHost: [::1]:8443\r\n\r\n");
}

// The front door's reply delivered whole, and one byte at a time after an empty delivery so that
// the terminator is split across chunks at every position ("_" is a space). A trailing "|" ends
// the stream with the reply's last byte. A good head hands the flow to a session, whose first
// response is whatever followed the head; a well-formed refusal fails open and proves the front
// door alive; anything else fails open as a front-door failure; an incomplete head waits.
TEST(FrontDoorAckTest, JudgesTheHeadWhateverTheChunking) {
  const Trail good{"retain", "circuit:success"}, waits{};
  const Trail refused{"circuit:success", "relay.failopen:no-ack"};
  const Trail garbage{"circuit:failure", "relay.failopen:no-ack"};
  const struct {
    std::string reply;
    Trail verdict;
    const char* agentGot = "";
  } cases[] = {
      {"HTTP/1.1_200_Connection_established\r\n\r\n", {"retain"}},
      {"HTTP/1.1_407_Proxy_Authentication_Required\r\n\r\n", refused},
      {"HTTP/1.0_502_Bad_Gateway\r\nX-Code:_200\r\n\r\n", {"retain"}},  // "200" anywhere
      {"HTTP/1.1_503\r\n\r\n200", refused},  // what follows a refusal is not judged
      {"HTTP/1.1-407\r\n\r\n", garbage},     // not a status line
      {"SSH-2.0-OpenSSH_9.6\r\n\r\n", garbage},
      {"HTTP/1.1_200_\xc0\xaf\r\n\r\n", garbage},  // not UTF-8
      {"HTTP/1.1_200_OK\r\n", waits},
      {"HTTP/1.1_200_OK\r\n|", garbage},
      {std::string(8192, 'a'), waits},
      {std::string(8193, 'a'), garbage},
      {"200" + std::string(8186, 'x') + "\r\n\r\n", {"retain"}},  // complete at 8193 bytes held
      // The destination's first bytes, sent with the head, are its first response; a server that
      // greets and closes is carried, not failed over.
      {"HTTP/1.1_200_OK\r\n\r\n220_mail_ready\r\n", good, "220 mail ready\r\n"},
      {"HTTP/1.1_200_OK\r\n\r\nbye|", {"retain", "circuit:success", "sever"}, "bye"},
      // An acknowledgement ended at once: the front door let the flow down before any answer.
      {"HTTP/1.1_200_OK\r\n\r\n|",
       {"retain", "relay.failopen:passthrough_dial", "circuit:success"}},
  };
  for (const auto& c : cases) {
    for (const bool byteByByte : {false, true}) {
      SCOPED_TRACE(::testing::PrintToString(c.reply) + (byteByByte ? " byte by byte" : " whole"));
      RelayHarness h;
      auto flow = h.relay();
      std::string script = byteByByte ? "^ < <" : "^ <";
      for (std::size_t i = 0; i < c.reply.size(); ++i) {
        const bool split =
            byteByByte && i > 0 && !(i + 1 == c.reply.size() && c.reply.back() == '|');
        script += (split ? " <" : "") + c.reply.substr(i, 1);
      }
      play(h, *flow, script);
      EXPECT_EQ(h.context->trail(), c.verdict);
      EXPECT_EQ(textOf(flow->written()), c.agentGot);
    }
  }
}

// The circuit breaker is about the front door. A watched program dialling refused, blackholed or
// at-once-closing destinations as fast as it likes costs the circuit nothing; a front door that
// refuses, resets, answers garbage or accepts and stays silent is charged one failure per flow,
// or per probe when the flows come in a burst: one probe is in flight at a time.
TEST(FrontDoorBlameTest, OnlyAFailingFrontDoorCountsAgainstTheCircuit) {
  using Script = std::function<void(ScriptedConnection&)>;
  const Bytes ack = bytesOf(RelayHarness::kAck);
  const Script refusedDestination = [](ScriptedConnection& c) {
    c.becomeReady(), c.deliver(bytesOf("HTTP/1.1 502 Bad Gateway\r\n\r\n"));
  };
  const Script accepts = [](ScriptedConnection& c) { c.becomeReady(); };
  const Script closedAtOnce = [ack](ScriptedConnection& c) {
    c.becomeReady(), c.deliver(ack, true);
  };
  const Script resetAtOnce = [ack](ScriptedConnection& c) {
    c.becomeReady(), c.deliver(ack), c.deliver(std::nullopt, false, NWError::fromErrno(ECONNRESET));
  };
  const Script refuses = [](ScriptedConnection& c) { c.fail(ECONNREFUSED); };
  const Script resetsBeforeAck = [](ScriptedConnection& c) {
    c.becomeReady(), c.deliver(std::nullopt, false, NWError::fromErrno(ECONNRESET));
  };
  const Script garbage = [](ScriptedConnection& c) {
    c.becomeReady(), c.deliver(bytesOf("SSH-2.0-OpenSSH_9.6\r\n\r\n"));
  };
  const struct {
    const char* name;
    Script frontDoor;
    ProbeAnswer probe;
    bool burst;
    std::size_t failures;
  } cases[] = {
      {"refused destination", refusedDestination, ProbeAnswer::Healthy, false, 0},
      {"blackholed destination", accepts, ProbeAnswer::Healthy, false, 0},
      {"blackholed destinations at once", accepts, ProbeAnswer::Healthy, true, 0},
      {"destination closing at once", closedAtOnce, ProbeAnswer::Healthy, false, 0},
      {"destination resetting at once", resetAtOnce, ProbeAnswer::Healthy, true, 0},
      {"front door refusing", refuses, ProbeAnswer::Refused, false, 3},
      {"front door resetting", resetsBeforeAck, ProbeAnswer::Healthy, false, 3},
      {"front door answering garbage", garbage, ProbeAnswer::Garbage, false, 3},
      {"front door silent", accepts, ProbeAnswer::Silent, false, 3},
      {"front door silent to a burst", accepts, ProbeAnswer::Silent, true, 1},
      {"front door closing after acks", closedAtOnce, ProbeAnswer::Refused, false, 3},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    RelayHarness h;
    h.probeAnswer = c.probe;
    auto peer = h.env->makeQueue("peer", {});
    h.connections->onMake = [&](const std::shared_ptr<ScriptedConnection>& made) {
      const bool frontDoor = made->endpoint().port.rawValue() == RelayHarness::kFrontDoorPort;
      peer->async([made, script = frontDoor ? c.frontDoor : refuses] { script(*made); });
    };
    std::size_t mostInFlight = 0;
    h.probes->onMake = [&,
                        answer = h.probes->onMake](const std::shared_ptr<ScriptedConnection>& p) {
      const auto made = h.probes->made();
      mostInFlight = std::max<std::size_t>(mostInFlight, std::ranges::count_if(made, [](auto& m) {
                                             return !m->cancelled() &&
                                                    m->state() != NWConnectionState::Kind::Failed;
                                           }));
      answer(p);
    };
    const int flows = c.burst ? 40 : 3;
    for (int i = 0; i < flows; ++i) {
      auto flow = h.makeFlow();
      flow->agentSends(bytesOf("GET / HTTP/1.1\r\n\r\n"));
      h.engine.relay(flow, RelayHarness::kTarget, 4242, "/usr/bin/agent", "");
      if (!c.burst) h.env->advance(30s);
    }
    h.env->advance(30s);
    EXPECT_EQ(h.context->count("circuit:failure"), c.failures);
    EXPECT_LE(mostInFlight, 1u);
    EXPECT_LE(h.probes->made().size(), 3u);
    for (const auto& probe : h.probes->made()) {
      EXPECT_TRUE(probe->sent().empty() ||
                  probe->sent() == makeProbeRequest("127.0.0.1", RelayHarness::kFrontDoorPort));
    }
  }
}

// Made-up wall-clock times, in seconds from an arbitrary origin.
WallTime at(double seconds) {
  return WallTime(std::chrono::seconds(1767225600)) +
         std::chrono::duration_cast<WallTime::duration>(Seconds(seconds));
}

// A timeline is a list of steps "F<t>" (a failure at t), "S<t>" (a success) and "A<t>+" or "A<t>-"
// (asks at t whether a relay may go, and must be told yes or no).
TEST(FrontDoorCircuitTest, FollowsTheTimeline) {
  const auto closed = FrontDoorCircuitState::closed(), halfOpen = FrontDoorCircuitState::halfOpen();
  const auto openAt = [](double t) { return FrontDoorCircuitState::open(at(t)); };
  const std::pair<const char*, FrontDoorCircuitState> cases[] = {
      {"A0+ F0 A1+ F1 A2+", closed},
      {"F0 F10 A58+ F59 A59- A100- A118.999-", openAt(59)},
      // One probe after the cool-down; a probe that never reports keeps everyone else out.
      {"F0 F10 F59 A119+ A119- A500- A100000-", halfOpen},
      {"F0 F30 F65 A65+", closed},                  // the failure at 0 fell out of the window
      {"F0 F30 F60", openAt(60)},                   // one exactly at the cut-off still counts
      {"F0 F10 S20 F30 F31 A31+ F32", openAt(32)},  // a success forgives what came before
      {"F0 F10 F59 A119+ S120 F121 F122 A122+", closed},
      {"F0 F10 F59 A119+ F130 A189.9-", openAt(130)},  // a failed probe reopens afresh
      {"F0 F10 F59 F70 S80 A118.9-", openAt(59)},      // late outcomes change nothing
      {"F0 F10 F59 A-3600- A118- A119+", halfOpen},    // the clock set back
      {"F0 F10 F59 A3659+", halfOpen},                 // the clock set forward
      {"F100 F30 F40", openAt(40)},
  };
  for (const auto& [timeline, expected] : cases) {
    SCOPED_TRACE(timeline);
    FrontDoorCircuit circuit;
    std::istringstream steps(timeline);
    for (std::string step; steps >> step;) {
      const double t = std::stod(step.substr(1));
      if (step[0] == 'F') circuit.recordFailure(at(t));
      if (step[0] == 'S') circuit.recordSuccess(at(t));
      if (step[0] == 'A' && circuit.allowRelay(at(t)) != (step.back() == '+'))
        ADD_FAILURE() << step;
    }
    EXPECT_EQ(circuit.state(), expected);
  }
}

// Redials left after a failure while the connection is set up, and what is then left, or -1 for
// failing open; any failure after setup fails open.
TEST(RelayDialPolicyTest, OnlyASetupFailureWithAttemptsLeftRedials) {
  using Policy = RelayDialPolicy;
  const std::pair<std::int64_t, std::int64_t> cases[] = {
      {1, 0}, {3, 2}, {INT64_MAX, INT64_MAX - 1}, {0, -1}, {-5, -1}, {INT64_MIN, -1}};
  for (const auto& [left, remaining] : cases) {
    EXPECT_TRUE(
        Policy::decide(Policy::FailurePhase::ConnectionSetup, left) ==
        (remaining < 0 ? Policy::Decision::failOpen() : Policy::Decision::redial(remaining)));
    EXPECT_TRUE(Policy::decide(Policy::FailurePhase::PostSetup, left) ==
                Policy::Decision::failOpen());
  }
}

}  // namespace
}  // namespace tarnwick
