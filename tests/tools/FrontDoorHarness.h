#pragma once
// Test support for the front door: a front door running on its own thread in this process, and
// an echo destination, both on loopback.

#include <condition_variable>
#include <mutex>
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
// of its input (or 5 s of quiet), then half-closes. The destructor's shutdown of the listener
// ends the acceptor; the threads join as the members go.
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

}  // namespace tarnwick::frontdoor
