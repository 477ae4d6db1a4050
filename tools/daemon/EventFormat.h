#pragma once
// How the daemon companion shows what it receives and what it pushes.

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace tarnwick::daemon {

// One readable line for an event line: its kind, then key=value for the other keys in key
// order; texts that would be ambiguous are quoted. A line that is not a JSON object is shown as
// "unparsed: " and the line.
std::string readableEvent(std::string_view line);

// The event's "kind" text; "?" when the line has none.
std::string kindOf(std::string_view line);

// The push line for a policy file's text: the object with "kind" set to "policy.push", compact,
// with its line feed. Absent (and `error` set) when the text is not one JSON object.
std::optional<std::string> policyPushLine(std::string_view fileText, std::string& error);

// Events seen, by kind.
class KindCounts {
 public:
  void add(const std::string& kind) { ++counts_[kind]; }
  std::size_t total() const;
  // "events N" and one "  KIND N" line per kind, in kind order.
  std::string readableSummary() const;
  // {"counts":{KIND:N,...},"total":N}
  std::string jsonSummary() const;

 private:
  std::map<std::string, std::size_t> counts_;
};

}  // namespace tarnwick::daemon
