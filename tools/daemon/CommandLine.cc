#include "CommandLine.h"

#include <optional>
#include <string>

namespace tarnwick::daemon {

std::variant<CommandLine, UsageError> parseCommandLine(std::span<const std::string_view> args) {
  CommandLine line;
  DaemonConfig& config = line.config;
  const auto taking = [](auto& field) {
    return [&field](std::string_view value) -> std::optional<std::string> {
      field = std::string(value);
      return std::nullopt;
    };
  };
  const companion::Option options[] = {
      {.name = "--socket", .apply = taking(config.socketPath)},
      {.name = "--push", .apply = taking(config.pushFile)},
      {.name = "--json",
       .flag = true,
       .apply = [&](std::string_view) -> std::optional<std::string> {
         config.json = true;
         return std::nullopt;
       }},
  };
  if (auto error = companion::applyOptions(args, options, line.help)) return *error;
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
