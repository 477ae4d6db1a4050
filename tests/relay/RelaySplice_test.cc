// A session whose legs go to a splicer once it can no longer fail over: when it hands them over,
// and how the splice's reports keep its bookkeeping (commitment, the idle watchdog, ends, cuts,
// severs) as its own pumps did.

#include <gtest/gtest.h>

#include "RelayHarness.h"
#include "platform/testing/ScriptedSplicer.h"

namespace tarnwick {
namespace {

using Closing = StreamSplice::Closing;
using Refusal = StreamSplicer::Refusal;

// The front door accepts and acknowledges.
const std::string kUp = "^ <HTTP/1.1-200\r\n\r\n ";
// More than the replay copy keeps: the session can no longer fail over.
const std::string kPastTheCap = kUp + ">*131073";

Trail session(Trail middle) {
  middle.insert(middle.begin(), "retain");
  middle.push_back("release");
  return middle;
}

struct Case {
  std::string script;   // the relay up to the splice, as play() reads it
  std::string reports;  // what the splice then reports (see playReports)
  Trail trail;
  std::optional<Closing> closing;  // absent: no splice, or one left open
  std::size_t requests = 1;        // how often the session asked the splicer
  const char* agentGot = "";
  std::optional<Refusal> refused = std::nullopt;  // the splicer refuses the first request
};

// Steps separated by spaces: "m>N" / "m<N" N bytes moved from the agent / to the agent; "e>" /
// "e<" the agent's / the upstream's end passed on; "f>" / "f<" the agent's / the upstream's
// side failed; "+S" S seconds pass.
void playReports(RelayHarness& h, ScriptedSplice* splice, const std::string& reports) {
  std::istringstream steps(reports);
  for (std::string step; std::getline(steps, step, ' ');) {
    const auto direction =
        step[1] == '>' ? SpliceDirection::AgentToUpstream : SpliceDirection::UpstreamToAgent;
    const auto side = step[1] == '>' ? SpliceSide::Agent : SpliceSide::Upstream;
    if (step[0] == 'm') splice->moved(direction, std::stoul(step.substr(2)));
    if (step[0] == 'e') splice->ended(direction);
    if (step[0] == 'f') splice->failed(side, ECONNRESET);
    if (step[0] == '+') h.env->advance(toDuration(Seconds(std::stod(step.substr(1)))));
    h.env->runUntilIdle();
  }
}

std::vector<Case> cases() {
  const Trail committed = session({"circuit:success", "relay.close"});
  const Trail severed = session({"circuit:success", "sever", "relay.close"});
  return {
      // Spliced at the first response byte; the upstream's end before the agent's is a sever.
      {kUp + "<H", "m>5 e< e>", severed, Closing::Orderly, 1, "H"},
      {kUp + "<H", "m>5 e> e<", committed, Closing::Orderly, 1, "H"},
      // Cuts reset the other side; only the upstream's counts as a sever.
      {kUp + "<H", "f<", severed, Closing::ResetAgent, 1, "H"},
      {kUp + "<H", "f>", committed, Closing::ResetUpstream, 1, "H"},
      // Traffic either way keeps the idle watchdog back; 300 s without it end the session.
      {kUp + "<H", "+299 m<1 +299 m>1 +299 e> e<", committed, Closing::Orderly, 1, "H"},
      {kUp + "<H", "+299 m<1 +301",
       session({"circuit:success", "relay.midstream_idle", "relay.close"}), Closing::Orderly, 1,
       "H"},
      // Past the replay cap it is spliced before the first response byte, which the splice's
      // first bytes to the agent then are; silence or an early end just end it.
      {kPastTheCap, "m<1 +301", session({"circuit:success", "relay.midstream_idle", "relay.close"}),
       Closing::Orderly},
      {kPastTheCap, "+25", session({"relay.close"}), Closing::Orderly},
      {kPastTheCap, "e<", session({"relay.close"}), Closing::Orderly},
      {kPastTheCap, "f<", session({"relay.close"}), Closing::ResetAgent},
      // A session that can still fail over keeps its own pumps.
      {kUp + ">GET", "", {"retain"}, std::nullopt, 0},
      // After a failover the direct connection is spliced at its first answer; its end is no
      // sever.
      {kUp + ">GET <| ^ <reply", "e< e>",
       session({"relay.failopen:passthrough_dial", "circuit:success",
                "relay.failopen:passthrough_dial_spliced", "relay.close"}),
       Closing::Orderly, 1, "reply"},
      // A busy leg is asked again at the next turn; legs that can never go are never asked again.
      {kUp + "<H <more", "e> e<", committed, Closing::Orderly, 2, "Hmore", Refusal::NotNow},
      {kUp + "<H <more <| >|", "", severed, std::nullopt, 1, "Hmore", Refusal::Never},
  };
}

TEST(RelaySpliceTest, SplicedSessionsKeepTheirBookkeeping) {
  for (const auto& c : cases()) {
    SCOPED_TRACE(::testing::PrintToString(c.script) + " then " + c.reports);
    auto splicer = std::make_shared<ScriptedSplicer>();
    if (c.refused) splicer->refuse(*c.refused, 1);
    RelayHarness h(1, splicer);
    auto flow = h.relay();
    play(h, *flow, c.script);
    if (auto splice = splicer->last()) playReports(h, splice.get(), c.reports);
    EXPECT_EQ(h.context->trail(), c.trail);
    EXPECT_EQ(splicer->requests(), c.requests);
    EXPECT_EQ(textOf(flow->written()), c.agentGot);
    const auto splice = splicer->last();
    EXPECT_EQ(splice ? splice->closing() : std::nullopt, c.closing);
  }
}

}  // namespace
}  // namespace tarnwick
