// tarnwick-daemon: the daemon's end of the extension's socket, for tests, demos and a start of
// a real daemon. Prints "listening PATH", then each event (readable, or as received with --json)
// one line at a time, flushed; SIGINT and SIGTERM print the counts by kind and end it with 0.

#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>

#include "CommandLine.h"
#include "CompanionMain.h"
#include "DaemonServer.h"
#include "EventFormat.h"
#include "bridge/DaemonBridge.h"

namespace {

using namespace tarnwick;
using namespace tarnwick::daemon;
using companion::printLine;
using companion::StartFailure;

bool readFile(const std::string& path, std::string& text) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return false;
  std::ostringstream contents;
  contents << file.rdbuf();
  text = contents.str();
  return true;
}

// The daemon as it runs in the foreground: its server, and the counts by kind it prints once
// stopped.
class CountingDaemon : public companion::ForegroundServer {
 public:
  static std::unique_ptr<CountingDaemon> start(const DaemonConfig& config, StartFailure& failure) {
    std::optional<std::string> pushLine;
    if (config.pushFile) {
      std::string text;
      if (!readFile(*config.pushFile, text)) {
        failure = {"cannot read " + *config.pushFile, 2};
        return nullptr;
      }
      pushLine = policyPushLine(text, failure.message);
      if (!pushLine) {
        failure.status = 2;
        return nullptr;
      }
    }
    std::unique_ptr<CountingDaemon> daemon(new CountingDaemon(config));
    const std::string path = config.socketPath.empty()
                                 ? DaemonBridge::resolveSocketPath(std::nullopt)
                                 : config.socketPath;
    daemon->server_ =
        DaemonServer::create(path, std::move(pushLine), daemon->callbacks(), failure.message);
    if (!daemon->server_) return nullptr;
    printLine(daemon->status_out_, "listening " + path);
    return daemon;
  }

  void run() override {
    server_->run();
    printLine(stdout, json_ ? counts_.jsonSummary() : counts_.readableSummary());
  }
  void stop() override { server_->stop(); }

 private:
  explicit CountingDaemon(const DaemonConfig& config)
      : json_(config.json), status_out_(config.json ? stderr : stdout) {}

  // The server is a member, so the callbacks never outlive what they hold.
  DaemonServer::Callbacks callbacks() {
    return {[this](std::string_view line) {
              counts_.add(kindOf(line));
              printLine(stdout, json_ ? std::string(line) : readableEvent(line));
            },
            [this](std::string_view line) { printLine(status_out_, line); }};
  }

  const bool json_;
  // Status lines stay out of the event stream when it is machine-read.
  std::FILE* const status_out_;
  KindCounts counts_;
  std::unique_ptr<DaemonServer> server_;
};

}  // namespace

int main(int argc, char** argv) {
  const companion::Companion<DaemonConfig> daemon{
      "tarnwick-daemon", usageText(), parseCommandLine,
      [](const DaemonConfig& config,
         StartFailure& failure) -> std::unique_ptr<companion::ForegroundServer> {
        return CountingDaemon::start(config, failure);
      }};
  return companion::runCompanion(daemon, argc, argv);
}
