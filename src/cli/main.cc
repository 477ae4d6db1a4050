// tarnwick-proxyext: the interceptor and the tools people use to debug a deployment.

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "cli/Command.h"

namespace tarnwick::cli {

std::vector<Command>& commandRegistry() {
  static std::vector<Command> commands;
  return commands;
}

namespace {

void printHelp(std::FILE* out) {
  std::fprintf(out,
               "usage: tarnwick-proxyext COMMAND [OPTIONS]\n\n"
               "Transparent TCP interceptor for AI agents and other watched programs.\n\n"
               "Commands:\n");
  auto commands = commandRegistry();
  std::sort(commands.begin(), commands.end(),
            [](const Command& a, const Command& b) { return a.name < b.name; });
  for (const auto& command : commands) {
    std::fprintf(out, "  %-14s %s\n", command.name.c_str(), command.summary.c_str());
  }
  std::fprintf(out, "\nRun 'tarnwick-proxyext COMMAND --help' for a command's options.\n");
}

}  // namespace
}  // namespace tarnwick::cli

int main(int argc, char** argv) {
  using namespace tarnwick::cli;
  const std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) {
    printHelp(stderr);
    return kExitUsage;
  }
  if (args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
    printHelp(stdout);
    return kExitOk;
  }
  for (const auto& command : commandRegistry()) {
    if (command.name == args[0]) return command.run({args.begin() + 1, args.end()});
  }
  std::fprintf(stderr, "tarnwick-proxyext: unknown command '%s'\n", args[0].c_str());
  printHelp(stderr);
  return kExitUsage;
}
