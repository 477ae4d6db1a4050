#pragma once
// Test support for the front door: a front door running on its own thread in this process, an
// echo destination, and blocking loopback clients whose every wait is bounded by a poll.

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "FrontDoor.h"
#include "platform/posix/SocketAddress.h"
#include "platform/posix/UniqueFd.h"
#include "platform/testing/CaseName.h"

namespace tarnwick::frontdoor {

using namespace std::chrono_literals;

using tarnwick::CaseName;

// Upper bound for anything that should happen promptly; reached only when a test fails.
inline constexpr std::chrono::milliseconds kPatience = 5s;

// The lines a front door logs, collected from its thread.
class LineLog {
 public:
  void add(std::string_view line);
  // The first line containing every fragment, once one arrives (or nothing after kPatience).
  std::optional<std::string> waitFor(const std::vector<std::string>& fragments);
  std::vector<std::string> lines();

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<std::string> lines_;
};

// A front door serving on a thread of its own until the object is dropped.
class RunningFrontDoor {
 public:
  explicit RunningFrontDoor(FrontDoorConfig config);
  ~RunningFrontDoor();

  SocketAddress address() const;
  LineLog& log() { return log_; }
  // Stops the front door and waits for run() to return.
  void stop();

 private:
  LineLog log_;
  std::unique_ptr<FrontDoor> front_door_;
  std::thread thread_;
};

// Listens on a loopback address; every accepted connection echoes what it reads until the end
// of its input, then half-closes.
class EchoServer {
 public:
  explicit EchoServer(const std::string& host = "127.0.0.1");
  ~EchoServer();
  std::uint16_t port() const { return port_; }

 private:
  void acceptLoop();

  UniqueFd listener_;
  std::uint16_t port_ = 0;
  std::mutex mutex_;
  std::vector<std::thread> workers_;
  std::thread acceptor_;
};

SocketAddress loopback(const std::string& host, std::uint16_t port);
// A loopback port that refuses connections for as long as the returned socket lives: bound,
// never listened on.
std::pair<UniqueFd, std::uint16_t> refusingPort(const std::string& host = "127.0.0.1");

// Blocking client socket, connected; invalid when the connect failed (errno says why).
UniqueFd connectTo(const SocketAddress& address);
void sendAll(int fd, std::string_view bytes);
// True when the fd turns readable (data or end of stream) within the time.
bool readableWithin(int fd, std::chrono::milliseconds time);
// Reads through the first "\r\n\r\n" (a head and its terminator), or until the stream ends or
// stays quiet for kPatience; one byte at a time so nothing behind the head is taken.
std::string readHead(int fd);
// Everything up to the end of the stream (bounded by kPatience of quiet).
std::string readToEnd(int fd);
// Sends the payload while reading, half-closes after the last byte, and returns everything read
// until the end of the stream: a large echo cannot fill both directions and stall.
std::string exchange(int fd, std::string_view payload);

std::string connectHead(std::string_view authority, std::string_view headers = "");

}  // namespace tarnwick::frontdoor
