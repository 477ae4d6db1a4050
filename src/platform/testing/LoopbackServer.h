#pragma once
// A TCP listener on a loopback address for tests of real connections, on plain POSIX sockets.
// Three behaviours:
// - Accept: a thread accepts every connection; the test drives each accepted peer from its own
//   thread with blocking reads and writes.
// - Refuse: the port is bound but not listening, so a dial is refused (and no other socket can
//   take the port while the server lives).
// - Stall: the listener's accept queue is filled by one connection of its own and never drained,
//   so the kernel drops every further SYN and a dial neither succeeds nor fails.
// Blocking reads give up after kPatience, so a broken test fails instead of hanging.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace tarnwick {

class LoopbackServer {
 public:
  enum class Mode { Accept, Refuse, Stall };
  static constexpr std::chrono::milliseconds kPatience{5000};

  // One accepted connection, seen from the server's side. Used by one test thread at a time.
  class Peer {
   public:
    explicit Peer(int fd) : fd_(fd) {}
    ~Peer();
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    // Up to `count` bytes: fewer only at the end of the stream or when patience runs out.
    std::string read(std::size_t count);
    // Everything until the client ends its stream (or patience runs out).
    std::string readToEnd();
    // True once the client has ended its stream (the next read finds the end).
    bool sawEnd() const { return sawEnd_; }
    // True once a read found the connection reset by the client.
    bool sawReset() const { return sawReset_; }
    void write(std::string_view bytes);
    void shutdownWrite();
    // Aborts the connection: the client sees a reset. Nothing more may be done with this peer.
    void reset();

   private:
    // One read of at most `count` bytes; empty at the end, on an error or when patience runs out.
    std::string readSome(std::size_t count);

    int fd_;  // -1 once reset
    bool sawEnd_ = false;
    bool sawReset_ = false;
  };

  // `address` is "127.0.0.1" or "::1"; the kernel picks the port.
  explicit LoopbackServer(const std::string& address, Mode mode = Mode::Accept);
  ~LoopbackServer();
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  std::uint16_t port() const { return port_; }
  // The index-th accepted connection, waiting for it up to kPatience; nullptr if none came.
  Peer* peer(std::size_t index);
  std::size_t acceptedCount() const;

 private:
  void acceptLoop();

  int listener_ = -1;
  int stallFiller_ = -1;
  int wakeRead_ = -1;
  int wakeWrite_ = -1;
  std::uint16_t port_ = 0;
  mutable std::mutex mutex_;
  std::condition_variable accepted_;
  std::deque<std::unique_ptr<Peer>> peers_;
  std::thread acceptor_;
};

}  // namespace tarnwick
