// Who counts as watched: signing identifiers, PIDs revalidated against reuse, descendants of
// watched agents, and live replacement of the watch set by app messages.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ProviderHarness.h"

namespace tarnwick {
namespace {

const std::string kReuse =
    "shouldIntercept: watched-by-PID flow pid=500 failed identity revalidation (pidversion=8, "
    "signing='/usr/bin/other') — likely PID reuse; passing through (no MITM)";

std::string descendantLine(int pid, const std::string& signing) {
  return "shouldIntercept: pid=" + std::to_string(pid) +
         " is a descendant of a watched agent (signing='" + signing +
         "' not itself watched) → intercepting agent-spawned egress";
}

class ProviderWatchingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // init(1) → agent(100) → shell(200) → curl(300); 500 is watched by PID only.
    h.processes = {{100, {1, ProviderHarness::kAgent}},
                   {200, {100, "/bin/sh"}},
                   {300, {200, "/usr/bin/curl"}},
                   {500, {1, "/usr/bin/tool"}}};
    h.start(Json{{"frontDoorPort", 9000},
                 {"watchedSigningIDs", {ProviderHarness::kAgent}},
                 {"watchedPIDs", {500}}});
    h.log->clear();
  }
  bool offer(const std::string& signing, int pid, int version) {
    return h.offer(h.tcpFlow(signing, pid, version));
  }

  ProviderHarness h;
};

TEST_F(ProviderWatchingTest, SigningMatchWinsEvenOverAReusedPID) {
  EXPECT_TRUE(offer("/usr/bin/tool", 500, 7));  // binds PID 500 to version 7
  EXPECT_TRUE(offer(ProviderHarness::kAgent, 500, 8));
  EXPECT_EQ(h.log->countContaining("failed identity revalidation"), 0u);
}

TEST_F(ProviderWatchingTest, APIDMatchStandsOnlyForTheProcessFirstSeenUnderIt) {
  EXPECT_TRUE(offer("/usr/bin/tool", 500, 7));
  EXPECT_TRUE(offer("/usr/bin/tool", 500, 7));
  h.log->clear();
  // The PID now names another process whose parent is a watched agent: still passed through.
  h.processes[500] = {100, "/usr/bin/other"};
  EXPECT_FALSE(offer("/usr/bin/other", 500, 8));
  EXPECT_EQ(h.log->messages(), std::vector<std::string>{kReuse});
}

TEST_F(ProviderWatchingTest, DescendantsOfAWatchedAgentAreInterceptedButNotTheRootsOthers) {
  EXPECT_TRUE(offer("/usr/bin/curl", 300, 1));
  EXPECT_TRUE(offer("/bin/sh", 200, 1));
  EXPECT_FALSE(offer("/usr/bin/curl", 999, 1));  // unknown process: its parent cannot be read
  EXPECT_EQ(h.log->count(descendantLine(300, "/usr/bin/curl")), 1u);
  EXPECT_EQ(h.log->count(descendantLine(200, "/bin/sh")), 1u);
  EXPECT_EQ(h.log->countContaining("descendant"), 2u);
}

TEST_F(ProviderWatchingTest, AFlowWithoutAnAuditTokenMatchesOnlyBySigning) {
  const auto flowWithToken = [&](const std::string& signing, std::optional<Bytes> token) {
    NEFlowMetaData meta;
    meta.sourceAppSigningIdentifier = signing;
    meta.sourceAppAuditToken = std::move(token);
    return std::make_shared<ScriptedTCPFlow>(h.framework, meta,
                                             NWHostEndpoint{"198.18.0.10", "443"});
  };
  EXPECT_FALSE(h.offer(flowWithToken("/usr/bin/tool", std::nullopt)));
  EXPECT_TRUE(h.offer(flowWithToken(ProviderHarness::kAgent, Bytes(31))));
  EXPECT_EQ(h.bridge->events().back()["pid"], 0);
}

struct MessageCase {
  const char* name;
  std::string message;
  std::string reply;
  // Whether the agent's and PID 500's flows are taken after the message.
  bool agentWatched;
  bool pidWatched;
  std::string logLine;
};

class AppMessageTest : public ProviderWatchingTest,
                       public ::testing::WithParamInterface<MessageCase> {};

TEST_P(AppMessageTest, ReplacesTheWholeWatchSetOrNothing) {
  const auto& c = GetParam();
  EXPECT_TRUE(offer("/usr/bin/tool", 500, 7));  // a binding that a replacement prunes
  h.log->clear();
  EXPECT_EQ(textOf(h.message(c.message)), c.reply);
  EXPECT_EQ(h.log->messages(), std::vector<std::string>{c.logLine});
  EXPECT_EQ(offer(ProviderHarness::kAgent, 100, 1), c.agentWatched);
  EXPECT_EQ(offer("/usr/bin/tool", 500, 7), c.pidWatched);
}

INSTANTIATE_TEST_SUITE_P(
    Messages, AppMessageTest,
    ::testing::Values(
        MessageCase{"Empty", "", R"({"ok":false})", true, true,
                    "handleAppMessage: malformed/empty watch-set delta (0 bytes) — leaving gate "
                    "UNCHANGED (fail-safe)"},
        MessageCase{"TopLevelArray", "[1]", R"({"ok":false})", true, true,
                    "handleAppMessage: malformed/empty watch-set delta (3 bytes) — leaving gate "
                    "UNCHANGED (fail-safe)"},
        MessageCase{"EmptyObjectClearsEverything", "{}", R"({"ok":true})", false, false,
                    "handleAppMessage: watch gate updated LIVE (no tunnel restart) — "
                    "watchedSigningIDs=0 watchedPIDs=0 identityBindings=0"},
        // A replacement, not a delta: the signing half empties; PID 500 keeps its binding.
        MessageCase{"OnlyPIDs", R"({"watchedPIDs":["500"]})", R"({"ok":true})", false, true,
                    "handleAppMessage: watch gate updated LIVE (no tunnel restart) — "
                    "watchedSigningIDs=0 watchedPIDs=1 identityBindings=1"},
        MessageCase{"PIDDroppedPrunesItsBinding",
                    R"({"watchedSigningIDs":"[\"/usr/bin/agent\"]","watchedPIDs":[600]})",
                    R"({"ok":true})", true, false,
                    "handleAppMessage: watch gate updated LIVE (no tunnel restart) — "
                    "watchedSigningIDs=1 watchedPIDs=1 identityBindings=0"}),
    CaseName());

TEST_F(ProviderWatchingTest, AMessageWithoutACompletionStillUpdates) {
  h.provider->handleAppMessage(bytesOf("{}"), nullptr);
  EXPECT_FALSE(offer(ProviderHarness::kAgent, 100, 1));
}

}  // namespace
}  // namespace tarnwick
