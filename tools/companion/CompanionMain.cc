#include "CompanionMain.h"

#include <sys/resource.h>

#include <atomic>
#include <csignal>

#include "platform/posix/StopSignals.h"

namespace tarnwick::companion {
namespace {

std::atomic<ForegroundServer*> gServer{nullptr};
std::atomic<bool> gStopRequested{false};

void onStopSignal(int) {
  gStopRequested.store(true);
  if (ForegroundServer* server = gServer.load()) server->stop();
}

// A companion may hold thousands of connections, two descriptors each; the usual soft limit of
// 1024 would stop it short of that.
void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

int usageFault(std::string_view name, std::string_view usage, const UsageError& error) {
  std::fprintf(stderr, "%.*s: %s\n%.*s", static_cast<int>(name.size()), name.data(),
               error.message.c_str(), static_cast<int>(usage.size()), usage.data());
  return 2;
}

int printUsage(std::string_view usage) {
  std::fwrite(usage.data(), 1, usage.size(), stdout);
  std::fflush(stdout);
  return 0;
}

int serve(std::string_view name, const Starter& start) {
  raiseDescriptorLimit();
  gStopRequested.store(false);
  // Caught before the start, so that no stop signal can end the process with a default action
  // once it has said it is listening.
  installStopSignalHandler(onStopSignal);
  StartFailure failure;
  std::unique_ptr<ForegroundServer> server = start(failure);
  if (server) {
    gServer.store(server.get());
    if (gStopRequested.load()) server->stop();
    server->run();
    gServer.store(nullptr);
  }
  installStopSignalHandler(SIG_DFL);
  if (server) return 0;
  std::fprintf(stderr, "%.*s: %s\n", static_cast<int>(name.size()), name.data(),
               failure.message.c_str());
  return failure.status;
}

void printLine(std::FILE* to, std::string_view line) {
  std::fwrite(line.data(), 1, line.size(), to);
  std::fputc('\n', to);
  std::fflush(to);
}

}  // namespace tarnwick::companion
