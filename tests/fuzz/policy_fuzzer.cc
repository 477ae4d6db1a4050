// Policy documents parsed from arbitrary bytes: update must never fail, and whatever it holds,
// an empty server name and the vendor's own domains are always allowed.

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "platform/Json.h"
#include "policy/EnforcementPolicy.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using tarnwick::EnforcementPolicy;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto document = tarnwick::parseJsonDocument(text);
  if (!document) return 0;
  EnforcementPolicy policy;
  policy.update(*document);
  for (std::int32_t pid : {0, 1, 42, -1}) {
    for (const char* signingID : {"agent", "/usr/bin/curl", ""}) {
      if (policy.decide(pid, signingID, "") != EnforcementPolicy::Verdict::Allow) std::abort();
      if (policy.decide(pid, signingID, "API.anthropic.com") != EnforcementPolicy::Verdict::Allow) {
        std::abort();
      }
      policy.decide(pid, signingID, "a.example.com");
      policy.decide(pid, std::nullopt, text.substr(0, 64));
    }
  }
  return 0;
}
