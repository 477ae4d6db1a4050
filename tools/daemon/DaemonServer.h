#pragma once
// The daemon's end of the extension's socket: listens on a Unix-domain path and serves one
// connection at a time, as the real daemon does (later connects wait in the backlog). On each new
// connection it first writes the push line, if it has one; then it hands every line received to
// the event callback. Each connection cuts its own lines: a partial line left by a connection
// that ended is dropped with it, never joined to the next connection's first line. One thread
// runs everything; stop() may come from anywhere.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "CompanionMain.h"

namespace tarnwick::daemon {

class DaemonServer : public companion::ForegroundServer {
 public:
  struct Callbacks {
    // Each line received, without its line feed.
    std::function<void(std::string_view line)> event;
    // "connected", "pushed policy (N bytes)", "disconnected".
    std::function<void(std::string_view line)> status;
  };

  // Creates the socket's directory, replaces a stale socket file and listens. Gives nothing and
  // sets error when it cannot.
  static std::unique_ptr<DaemonServer> create(std::string path, std::optional<std::string> pushLine,
                                              Callbacks callbacks, std::string& error);
  // Closes everything and removes the socket file.
  ~DaemonServer() override;
  DaemonServer(const DaemonServer&) = delete;
  DaemonServer& operator=(const DaemonServer&) = delete;

  const std::string& path() const { return path_; }
  // Serves on the calling thread until stop(). Call at most once.
  void run() override;
  // Any thread, and async-signal-safe: makes run() return soon, or at once if not yet running.
  void stop() override;

 private:
  DaemonServer(std::string path, std::optional<std::string> pushLine, Callbacks callbacks);
  bool listen(std::string& error);
  // Waits for `fd` or the stop event; false once stopped.
  bool waitFor(int fd);
  void serve(int connection);

  const std::string path_;
  const std::optional<std::string> push_line_;
  Callbacks callbacks_;
  int listener_ = -1;
  int stop_event_ = -1;
  bool stopped_ = false;
};

}  // namespace tarnwick::daemon
