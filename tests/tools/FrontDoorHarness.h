#pragma once
// Test support for the front door: a front door running on its own thread in this process,
// destinations and blocking client sockets, all on loopback. Every blocking read gives up after
// kPatience, so a broken test fails instead of hanging.

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "FrontDoor.h"
#include "platform/posix/SocketAddress.h"
#include "platform/posix/UniqueFd.h"
#include "platform/testing/CaseName.h"  // for the suites that include this header

namespace tarnwick::frontdoor {

// A front door serving on a thread of its own until it is stopped or dropped.
class RunningFrontDoor {
 public:
  explicit RunningFrontDoor(FrontDoorConfig config);
  ~RunningFrontDoor() { stop(); }

  SocketAddress address() const;
  // The lines logged so far, once there are at least `count` of them (or after 5 s).
  std::vector<std::string> lines(std::size_t count);
  // Stops the front door and waits for run() to return.
  void stop();

 private:
  std::mutex mutex_;
  std::condition_variable logged_;
  std::vector<std::string> lines_;
  std::unique_ptr<FrontDoor> front_door_;
  std::thread thread_;
};

// Listens on a loopback address; every accepted connection echoes what it reads until the end
// of its input (or 5 s of quiet), then half-closes. Its accept queue takes a whole burst of
// connections: a short one resets what overflows it, which would test the echo, not its client.
// The destructor's shutdown of the listener ends the acceptor; the threads join as the members go.
class EchoServer {
 public:
  explicit EchoServer(const std::string& host = "127.0.0.1");
  ~EchoServer();
  std::uint16_t port() const { return port_; }

 private:
  UniqueFd listener_;
  std::uint16_t port_ = 0;
  std::vector<std::jthread> workers_;  // touched by the acceptor only, until it is joined
  std::jthread acceptor_;
};

inline constexpr std::chrono::seconds kPatience{5};

// A listener on 127.0.0.1 whose connections the test accepts itself, one by one.
class ManualDestination {
 public:
  ManualDestination();
  std::string authority() const;  // "127.0.0.1:PORT"
  // The oldest waiting connection, blocking; invalid after kPatience without one.
  UniqueFd accept();

 private:
  UniqueFd listener_;
};

// A blocking socket connected to `address`, invalid when the connect fails. `prepare` sets its
// options before the connect.
UniqueFd connectTo(const SocketAddress& address, const std::function<void(int fd)>& prepare = {});
// Keeps the window the socket advertises that small.
void setReceiveBuffer(int fd, int bytes);
void sendAll(const UniqueFd& fd, const std::string& bytes);
// Exactly `count` bytes, or fewer when the stream ends, fails or stays silent first.
std::string readExactly(const UniqueFd& fd, std::size_t count);
// Every byte up to the stream's end, then how it ended: "|end" (a FIN), "|reset", "|timeout" or
// "|errno N".
std::string readToEnd(const UniqueFd& fd);
// `size` bytes whose value depends on their position, so a lost, doubled or reordered chunk shows.
std::string patternBytes(std::size_t size);
// Polls `done` until it holds or kPatience has passed, for states only the kernel can show.
bool waitUntil(const std::function<bool()>& done);

}  // namespace tarnwick::frontdoor
