#include "policy/EnforcementPolicy.h"

#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <string>
#include <thread>

namespace tarnwick {
namespace {

using Verdict = EnforcementPolicy::Verdict;

struct CaseName {
  template <typename Param>
  std::string operator()(const ::testing::TestParamInfo<Param>& param) const {
    return param.param.name;
  }
};

Json document(std::string_view text) {
  auto parsed = parseJsonDocument(text);
  EXPECT_TRUE(parsed.has_value()) << text;
  return parsed.value_or(Json::object());
}

// An agent rule for "agent" and a process rule for PID 77, both built from `rule`.
std::string agentAndPid(std::string_view rule) {
  return std::string(R"({"agents":{"agent":)") + std::string(rule) + R"(},"pids":{"77":)" +
         std::string(rule) + "}}";
}

struct MatchCase {
  const char* name;
  const char* pattern;
  const char* host;
  bool matches;
};

class HostMatchesTest : public ::testing::TestWithParam<MatchCase> {};

TEST_P(HostMatchesTest, Matches) {
  const auto& c = GetParam();
  EXPECT_EQ(EnforcementPolicy::hostMatches(c.pattern, c.host), c.matches);
}

INSTANTIATE_TEST_SUITE_P(
    Patterns, HostMatchesTest,
    ::testing::Values(MatchCase{"ExactHost", "api.example.com", "api.example.com", true},
                      MatchCase{"ExactIgnoresCase", "API.Example.com", "api.EXAMPLE.com", true},
                      MatchCase{"PlainDoesNotCoverSubdomain", "example.com", "a.example.com",
                                false},
                      MatchCase{"EmptyPatternMatchesNothing", "", "", false},
                      MatchCase{"WildcardOneLabel", "*.example.com", "a.example.com", true},
                      MatchCase{"WildcardIgnoresCase", "*.EXAMPLE.com", "A.example.COM", true},
                      MatchCase{"WildcardNotTheDomain", "*.example.com", "example.com", false},
                      MatchCase{"WildcardNotTwoLabels", "*.example.com", "a.b.example.com", false},
                      MatchCase{"WildcardNeedsALabel", "*.example.com", ".example.com", false},
                      MatchCase{"StarWithoutDotIsPlain", "*example.com", "aexample.com", false}),
    CaseName());

struct ProtectedCase {
  const char* name;
  const char* host;
  bool isProtected;
};

class ProtectedSuffixTest : public ::testing::TestWithParam<ProtectedCase> {};

TEST_P(ProtectedSuffixTest, RecognisesVendorDomains) {
  EXPECT_EQ(EnforcementPolicy::isAnthropicProtected(GetParam().host), GetParam().isProtected);
}

INSTANTIATE_TEST_SUITE_P(
    Hosts, ProtectedSuffixTest,
    ::testing::Values(ProtectedCase{"Suffix", "anthropic.com", true},
                      ProtectedCase{"Subdomain", "api.anthropic.com", true},
                      ProtectedCase{"DeepSubdomain", "a.b.claude.ai", true},
                      ProtectedCase{"Wildcard", "*.claude.com", true},
                      ProtectedCase{"SpacesAndCase", "  API.Anthropic.COM\t", true},
                      ProtectedCase{"NoDotBefore", "notanthropic.com", false},
                      ProtectedCase{"SuffixInTheMiddle", "anthropic.com.evil.net", false},
                      ProtectedCase{"Empty", "", false}),
    CaseName());

struct DecideCase {
  const char* name;
  std::string policy;
  std::int32_t pid;
  std::optional<std::string> signingID;
  const char* sni;
  Verdict expected;
};

class DecideTest : public ::testing::TestWithParam<DecideCase> {};

TEST_P(DecideTest, Decides) {
  const auto& c = GetParam();
  EnforcementPolicy policy;
  policy.update(document(c.policy));
  EXPECT_EQ(policy.decide(c.pid, c.signingID, c.sni), c.expected);
}

const std::string kEnforceAllowList =
    agentAndPid(R"({"mode":"enforce","restrict":"allow","allow":["*.example.com"]})");
const std::string kMonitorAllowList =
    agentAndPid(R"({"mode":"monitor","restrict":"allow","allow":["*.example.com"]})");
const std::string kObserveAllowList =
    agentAndPid(R"({"mode":"observe","restrict":"allow","allow":["*.example.com"]})");
const std::string kUnknownModeAllowList =
    agentAndPid(R"({"mode":"Enforce","restrict":"allow","allow":["*.example.com"]})");
const std::string kEnforceDenyList =
    agentAndPid(R"({"mode":"enforce","restrict":"deny","deny":["bad.example.com"]})");
const std::string kGlobalDeny =
    R"({"deny":["evil.net"],"agents":{"enforcer":{"mode":"enforce","restrict":"none"},
        "watcher":{"mode":"monitor"},"observer":{}}})";
const std::string kEverythingDenied =
    R"({"deny":["anthropic.com","*.anthropic.com","*.claude.ai"],
        "agents":{"agent":{"mode":"enforce","restrict":"allow","allow":[]}}})";
const std::string kPidShadowsAgent =
    R"({"agents":{"agent":{"mode":"enforce","restrict":"deny","deny":["x.com"]}},
        "pids":{"77":{"mode":"observe","restrict":"deny","deny":["x.com"]},
                "-5":{"mode":"enforce","restrict":"deny","deny":["x.com"]}}})";

INSTANTIATE_TEST_SUITE_P(
    Rules, DecideTest,
    ::testing::Values(
        DecideCase{"EmptyPolicyAllows", "{}", 77, "agent", "anything.net", Verdict::Allow},
        DecideCase{"AllowListPassesOneLabelUnder", kEnforceAllowList, 1, "agent", "api.example.com",
                   Verdict::Allow},
        DecideCase{"AllowListDropsTheDomain", kEnforceAllowList, 1, "agent", "example.com",
                   Verdict::Drop},
        DecideCase{"AllowListDropsTwoLabelsUnder", kEnforceAllowList, 1, "agent", "a.b.example.com",
                   Verdict::Drop},
        DecideCase{"PidRuleAppliesWithoutSigningID", kEnforceAllowList, 77, std::nullopt,
                   "other.net", Verdict::Drop},
        DecideCase{"NoRuleForUnknownAgent", kEnforceAllowList, 1, "stranger", "other.net",
                   Verdict::Allow},
        DecideCase{"NoRuleWithoutSigningID", kEnforceAllowList, 1, std::nullopt, "other.net",
                   Verdict::Allow},
        DecideCase{"SigningIDComparedExactly", kEnforceAllowList, 1, "Agent", "other.net",
                   Verdict::Allow},
        DecideCase{"MonitorWouldBlock", kMonitorAllowList, 1, "agent", "other.net",
                   Verdict::WouldBlock},
        DecideCase{"ObserveAllows", kObserveAllowList, 1, "agent", "other.net", Verdict::Allow},
        DecideCase{"ModeComparedExactly", kUnknownModeAllowList, 77, "agent", "other.net",
                   Verdict::Allow},
        DecideCase{"DenyListDropsUpperCaseHost", kEnforceDenyList, 77, "agent", "BAD.Example.COM",
                   Verdict::Drop},
        DecideCase{"DenyListPassesSubdomain", kEnforceDenyList, 77, "agent", "x.bad.example.com",
                   Verdict::Allow},
        DecideCase{"GlobalDenyEnforcedWhateverRestrict", kGlobalDeny, 1, "enforcer", "evil.net",
                   Verdict::Drop},
        DecideCase{"GlobalDenyMonitored", kGlobalDeny, 1, "watcher", "evil.net",
                   Verdict::WouldBlock},
        DecideCase{"GlobalDenyObservedByDefaultMode", kGlobalDeny, 1, "observer", "evil.net",
                   Verdict::Allow},
        DecideCase{"GlobalDenyPassesProcessWithoutRule", kGlobalDeny, 1, std::nullopt, "evil.net",
                   Verdict::Allow},
        DecideCase{"UnknownRestrictAllowsOtherHosts", kGlobalDeny, 1, "enforcer", "fine.net",
                   Verdict::Allow},
        DecideCase{"EmptyServerNameAllows", kEverythingDenied, 1, "agent", "", Verdict::Allow},
        DecideCase{"ProtectedDomainAllowed", kEverythingDenied, 1, "agent", "anthropic.com",
                   Verdict::Allow},
        DecideCase{"LookalikeNotProtected", kEverythingDenied, 1, "agent", "xclaude.ai",
                   Verdict::Drop},
        DecideCase{"PidRuleShadowsAgentRule", kPidShadowsAgent, 77, "agent", "x.com",
                   Verdict::Allow},
        DecideCase{"AgentRuleWithoutPidRule", kPidShadowsAgent, 78, "agent", "x.com",
                   Verdict::Drop},
        DecideCase{"NegativePidKeyAccepted", kPidShadowsAgent, -5, std::nullopt, "x.com",
                   Verdict::Drop},
        DecideCase{"OneNonObjectAgentEmptiesAgents",
                   R"({"agents":{"agent":{"mode":"enforce","restrict":"deny",
                      "deny":["blocked.net"]},"other":5}})",
                   1, "agent", "blocked.net", Verdict::Allow},
        DecideCase{"OneNonTextPatternEmptiesTheList",
                   R"({"agents":{"agent":{"mode":"enforce","restrict":"deny",
                      "deny":["blocked.net",1]}}})",
                   1, "agent", "blocked.net", Verdict::Allow},
        DecideCase{"NonTextModeIsObserve",
                   R"({"deny":["blocked.net"],"agents":{"agent":{"mode":1}}})", 1, "agent",
                   "blocked.net", Verdict::Allow},
        DecideCase{"NonTextGlobalDenyEmptiesIt",
                   R"({"deny":["blocked.net",null],"agents":{"agent":{"mode":"enforce"}}})", 1,
                   "agent", "blocked.net", Verdict::Allow},
        DecideCase{"PidKeyWithLetterSkipped",
                   R"({"pids":{"12a":{"mode":"enforce","restrict":"allow"},
                      "12":{"mode":"monitor","restrict":"allow"}}})",
                   12, "agent", "blocked.net", Verdict::WouldBlock},
        DecideCase{"PidKeyBeyond32BitsSkipped",
                   R"({"pids":{"4294967308":{"mode":"enforce","restrict":"allow"}}})", 12, "agent",
                   "blocked.net", Verdict::Allow},
        DecideCase{"PidKeyWithPlusAccepted",
                   R"({"pids":{"+12":{"mode":"enforce","restrict":"allow"}}})", 12, "agent",
                   "blocked.net", Verdict::Drop},
        DecideCase{"PidsNotAllObjectsEmptiesPids",
                   R"({"pids":{"12":{"mode":"enforce","restrict":"allow"},"13":[]}})", 12, "agent",
                   "blocked.net", Verdict::Allow}),
    CaseName());

const char* const kDropAllForAgent =
    R"({"agents":{"agent":{"mode":"enforce","restrict":"allow"}}})";

struct UpdateCase {
  const char* name;
  const char* second;
  Verdict afterSecond;
};

class UpdateTest : public ::testing::TestWithParam<UpdateCase> {};

TEST_P(UpdateTest, ReplacesOrKeepsThePolicy) {
  EnforcementPolicy policy;
  policy.update(document(kDropAllForAgent));
  ASSERT_EQ(policy.decide(1, "agent", "a.net"), Verdict::Drop);
  auto second = parseJsonDocument(GetParam().second);
  policy.update(second.value_or(Json(GetParam().second)));
  EXPECT_EQ(policy.decide(1, "agent", "a.net"), GetParam().afterSecond);
}

INSTANTIATE_TEST_SUITE_P(
    Versions, UpdateTest,
    ::testing::Values(UpdateCase{"VersionTwoIgnored", R"({"version":2})", Verdict::Drop},
                      UpdateCase{"VersionOneApplied", R"({"version":1})", Verdict::Allow},
                      UpdateCase{"MissingVersionApplied", R"({"kind":"policy.push"})",
                                 Verdict::Allow},
                      UpdateCase{"FractionVersionApplied", R"({"version":2.5})", Verdict::Allow},
                      UpdateCase{"TextVersionApplied", R"({"version":"2"})", Verdict::Allow},
                      UpdateCase{"ArrayDocumentIgnored", "[1]", Verdict::Drop},
                      UpdateCase{"NewRulesReplaceOld",
                                 R"({"agents":{"other":{"mode":"enforce","restrict":"allow"}}})",
                                 Verdict::Allow}),
    CaseName());

TEST(EnforcementPolicyShared, IsOneProcessWideInstance) {
  EXPECT_EQ(&EnforcementPolicy::shared(), &EnforcementPolicy::shared());
}

// Decisions racing with updates see one whole policy or the other, never a mix: under the first
// policy the host is dropped by the agent rule, under the second by the global deny list with
// the rule in monitor mode.
TEST(EnforcementPolicyThreads, DecisionsSeeWholePolicies) {
  EnforcementPolicy policy;
  const Json enforce =
      document(R"({"agents":{"agent":{"mode":"enforce","restrict":"deny","deny":["h.net"]}}})");
  const Json monitor = document(R"({"deny":["h.net"],"agents":{"agent":{"mode":"monitor"}}})");
  policy.update(enforce);
  std::atomic<bool> done{false};
  std::thread writer([&] {
    for (int i = 0; i < 2000; ++i) policy.update(i % 2 == 0 ? monitor : enforce);
    done = true;
  });
  int mixed = 0;
  while (!done) {
    const Verdict verdict = policy.decide(1, "agent", "h.net");
    if (verdict != Verdict::Drop && verdict != Verdict::WouldBlock) ++mixed;
  }
  writer.join();
  EXPECT_EQ(mixed, 0);
}

}  // namespace
}  // namespace tarnwick
