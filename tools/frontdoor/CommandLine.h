#pragma once
// The front door's command line:
//   tarnwick-frontdoor [--listen HOST:PORT] [--mode MODE] [--delay SECONDS]
// Each option also takes the "--name=value" form.

#include <span>
#include <string>
#include <string_view>
#include <variant>

#include "FrontDoorConfig.h"

namespace tarnwick::frontdoor {

struct CommandLine {
  FrontDoorConfig config;
  bool help = false;
};

struct UsageError {
  std::string message;
};

// args excludes the program name.
std::variant<CommandLine, UsageError> parseCommandLine(std::span<const std::string_view> args);

std::string_view usageText();

}  // namespace tarnwick::frontdoor
