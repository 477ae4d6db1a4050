// tarnwick-proxyext policy-decide: what an enforcement policy decides for one process and host.

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "cli/Command.h"
#include "cli/CommandInput.h"
#include "platform/Json.h"
#include "platform/Text.h"
#include "policy/EnforcementPolicy.h"

namespace tarnwick::cli {
namespace {

constexpr const char* kUsage =
    "usage: tarnwick-proxyext policy-decide --policy FILE --pid N [--signing-id S] --sni HOST\n"
    "Loads the policy document in FILE ('-' reads standard input; the JSON object a daemon\n"
    "pushes) and prints its decision for process N with signing identifier S reaching HOST:\n"
    "allow, drop or wouldBlock. Each option also takes the --name=value form.\n";

struct Arguments {
  std::optional<std::string> policy;
  std::optional<std::int32_t> pid;
  std::optional<std::string> signingID;
  std::optional<std::string> sni;
  bool help = false;
};

int usageError(const std::string& message) {
  std::fprintf(stderr, "tarnwick-proxyext policy-decide: %s\n%s", message.c_str(), kUsage);
  return kExitUsage;
}

bool isKnownOption(const std::string& name) {
  return name == "--policy" || name == "--pid" || name == "--signing-id" || name == "--sni";
}

// Applies one known option; a non-empty result is the usage error.
std::string apply(const std::string& name, const std::string& value, Arguments& arguments) {
  if (name == "--policy") {
    arguments.policy = value;
  } else if (name == "--pid") {
    arguments.pid = parseDecimal<std::int32_t>(value);
    if (!arguments.pid) return "--pid wants a 32-bit decimal process ID, got '" + value + "'";
  } else if (name == "--signing-id") {
    arguments.signingID = value;
  } else if (name == "--sni") {
    arguments.sni = value;
  }
  return {};
}

// The arguments, or a usage error in `error`.
std::optional<Arguments> parse(const std::vector<std::string>& args, std::string& error) {
  Arguments arguments;
  for (std::size_t i = 0; i < args.size(); ++i) {
    std::string name = args[i];
    std::string value;
    if (name == "--help" || name == "-h") {
      arguments.help = true;
      continue;
    }
    if (!name.starts_with("--")) {
      error = "unexpected argument '" + name + "'";
      return std::nullopt;
    }
    const auto equals = name.find('=');
    if (equals != std::string::npos) {
      value = name.substr(equals + 1);
      name.resize(equals);
    }
    if (!isKnownOption(name)) {
      error = "unknown option '" + name + "'";
      return std::nullopt;
    }
    if (equals == std::string::npos) {
      if (i + 1 == args.size()) {
        error = "option '" + name + "' needs a value";
        return std::nullopt;
      }
      value = args[++i];
    }
    error = apply(name, value, arguments);
    if (!error.empty()) return std::nullopt;
  }
  if (arguments.help) return arguments;
  if (!arguments.policy || !arguments.pid || !arguments.sni) {
    error = "--policy, --pid and --sni are required";
    return std::nullopt;
  }
  return arguments;
}

const char* verdictText(EnforcementPolicy::Verdict verdict) {
  switch (verdict) {
    case EnforcementPolicy::Verdict::Allow:
      return "allow";
    case EnforcementPolicy::Verdict::Drop:
      return "drop";
    case EnforcementPolicy::Verdict::WouldBlock:
      return "wouldBlock";
  }
  return "allow";
}

int runPolicyDecide(const std::vector<std::string>& args) {
  std::string error;
  const auto arguments = parse(args, error);
  if (!arguments) return usageError(error);
  if (arguments->help) {
    std::fputs(kUsage, stdout);
    return kExitOk;
  }
  const auto bytes = readInput(*arguments->policy, error);
  if (!bytes) {
    std::fprintf(stderr, "tarnwick-proxyext policy-decide: %s\n", error.c_str());
    return kExitUsage;
  }
  const auto document = parseJsonDocument(textOf(*bytes));
  if (!document || !document->is_object()) {
    std::fprintf(stderr, "tarnwick-proxyext policy-decide: '%s' does not hold a JSON object\n",
                 arguments->policy->c_str());
    return kExitUsage;
  }
  EnforcementPolicy policy;
  policy.update(*document);
  std::printf("%s\n",
              verdictText(policy.decide(*arguments->pid, arguments->signingID, *arguments->sni)));
  return kExitOk;
}

const CommandRegistration kRegistration{
    {"policy-decide", "print what an enforcement policy decides for a process and host",
     runPolicyDecide}};

}  // namespace
}  // namespace tarnwick::cli
