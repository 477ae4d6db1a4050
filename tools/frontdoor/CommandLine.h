#pragma once
// The front door's command line:
//   tarnwick-frontdoor [--listen HOST:PORT] [--mode MODE] [--delay SECONDS] [--mark N]
// Each option also takes the "--name=value" form.

#include <span>
#include <string_view>
#include <variant>

#include "CompanionOptions.h"
#include "FrontDoorConfig.h"

namespace tarnwick::frontdoor {

using CommandLine = companion::CommandLine<FrontDoorConfig>;
using companion::UsageError;

// args excludes the program name.
std::variant<CommandLine, UsageError> parseCommandLine(std::span<const std::string_view> args);

std::string_view usageText();

}  // namespace tarnwick::frontdoor
