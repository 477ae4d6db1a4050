#pragma once
// The daemon's side of the bridge socket for tests: a real Unix-domain listener driven from the
// test thread, with every wait bounded by a poll timeout, and a short temporary directory for
// socket paths (sun_path holds 108 bytes).

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarnwick::testing {

using namespace std::chrono_literals;

class TempSocketDir {
 public:
  TempSocketDir();
  ~TempSocketDir();
  TempSocketDir(const TempSocketDir&) = delete;
  TempSocketDir& operator=(const TempSocketDir&) = delete;

  const std::string& path() const { return path_; }
  std::string file(std::string_view name) const { return path_ + "/" + std::string(name); }

 private:
  std::string path_;
};

class TestDaemon {
 public:
  // Binds and listens at `path` (cut to sun_path's size as the bridge cuts it).
  explicit TestDaemon(std::string path);
  ~TestDaemon();
  TestDaemon(const TestDaemon&) = delete;
  TestDaemon& operator=(const TestDaemon&) = delete;

  // Accepts the next connection, replacing (closing) the current one.
  bool accept(std::chrono::milliseconds timeout = 2s);
  // The next line from the current connection without its line feed; absent on timeout or at
  // the end of the stream.
  std::optional<std::string> readLine(std::chrono::milliseconds timeout = 2s);
  // Every byte received so far on the current connection, lines not yet taken included.
  const std::string& received() const { return received_; }
  // True once the bridge has closed the current connection (end of stream seen).
  bool waitForEnd(std::chrono::milliseconds timeout = 2s);
  void write(std::string_view bytes);
  void closeConnection();
  // Closes the listener and removes the socket file, as a stopping daemon does.
  void stopListening();

 private:
  bool readMore(std::chrono::milliseconds timeout);

  std::string path_;
  int listener_ = -1;
  int connection_ = -1;
  std::string received_;
  std::size_t taken_ = 0;
  bool ended_ = false;
};

}  // namespace tarnwick::testing
