#pragma once
// The main loop both companions share. runCompanion() reads the command line, prints the usage
// on a fault (status 2) or when asked (status 0), starts the companion's server (status 1, or
// the status the companion names, when it cannot) and serves in the foreground until SIGINT or
// SIGTERM, then returns 0. A stop signal that comes while the server starts stops it as soon as
// it is there.

#include <cstdio>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "CompanionOptions.h"

namespace tarnwick::companion {

// What a companion serves in the foreground.
class ForegroundServer {
 public:
  virtual ~ForegroundServer() = default;
  // Serves on the calling thread until stop(). Called at most once.
  virtual void run() = 0;
  // Any thread, and async-signal-safe: makes run() return soon, or at once if not yet running.
  virtual void stop() = 0;
};

struct StartFailure {
  std::string message;
  int status = 1;
};

// Starts serving and prints the companion's "listening" line; nothing, with `failure` set, when
// it cannot.
using Starter = std::function<std::unique_ptr<ForegroundServer>(StartFailure& failure)>;

template <class Config>
struct Companion {
  std::string_view name;   // "tarnwick-frontdoor", the start of its error lines
  std::string_view usage;  // ends with a line feed
  std::variant<CommandLine<Config>, UsageError> (*parse)(std::span<const std::string_view> args);
  std::function<std::unique_ptr<ForegroundServer>(const Config& config, StartFailure& failure)>
      start;
};

// Prints the fault and the usage on stderr: status 2.
int usageFault(std::string_view name, std::string_view usage, const UsageError& error);
// Prints the usage on stdout: status 0.
int printUsage(std::string_view usage);
// Starts and serves: status 0 once the server has stopped.
int serve(std::string_view name, const Starter& start);

template <class Config>
int runCompanion(const Companion<Config>& companion, int argc, char** argv) {
  const std::vector<std::string_view> args(argv + 1, argv + argc);
  const auto parsed = companion.parse(args);
  if (const auto* error = std::get_if<UsageError>(&parsed)) {
    return usageFault(companion.name, companion.usage, *error);
  }
  const auto& line = std::get<CommandLine<Config>>(parsed);
  if (line.help) return printUsage(companion.usage);
  return serve(companion.name,
               [&](StartFailure& failure) { return companion.start(line.config, failure); });
}

// One line and its line feed, flushed at once: the companions' output is read as it comes.
void printLine(std::FILE* to, std::string_view line);

}  // namespace tarnwick::companion
