// tarnwick-daemon: the daemon's end of the extension's socket, for tests, demos and a start of
// a real daemon. Prints "listening PATH", then each event (readable, or as received with --json)
// one line at a time, flushed; SIGINT and SIGTERM print the counts by kind and end it with 0.

#include <atomic>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "CommandLine.h"
#include "DaemonServer.h"
#include "EventFormat.h"
#include "bridge/DaemonBridge.h"
#include "platform/posix/StopSignals.h"

namespace {

using tarnwick::daemon::DaemonServer;

std::atomic<DaemonServer*> gServer{nullptr};

void onStopSignal(int) {
  if (DaemonServer* server = gServer.load()) server->stop();
}

void printLine(std::FILE* to, std::string_view line) {
  std::fwrite(line.data(), 1, line.size(), to);
  std::fputc('\n', to);
  std::fflush(to);
}

bool readFile(const std::string& path, std::string& text) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return false;
  std::ostringstream contents;
  contents << file.rdbuf();
  text = contents.str();
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace tarnwick::daemon;
  const std::vector<std::string_view> args(argv + 1, argv + argc);
  const auto parsed = parseCommandLine(args);
  if (const auto* usage = std::get_if<UsageError>(&parsed)) {
    std::fprintf(stderr, "tarnwick-daemon: %s\n%.*s", usage->message.c_str(),
                 static_cast<int>(usageText().size()), usageText().data());
    return 2;
  }
  const DaemonConfig& config = std::get<CommandLine>(parsed).config;
  if (std::get<CommandLine>(parsed).help) {
    std::fwrite(usageText().data(), 1, usageText().size(), stdout);
    return 0;
  }
  std::optional<std::string> pushLine;
  if (config.pushFile) {
    std::string text;
    std::string error;
    if (!readFile(*config.pushFile, text)) error = "cannot read " + *config.pushFile;
    if (error.empty()) pushLine = policyPushLine(text, error);
    if (!pushLine) {
      std::fprintf(stderr, "tarnwick-daemon: %s\n", error.c_str());
      return 2;
    }
  }
  // Status lines stay out of the event stream when it is machine-read.
  std::FILE* statusOut = config.json ? stderr : stdout;
  KindCounts counts;
  DaemonServer::Callbacks callbacks{
      [&](std::string_view line) {
        counts.add(kindOf(line));
        printLine(stdout, config.json ? std::string(line) : readableEvent(line));
      },
      [&](std::string_view line) { printLine(statusOut, line); }};
  const std::string path = config.socketPath.empty()
                               ? tarnwick::DaemonBridge::resolveSocketPath(std::nullopt)
                               : config.socketPath;
  std::string error;
  auto server = DaemonServer::create(path, std::move(pushLine), std::move(callbacks), error);
  if (!server) {
    std::fprintf(stderr, "tarnwick-daemon: %s\n", error.c_str());
    return 1;
  }
  printLine(statusOut, "listening " + path);
  gServer.store(server.get());
  tarnwick::installStopSignalHandler(onStopSignal);
  server->run();
  gServer.store(nullptr);
  printLine(stdout, config.json ? counts.jsonSummary() : counts.readableSummary());
  return 0;
}
