#include "policy/EnforcementPolicy.h"

#include <algorithm>
#include <utility>

#include "platform/Text.h"

namespace tarnwick {
namespace {

char asciiLower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return asciiLower(x) == asciiLower(y);
         });
}

bool endsWithIgnoringCase(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() &&
         equalsIgnoringCase(text.substr(text.size() - suffix.size()), suffix);
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\n\r\v\f";
  const auto first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

bool isObjectOfObjects(const Json* value) {
  return value != nullptr && value->is_object() &&
         std::all_of(value->begin(), value->end(), [](const Json& v) { return v.is_object(); });
}

std::string textOr(const Json& object, std::string_view key, std::string fallback) {
  const Json* value = jsonMember(object, key);
  return value != nullptr && value->is_string() ? value->get<std::string>() : fallback;
}

}  // namespace

EnforcementPolicy::EnforcementPolicy() : tables_(std::make_shared<const Tables>()) {}

EnforcementPolicy& EnforcementPolicy::shared() {
  static EnforcementPolicy policy;
  return policy;
}

void EnforcementPolicy::update(const Json& from) {
  if (!from.is_object()) return;
  const Json* version = jsonMember(from, "version");
  if (version != nullptr && isJsonInteger(*version) && *jsonIntegerValue(*version) != 1) return;

  auto next = std::make_shared<Tables>();
  next->agents = agentRulesFrom(jsonMember(from, "agents"));
  next->deny = textListFrom(jsonMember(from, "deny"));
  next->pids = pidRulesFrom(jsonMember(from, "pids"));

  std::shared_ptr<const Tables> previous;
  {
    MutexLock lock(mutex_);
    previous = std::exchange(tables_, std::move(next));
  }
  // The old tables are released here, outside the lock, unless a decision still reads them.
}

EnforcementPolicy::Verdict EnforcementPolicy::decide(std::int32_t pid,
                                                     std::optional<std::string_view> signingID,
                                                     std::string_view sni) const {
  if (sni.empty() || isAnthropicProtected(sni)) return Verdict::Allow;
  const std::shared_ptr<const Tables> tables = snapshot();

  const Rule* rule = nullptr;
  if (auto byPid = tables->pids.find(pid); byPid != tables->pids.end()) {
    rule = &byPid->second;
  } else if (signingID) {
    if (auto byAgent = tables->agents.find(*signingID); byAgent != tables->agents.end()) {
      rule = &byAgent->second;
    }
  }
  const std::string_view mode = rule != nullptr ? std::string_view(rule->mode) : "observe";

  if (hostMatchesAny(sni, tables->deny)) return verdictForBlocked(mode);
  if (rule == nullptr) return Verdict::Allow;

  bool blocked;
  if (rule->restrict == "allow") {
    blocked = !hostMatchesAny(sni, rule->allow);
  } else if (rule->restrict == "deny") {
    blocked = hostMatchesAny(sni, rule->deny);
  } else {
    return Verdict::Allow;
  }
  return blocked ? verdictForBlocked(mode) : Verdict::Allow;
}

bool EnforcementPolicy::hostMatches(std::string_view pattern, std::string_view host) {
  if (pattern.empty()) return false;
  if (equalsIgnoringCase(pattern, host)) return true;
  if (!pattern.starts_with("*.")) return false;
  const std::string_view suffix = pattern.substr(1);  // keeps the leading "."
  if (host.size() <= suffix.size() || !endsWithIgnoringCase(host, suffix)) return false;
  return host.substr(0, host.size() - suffix.size()).find('.') == std::string_view::npos;
}

bool EnforcementPolicy::hostMatchesAny(std::string_view host,
                                       const std::vector<std::string>& patterns) {
  return std::any_of(patterns.begin(), patterns.end(),
                     [host](const std::string& pattern) { return hostMatches(pattern, host); });
}

bool EnforcementPolicy::isAnthropicProtected(std::string_view host) {
  host = trimmed(host);
  if (host.starts_with("*.")) host.remove_prefix(2);
  for (std::string_view suffix : anthropicProtectedSuffixes) {
    if (equalsIgnoringCase(host, suffix)) return true;
    if (host.size() > suffix.size() && endsWithIgnoringCase(host, suffix) &&
        host[host.size() - suffix.size() - 1] == '.') {
      return true;
    }
  }
  return false;
}

EnforcementPolicy::Rule EnforcementPolicy::ruleFrom(const Json& object) {
  Rule rule;
  rule.mode = textOr(object, "mode", "observe");
  rule.restrict = textOr(object, "restrict", "");
  rule.allow = textListFrom(jsonMember(object, "allow"));
  rule.deny = textListFrom(jsonMember(object, "deny"));
  return rule;
}

std::vector<std::string> EnforcementPolicy::textListFrom(const Json* value) {
  if (value == nullptr || !value->is_array()) return {};
  std::vector<std::string> texts;
  texts.reserve(value->size());
  for (const Json& element : *value) {
    if (!element.is_string()) return {};
    texts.push_back(element.get<std::string>());
  }
  return texts;
}

EnforcementPolicy::AgentRules EnforcementPolicy::agentRulesFrom(const Json* value) {
  AgentRules rules;
  if (!isObjectOfObjects(value)) return rules;
  for (const auto& [signingID, object] : value->items()) rules.emplace(signingID, ruleFrom(object));
  return rules;
}

EnforcementPolicy::PidRules EnforcementPolicy::pidRulesFrom(const Json* value) {
  PidRules rules;
  if (!isObjectOfObjects(value)) return rules;
  for (const auto& [key, object] : value->items()) {
    const auto pid = parseDecimal<std::int32_t>(key, LeadingPlus::Accepted);
    if (pid) rules.insert_or_assign(*pid, ruleFrom(object));
  }
  return rules;
}

EnforcementPolicy::Verdict EnforcementPolicy::verdictForBlocked(std::string_view mode) {
  if (mode == "enforce") return Verdict::Drop;
  if (mode == "monitor") return Verdict::WouldBlock;
  return Verdict::Allow;
}

std::shared_ptr<const EnforcementPolicy::Tables> EnforcementPolicy::snapshot() const {
  MutexLock lock(mutex_);
  return tables_;
}

}  // namespace tarnwick
