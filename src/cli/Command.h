#pragma once
// One subcommand of the tarnwick-proxyext executable. Each lives in its own *Command.cc and
// registers itself with a static CommandRegistration, so main.cc needs no list of them.

#include <functional>
#include <string>
#include <vector>

namespace tarnwick::cli {

// Exit statuses shared by every subcommand.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;

struct Command {
  std::string name;
  std::string summary;  // one line for the program's help
  // Receives the arguments after the subcommand's name; returns the exit status.
  std::function<int(const std::vector<std::string>& args)> run;
};

std::vector<Command>& commandRegistry();

struct CommandRegistration {
  explicit CommandRegistration(Command command) { commandRegistry().push_back(std::move(command)); }
};

}  // namespace tarnwick::cli
