// tarnwick-frontdoor: the local inspecting CONNECT proxy that relaying clients are pointed at,
// with fault modes for tests and demos. Prints "listening ADDRESS" first, then one line per
// connection as each ends; SIGINT and SIGTERM end it with status 0.

#include <cstdio>

#include "CommandLine.h"
#include "CompanionMain.h"
#include "FrontDoor.h"

int main(int argc, char** argv) {
  using namespace tarnwick;
  using namespace tarnwick::frontdoor;
  const auto printLine = [](std::string_view line) { companion::printLine(stdout, line); };
  const companion::Companion<FrontDoorConfig> frontDoor{
      "tarnwick-frontdoor", usageText(), parseCommandLine,
      [&](const FrontDoorConfig& config,
          companion::StartFailure& failure) -> std::unique_ptr<companion::ForegroundServer> {
        auto server = FrontDoor::create(config, printLine, failure.message);
        if (server) printLine("listening " + server->boundAddress());
        return server;
      }};
  return companion::runCompanion(frontDoor, argc, argv);
}
