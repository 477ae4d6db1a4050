#include "CommandLine.h"

#include <optional>

namespace tarnwick::daemon {
namespace {

std::optional<UsageError> apply(std::string_view name, std::string_view value, CommandLine& line) {
  if (value.empty()) return UsageError{"option '" + std::string(name) + "' needs a value"};
  if (name == "--socket") {
    line.config.socketPath = std::string(value);
  } else if (name == "--push") {
    line.config.pushFile = std::string(value);
  } else {
    return UsageError{"unknown option '" + std::string(name) + "'"};
  }
  return std::nullopt;
}

}  // namespace

std::variant<CommandLine, UsageError> parseCommandLine(std::span<const std::string_view> args) {
  CommandLine line;
  for (std::size_t i = 0; i < args.size(); ++i) {
    std::string_view name = args[i];
    if (name == "--help" || name == "-h") {
      line.help = true;
      continue;
    }
    if (name == "--json") {
      line.config.json = true;
      continue;
    }
    std::string_view value;
    if (const auto equals = name.find('='); equals != std::string_view::npos) {
      value = name.substr(equals + 1);
      name = name.substr(0, equals);
    } else if (name == "--socket" || name == "--push") {
      if (i + 1 == args.size())
        return UsageError{"option '" + std::string(name) + "' needs a value"};
      value = args[++i];
    } else {
      return UsageError{"unknown option '" + std::string(name) + "'"};
    }
    if (auto error = apply(name, value, line)) return *error;
  }
  return line;
}

std::string_view usageText() {
  return "usage: tarnwick-daemon [--socket PATH] [--json] [--push FILE]\n"
         "  --socket  Unix socket to listen on (default ~/.tarnwick/ne.sock of this user;\n"
         "            its directory is created)\n"
         "  --json    print each event line as received (status lines go to stderr)\n"
         "  --push    JSON object file sent as a policy.push line on every new connection\n"
         "Counts by kind are printed on SIGINT or SIGTERM.\n";
}

}  // namespace tarnwick::daemon
