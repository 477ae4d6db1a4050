#include "CommandLine.h"

#include <optional>

#include "platform/OptionReader.h"

namespace tarnwick::daemon {

std::variant<CommandLine, UsageError> parseCommandLine(std::span<const std::string_view> args) {
  CommandLine line;
  OptionReader reader({args.begin(), args.end()});
  while (const auto name = reader.next()) {
    if (*name == "--help" || *name == "-h") {
      line.help = true;
    } else if (*name == "--json") {
      line.config.json = true;
    } else if (*name == "--socket" || *name == "--push") {
      const auto value = reader.value();
      if (!value || value->empty()) return UsageError{"option '" + *name + "' needs a value"};
      if (*name == "--socket") {
        line.config.socketPath = *value;
      } else {
        line.config.pushFile = *value;
      }
    } else {
      return UsageError{"unknown option '" + *name + "'"};
    }
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
