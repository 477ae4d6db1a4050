#include "policy/EnforcementPolicy.h"

#include <gtest/gtest.h>

namespace tarnwick {
namespace {

using enum EnforcementPolicy::Verdict;

TEST(EnforcementPolicy, HostPatternsAreExactOrCoverOneLabelIgnoringCase) {
  for (const auto& [pattern, host, matches] :
       std::vector<std::tuple<const char*, const char*, bool>>{
           {"API.Example.com", "api.EXAMPLE.com", true},
           {"example.com", "a.example.com", false},
           {"", "", false},
           {"*.EXAMPLE.com", "A.example.COM", true},
           {"*.example.com", "example.com", false},
           {"*.example.com", "a.b.example.com", false},
           {"*.example.com", ".example.com", false},
           {"*example.com", "aexample.com", false}}) {
    EXPECT_EQ(EnforcementPolicy::hostMatches(pattern, host), matches) << pattern << " " << host;
  }
}

std::string agent(const std::string& rule) { return R"({"agents":{"agent":)" + rule + "}}"; }

// Each policy is applied over one that drops everything for "agent", so a refused document
// leaves that one in force.
TEST(EnforcementPolicy, DecidesByPidRuleThenAgentRuleThenGlobalDenyList) {
  const std::string dropAll = R"({"mode":"enforce","restrict":"allow"})";
  // The same rule for the agent "agent" and for PID 77.
  const std::string allowRule =
      R"({"mode":"enforce","restrict":"allow","allow":["*.example.com"]})";
  const std::string allowList =
      R"({"agents":{"agent":)" + allowRule + R"(},"pids":{"77":)" + allowRule + "}}";
  const std::string globalDeny =
      R"({"deny":["evil.net"],"agents":{"enforcer":{"mode":"enforce","restrict":"none"},)"
      R"("watcher":{"mode":"monitor"},"observer":{}}})";
  const std::string pidShadowsAgent =
      R"({"agents":{"agent":{"mode":"enforce","restrict":"deny","deny":["x.com"]}},"pids":)"
      R"({"77":{"mode":"observe","restrict":"deny","deny":["x.com"]},"-5":{"restrict":"deny",)"
      R"("mode":"enforce","deny":["x.com"]}}})";
  for (const auto& [policy, pid, signingID, sni, verdict] :
       std::vector<std::tuple<std::string, std::int32_t, const char*, const char*,
                              EnforcementPolicy::Verdict>>{
           {"{}", 77, "agent", "anything.net", Allow},
           {allowList, 1, "agent", "api.example.com", Allow},
           {allowList, 77, nullptr, "other.net", Drop},
           {allowList, 1, "stranger", "other.net", Allow},
           {allowList, 1, "Agent", "other.net", Allow},
           {agent(R"({"mode":"monitor","restrict":"allow"})"), 1, "agent", "a.net", WouldBlock},
           {agent(R"({"mode":"observe","restrict":"allow"})"), 1, "agent", "a.net", Allow},
           {agent(R"({"mode":"Enforce","restrict":"allow"})"), 1, "agent", "a.net", Allow},
           // The global list blocks in the rule's mode, whatever the rule restricts.
           {globalDeny, 1, "enforcer", "evil.net", Drop},
           {globalDeny, 1, "enforcer", "fine.net", Allow},
           {globalDeny, 1, "watcher", "evil.net", WouldBlock},
           {globalDeny, 1, "observer", "evil.net", Allow},
           {globalDeny, 1, nullptr, "evil.net", Allow},
           // No policy blocks an empty server name or the vendor's own domains.
           {agent(dropAll), 1, "agent", "", Allow},
           {agent(dropAll), 1, "agent", "anthropic.com", Allow},
           {agent(dropAll), 1, "agent", "a.b.claude.ai", Allow},
           {agent(dropAll), 1, "agent", "*.claude.com", Allow},
           {agent(dropAll), 1, "agent", " API.Anthropic.COM\t", Allow},
           {agent(dropAll), 1, "agent", "xclaude.ai", Drop},
           {agent(dropAll), 1, "agent", "anthropic.com.evil.net", Drop},
           {pidShadowsAgent, 77, "agent", "x.com", Allow},
           {pidShadowsAgent, 78, "agent", "x.com", Drop},
           {pidShadowsAgent, -5, nullptr, "x.com", Drop},
           // Badly shaped sections are emptied or skipped, never half read.
           {R"({"agents":{"agent":)" + dropAll + R"(,"other":5}})", 1, "agent", "a.net", Allow},
           {agent(R"({"mode":"enforce","restrict":"allow","allow":["x",1]})"), 1, "agent", "x",
            Drop},
           {R"({"deny":["a.net"],"agents":{"agent":{"mode":1}}})", 1, "agent", "a.net", Allow},
           {R"({"deny":["x",null],"agents":{"agent":{"mode":"enforce"}}})", 1, "agent", "x", Allow},
           {R"({"pids":{"12a":)" + dropAll + R"(,"12":{"mode":"monitor","restrict":"allow"}}})", 12,
            nullptr, "a.net", WouldBlock},
           {R"({"pids":{"4294967308":)" + dropAll + "}}", 12, "agent", "a.net", Allow},
           {R"({"pids":{"+12":)" + dropAll + "}}", 12, nullptr, "a.net", Drop},
           {R"({"pids":{"12":)" + dropAll + R"(,"13":[]}})", 12, "agent", "a.net", Allow},
           // Only a document that is an object and whose integer version, if any, is 1 applies.
           {R"({"version":2})", 1, "agent", "a.net", Drop},
           {"[1]", 1, "agent", "a.net", Drop},
           {R"({"version":1})", 1, "agent", "a.net", Allow},
           {R"({"version":2.5})", 1, "agent", "a.net", Allow},
           {R"({"version":"2"})", 1, "agent", "a.net", Allow}}) {
    EnforcementPolicy enforcement;
    enforcement.update(Json::parse(agent(dropAll)));
    enforcement.update(Json::parse(policy));
    const auto signing = signingID ? std::optional<std::string_view>(signingID) : std::nullopt;
    EXPECT_EQ(enforcement.decide(pid, signing, sni), verdict) << policy << " " << pid << " " << sni;
  }
}

}  // namespace
}  // namespace tarnwick
