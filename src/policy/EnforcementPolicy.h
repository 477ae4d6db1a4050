#pragma once
// The enforcement policy the daemon pushes: per-agent rules keyed by signing identifier,
// per-process rules keyed by PID and a global deny list of host patterns. It answers whether a
// process may reach a TLS server name.
//
// One process-wide instance (shared()). update(): the bridge queue; decide(): any thread. The
// lock guards only the pointer to the current tables; tables are immutable once published, so
// decide() matches patterns on a consistent snapshot without holding the lock.

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/Json.h"
#include "platform/Mutex.h"

namespace tarnwick {

class EnforcementPolicy {
 public:
  struct Rule {
    // "enforce": a blocked host is dropped; "monitor": it would be blocked; anything else: allow.
    std::string mode = "observe";
    // "allow": only hosts on `allow` pass; "deny": hosts on `deny` are blocked; else no limit.
    std::string restrict;
    std::vector<std::string> allow;
    std::vector<std::string> deny;

    bool operator==(const Rule&) const = default;
  };

  enum class Verdict { Allow, Drop, WouldBlock };

  // Domains the agent must always be able to reach, whatever a pushed policy says: without them
  // the agent cannot talk to its own service, and a bad policy would lock it out for good.
  static constexpr std::array<std::string_view, 3> anthropicProtectedSuffixes = {
      "anthropic.com", "claude.ai", "claude.com"};

  // Created empty: every decision is Allow until the first accepted update.
  EnforcementPolicy();

  // The process-wide policy, created empty on first use.
  static EnforcementPolicy& shared();

  // Replaces the whole policy from a policy document. A document whose integer "version" is not
  // 1 is ignored, as is a value that is not an object; badly shaped sections become empty.
  void update(const Json& from);

  Verdict decide(std::int32_t pid, std::optional<std::string_view> signingID,
                 std::string_view sni) const;

  // Exact host, or "*.domain" covering exactly one label under domain; ASCII case-insensitive.
  static bool hostMatches(std::string_view pattern, std::string_view host);
  // True when any pattern matches, checked in order, stopping at the first match.
  static bool hostMatchesAny(std::string_view host, const std::vector<std::string>& patterns);
  static bool isAnthropicProtected(std::string_view host);

 private:
  struct TextHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const {
      return std::hash<std::string_view>{}(text);
    }
  };
  using AgentRules = std::unordered_map<std::string, Rule, TextHash, std::equal_to<>>;
  using PidRules = std::unordered_map<std::int32_t, Rule>;

  struct Tables {
    AgentRules agents;
    std::vector<std::string> deny;
    PidRules pids;
  };

  static Rule ruleFrom(const Json& object);
  static std::vector<std::string> textListFrom(const Json* value);
  static AgentRules agentRulesFrom(const Json* value);
  static PidRules pidRulesFrom(const Json* value);
  static Verdict verdictForBlocked(std::string_view mode);

  std::shared_ptr<const Tables> snapshot() const TW_EXCLUDES(mutex_);

  mutable Mutex mutex_;
  std::shared_ptr<const Tables> tables_ TW_GUARDED_BY(mutex_);
};

}  // namespace tarnwick
