#pragma once
// The command-line shape both companions share: options in any order, each "--name VALUE" or
// "--name=VALUE" (a flag takes no value), "-h" or "--help" for the usage, and one error text per
// fault, naming the option.

#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace tarnwick::companion {

struct UsageError {
  std::string message;
};

// What a companion's command line gives: its configuration, or a request for the usage.
template <class Config>
struct CommandLine {
  Config config;
  bool help = false;
};

struct Option {
  std::string_view name;  // "--socket"
  bool flag = false;      // takes no value
  // Takes the value ("" for a flag): an error text naming the option, or nothing when it is good.
  std::function<std::optional<std::string>(std::string_view value)> apply;
};

// Applies `args` (the program name excluded) in order. Sets `help` for "-h" or "--help"; gives
// the fault of an unknown option, an option without a value or with an empty one, or the first
// error an option's apply gives.
std::optional<UsageError> applyOptions(std::span<const std::string_view> args,
                                       std::span<const Option> options, bool& help);

}  // namespace tarnwick::companion
