// tarnwick-frontdoor: the local inspecting CONNECT proxy that relaying clients are pointed at,
// with fault modes for tests and demos. Prints "listening ADDRESS" first, then one line per
// connection as each ends; SIGINT and SIGTERM end it with status 0.

#include <sys/resource.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "CommandLine.h"
#include "FrontDoor.h"
#include "platform/posix/StopSignals.h"

namespace {

using tarnwick::frontdoor::FrontDoor;

std::atomic<FrontDoor*> gFrontDoor{nullptr};

void onStopSignal(int) {
  if (FrontDoor* frontDoor = gFrontDoor.load()) frontDoor->stop();
}

// Every relayed connection takes two descriptors; the usual soft limit of 1024 would stop the
// front door short of a thousand clients.
void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

void printLine(std::string_view line) {
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  using namespace tarnwick::frontdoor;
  const std::vector<std::string_view> args(argv + 1, argv + argc);
  const auto parsed = parseCommandLine(args);
  if (const auto* usage = std::get_if<UsageError>(&parsed)) {
    std::fprintf(stderr, "tarnwick-frontdoor: %s\n%.*s", usage->message.c_str(),
                 static_cast<int>(usageText().size()), usageText().data());
    return 2;
  }
  const auto& commandLine = std::get<CommandLine>(parsed);
  if (commandLine.help) {
    printLine(usageText().substr(0, usageText().size() - 1));
    return 0;
  }
  raiseDescriptorLimit();
  std::string error;
  auto frontDoor = FrontDoor::create(commandLine.config, printLine, error);
  if (!frontDoor) {
    std::fprintf(stderr, "tarnwick-frontdoor: %s\n", error.c_str());
    return 1;
  }
  printLine("listening " + frontDoor->boundAddress());
  gFrontDoor.store(frontDoor.get());
  tarnwick::installStopSignalHandler(onStopSignal);
  frontDoor->run();
  gFrontDoor.store(nullptr);
  return 0;
}
