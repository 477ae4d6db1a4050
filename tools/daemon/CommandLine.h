#pragma once
// The daemon companion's command line:
//   tarnwick-daemon [--socket PATH] [--json] [--push FILE]
// Options with a value also take the "--name=value" form.

#include <span>
#include <string_view>
#include <variant>

#include "CompanionOptions.h"
#include "DaemonConfig.h"

namespace tarnwick::daemon {

using CommandLine = companion::CommandLine<DaemonConfig>;
using companion::UsageError;

// args excludes the program name.
std::variant<CommandLine, UsageError> parseCommandLine(std::span<const std::string_view> args);

std::string_view usageText();

}  // namespace tarnwick::daemon
